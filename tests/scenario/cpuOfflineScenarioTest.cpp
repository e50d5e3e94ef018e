#include <gtest/gtest.h>

#include <initializer_list>
#include <string>

#include "cpuScenario.h"

namespace {

using namespace std::chrono_literals;
using scenario::Actions;
using scenario::diagnostics;
using scenario::Events;
using scenario::Lines;
using scenario::offline;
using scenario::retire;

class CpuOffline : public scenario::CpuScenario {
 protected:
  void startWith(std::int64_t threshold) {
    options["Cpu/CPUOfflineThreshold"] = threshold;
    start();
  }
  void threshold(std::int64_t value) {
    options["Cpu/CPUOfflineThreshold"] = value;
    write();
  }
  /// How many qualifying errors of a processor it takes to have it taken offline; 0 where a hundred do not.
  int errorsToOffline(std::uint64_t processor) {
    for (int n = 1; n <= 100; ++n) {
      coreError(processor);
      if (!newActions().empty()) return n;
    }
    return 0;
  }
};

TEST_F(CpuOffline, threeErrorsOfACoreWithinADayTakeTheReportingProcessorOffline) {
  startWith(3);
  coreError(5);
  scenario.clock.pass(40000s);
  coreError(5);
  scenario.clock.pass(46399s);
  EXPECT_EQ(newActions(), Actions{});
  coreError(5);
  EXPECT_EQ(newActions(), Actions{offline(5)});
  EXPECT_EQ(driver->events(), Events{});
  EXPECT_EQ(diagnostics(scenario), Lines{});
}

TEST_F(CpuOffline, aThirdErrorAFullDayAfterTheFirstDoesNot) {
  startWith(3);
  coreError(5);
  scenario.clock.pass(40000s);
  coreError(5);
  scenario.clock.pass(46400s);
  coreError(5);
  EXPECT_EQ(newActions(), Actions{});
  coreError(5);  // within a day of the second
  EXPECT_EQ(newActions(), Actions{offline(5)});
}

TEST_F(CpuOffline, theThreadsOfACoreAreCountedTogetherAndTheOneThatReportedLastGoes) {
  startWith(3);
  coreError(2);
  coreError(3);
  coreError(4);  // another core
  coreError(1);  // and another
  EXPECT_EQ(newActions(), Actions{});
  coreError(3);
  EXPECT_EQ(newActions(), Actions{offline(3)});
}

TEST_F(CpuOffline, aThresholdOfOneIsReachedByTheFirstError) {
  startWith(1);
  coreError(7);
  EXPECT_EQ(newActions(), Actions{offline(7)});
}

TEST_F(CpuOffline, aCoreTakenOfflineIsNeverTakenOfflineAgain) {
  startWith(1);
  coreError(6);
  coreError(6);
  coreError(7);  // the same core
  EXPECT_EQ(newActions(), Actions{offline(6)});
  scenario.clock.pass(200000s);
  coreError(6);
  EXPECT_EQ(newActions(), Actions{});
}

TEST_F(CpuOffline, aRefusedOfflineIsSwallowedAndTriedAgainWithTheNextError) {
  failures = R"("cpu.offline":16)";
  startWith(2);
  coreError(0);
  coreError(0);
  coreError(0);
  EXPECT_EQ(newActions(), Actions{});
  EXPECT_EQ(diagnostics(scenario), Lines{});
  failures.clear();
  write();
  coreError(0);
  EXPECT_EQ(newActions(), Actions{offline(0)});
}

TEST_F(CpuOffline, anOverflowedRecordFillsTwoPlaces) {
  startWith(3);
  coreError(0, kOverflow | 0x0101);
  EXPECT_EQ(newActions(), Actions{});
  coreError(0);
  EXPECT_EQ(newActions(), Actions{offline(0)});
  coreError(2, kOverflow | 0x0101);
  coreError(2, kOverflow | 0x0101);
  EXPECT_EQ(newActions(), Actions{offline(2)});
  threshold(2);
  coreError(4, kOverflow | 0x0101);
  EXPECT_EQ(newActions(), Actions{offline(4)});
}

TEST_F(CpuOffline, theRingHolds64ErrorsSoThat64AreReachedBy64) {
  startWith(64);
  EXPECT_EQ(errorsToOffline(0), 64);
}

TEST_F(CpuOffline, aThresholdAbove64WrapsAroundTheRing) {
  startWith(65);
  EXPECT_EQ(errorsToOffline(0), 1);
  threshold(66);
  EXPECT_EQ(errorsToOffline(2), 2);
  threshold(128);
  EXPECT_EQ(errorsToOffline(4), 64);
  threshold(64 * 1000 + 5);
  EXPECT_EQ(errorsToOffline(6), 5);
}

TEST_F(CpuOffline, theRingGoesRoundAndForgetsItsOldestErrors) {
  startWith(3);
  for (int n = 0; n < 200; ++n) {
    coreError(0);
    scenario.clock.pass(43200s);  // three never fall within a day
  }
  EXPECT_EQ(newActions(), Actions{});
  coreError(0);
  scenario.clock.pass(100s);
  coreError(0);
  EXPECT_EQ(newActions(), Actions{offline(0)});
}

TEST_F(CpuOffline, aThresholdOfZeroTakesNothingOfflineAndCountsNothing) {
  startWith(0);
  EXPECT_EQ(errorsToOffline(0), 0);
  threshold(3);
  EXPECT_EQ(errorsToOffline(0), 3);
}

TEST_F(CpuOffline, aThresholdThatCannotBeReadTakesNothingOfflineAndCountsNothing) {
  failures = R"("option.read:Cpu/CPUOfflineThreshold":5)";
  startWith(3);
  EXPECT_EQ(errorsToOffline(0), 0);
  failures.clear();
  write();
  EXPECT_EQ(errorsToOffline(0), 3);
}

TEST_F(CpuOffline, theThresholdIsReadWithEveryRecord) {
  startWith(5);
  coreError(0);
  coreError(0);
  threshold(3);
  coreError(0);
  EXPECT_EQ(newActions(), Actions{offline(0)});
}

TEST_F(CpuOffline, errorCodesThatQualifyDo) {
  startWith(1);
  std::uint64_t processor = 0;
  for (const std::uint64_t code :
       std::initializer_list<std::uint64_t>{// memory hierarchy: bit 8, none of 0xEE00
                                            0x0100, 0x0101, 0x0110, 0x01fc, 0x01fd, 0x1100, 0x1101, 0x11fd,
                                            // generic cache hierarchy: bits 2 and 3, none of 0xEFF0
                                            0x000c, 0x000d, 0x100c, 0x100d,
                                            // translation buffers: bit 4, none of 0xEFE0
                                            0x0010, 0x0011, 0x001c, 0x001d, 0x1010, 0x1011, 0x101d}) {
    coreError(processor, code);
    EXPECT_EQ(newActions(), Actions{offline(processor)}) << std::hex << code;
    processor += 2;
  }
}

TEST_F(CpuOffline, errorCodesJustOutsideDoNot) {
  startWith(1);
  std::uint64_t processor = 0;
  for (const std::uint64_t code : std::initializer_list<std::uint64_t>{
           0x0000, 0x0001, 0x1000, 0x00c1, 0x0301, 0x0501, 0x0901, 0x2101, 0x4101, 0x8101, 0x0200, 0xee01,
           // generic: one of the two bits alone, or another beside them
           0x0004, 0x0005, 0x0008, 0x0009, 0x002c, 0x004c, 0x008c, 0x020c, 0x040c, 0x080c, 0x200c, 0x400c, 0x800c,
           // translation buffers: another bit beside
           0x0030, 0x0050, 0x0090, 0x0210, 0x0410, 0x0810, 0x2010, 0x4010, 0x8010}) {
    coreError(processor, code);
    EXPECT_EQ(newActions(), Actions{}) << std::hex << code;
    processor += 2;
  }
}

TEST_F(CpuOffline, onlyTheLow16BitsOfTheStatusAreTheCode) {
  startWith(1);
  coreError(0, 0xf'0101);
  EXPECT_EQ(newActions(), Actions{offline(0)});
  coreError(2, 0x101'0000);
  EXPECT_EQ(newActions(), Actions{});
}

TEST_F(CpuOffline, levelsTwoAndThreeNeverCount) {
  startWith(2);
  for (const std::uint64_t code :
       std::initializer_list<std::uint64_t>{0x0102, 0x0103, 0x1102, 0x000e, 0x000f, 0x0012, 0x0013}) {
    coreError(0, code);
    coreError(0, kOverflow | code);
  }
  EXPECT_EQ(newActions(), Actions{});
  EXPECT_EQ(errorsToOffline(0), 2);
}

TEST_F(CpuOffline, onlyTheExactVendorTextIsTheRightOne) {
  startWith(1);
  for (const char* vendor : {"AuthenticAMD", "GenuineIntel ", "GenuineIntelX", "GenuineInte", "genuineintel", ""}) {
    cpu = std::string(R"("vendor":")") + vendor + R"(","cores":4,"pcpus":8,"offlineEnabled":true)";
    write();
    EXPECT_EQ(errorsToOffline(0), 0) << vendor;
  }
}

TEST_F(CpuOffline, whereOfflineIsNotEnabledNothingIsTakenOffline) {
  cpu = R"("vendor":"GenuineIntel","cores":4,"pcpus":8,"offlineEnabled":false)";
  startWith(1);
  EXPECT_EQ(errorsToOffline(0), 0);
}

TEST_F(CpuOffline, aFactThatCannotBeReadKeepsTheProcessorButCountsThePage) {
  startWith(1);
  std::uint64_t page = 1;
  for (const char* name : {"cpu.info", "cpu.list", "offlineEnabled.read"}) {
    failures = "\"" + std::string(name) + "\":5";
    write();
    EXPECT_EQ(errorsToOffline(0), 0) << name;
    pageError(page, 3);
    EXPECT_EQ(newActions(), Actions{retire(page)}) << name;
    ++page;
  }
  EXPECT_EQ(diagnostics(scenario), Lines{});
}

TEST_F(CpuOffline, countsThatDoNotDivideKeepTheProcessorButCountThePage) {
  startWith(1);
  std::uint64_t page = 1;
  for (const char* counts :
       {R"("cores":8,"pcpus":4)", R"("cores":0,"pcpus":4)", R"("cores":4,"pcpus":0)", R"("cores":0,"pcpus":0)"}) {
    cpu = R"("vendor":"GenuineIntel","offlineEnabled":true,)" + std::string(counts);
    write();
    EXPECT_EQ(errorsToOffline(0), 0) << counts;
    pageError(page, 3);
    EXPECT_EQ(newActions(), Actions{retire(page)}) << counts;
    ++page;
  }
}

TEST_F(CpuOffline, theThreadsOfACoreAreAWholeNumber) {
  cpu = R"("vendor":"GenuineIntel","offlineEnabled":true,"cores":4,"pcpus":11)";  // two
  startWith(2);
  coreError(1);
  coreError(2);
  EXPECT_EQ(newActions(), Actions{});
  coreError(3);
  EXPECT_EQ(newActions(), Actions{offline(3)});
}

TEST_F(CpuOffline, oneRecordMayTakeAProcessorOfflineAndRetireAPage) {
  options["PageRetire/PageErrorCorrThreshold"] = 0;
  startWith(1);
  log4(kAddressValid | 0x0101, 3, 0x2000, 1);
  EXPECT_EQ(newActions(), (Actions{offline(3), retire(2)}));
}

TEST_F(CpuOffline, aRecordWithoutAValidAddressStillCountsTowardsOffline) {
  startWith(1);
  log4(0x0101, 3, 0x2000, 100);
  EXPECT_EQ(newActions(), Actions{offline(3)});
}

TEST_F(CpuOffline, theDayIsMeasuredOnAClockThatIsNeverCorrected) {
  startWith(2);
  coreError(0);
  scenario.clock.correct(scenario.clock.wall() + 48h);
  coreError(0);
  EXPECT_EQ(newActions(), Actions{offline(0)});
  coreError(2);
  scenario.clock.pass(86400s);
  scenario.clock.correct(scenario.clock.wall() - 48h);
  coreError(2);
  EXPECT_EQ(newActions(), Actions{});
}

}  // namespace
