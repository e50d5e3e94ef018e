#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "cpuScenario.h"

namespace {

using namespace std::chrono_literals;
using scenario::Actions;
using scenario::CpuScenario;
using scenario::diagnostics;
using scenario::Events;
using scenario::Lines;
using scenario::retire;
using support::i;
using support::L;
using support::problem;
using support::s;
using support::u;

/// Timers that refuse the first that is asked for.
class RefusesTheFirst final : public keld::Timers {
 public:
  explicit RefusesTheFirst(keld::Timers& timers) : timers_(timers) {}
  int create(keld::TimerCallback callback) override {
    return ++asked_ == 1 ? keld::kNoTimer : timers_.create(std::move(callback));
  }
  int set(int id, keld::TimerMode mode, std::uint32_t seconds, std::uint32_t* remaining) override {
    return timers_.set(id, mode, seconds, remaining);
  }
  [[nodiscard]] int asked() const { return asked_; }

 private:
  keld::Timers& timers_;
  int asked_ = 0;
};

TEST_F(CpuScenario, theThirdErrorOfAPageWithinAPeriodRequestsItsRetirement) {
  start();
  pageError(0x1234);
  pageError(0x1234);
  EXPECT_EQ(newActions(), Actions{});
  pageError(0x1234);
  EXPECT_EQ(newActions(), Actions{retire(0x1234)});
  EXPECT_EQ(driver->events(), Events{});
  EXPECT_EQ(diagnostics(scenario), Lines{});
}

TEST_F(CpuScenario, twoErrorsAPeriodNeverDo) {
  start();
  for (int period = 0; period < 20; ++period) {
    pageError(1);
    pageError(1);
    driver->pass(30s);
  }
  EXPECT_EQ(newActions(), Actions{});
}

TEST_F(CpuScenario, thePeriodEndsWithItsTimerNotWithTheErrorsAge) {
  start();
  driver->pass(29s);
  pageError(1);
  pageError(1);
  driver->pass(1s);
  pageError(1);
  EXPECT_EQ(newActions(), Actions{});
  driver->pass(29s);
  pageError(1);
  pageError(1);
  EXPECT_EQ(newActions(), Actions{retire(1)});
}

TEST_F(CpuScenario, aPageIsFourKilobytesAndPagesAreCountedApart) {
  start();
  log4(kAddressValid, 0, 0x1234000, 1);
  log4(kAddressValid, 0, 0x1234fff, 1);
  log4(kAddressValid, 0, 0x1235000, 1);
  EXPECT_EQ(newActions(), Actions{});
  log4(kAddressValid, 0, 0x1234800, 1);
  EXPECT_EQ(newActions(), Actions{retire(0x1234)});
}

TEST_F(CpuScenario, oneRecordMayCarrySeveralErrors) {
  start();
  pageError(1, 2);
  EXPECT_EQ(newActions(), Actions{});
  pageError(2, 3);
  EXPECT_EQ(newActions(), Actions{retire(2)});
}

TEST_F(CpuScenario, aRecordWithoutAValidAddressCountsNothing) {
  start();
  for (int n = 0; n < 10; ++n) log4(~kAddressValid, 0, 0x1000, 1);
  EXPECT_EQ(newActions(), Actions{});
}

TEST_F(CpuScenario, aCountThatWouldPass255StaysWhereItIs) {
  options["PageRetire/PageErrorCorrThreshold"] = 250;
  start();
  pageError(1, 250);
  pageError(1, 10);
  pageError(1, 6);
  EXPECT_EQ(newActions(), Actions{});
  pageError(1, 5);
  EXPECT_EQ(newActions(), Actions{retire(1)});
  pageError(1, 1);  // stays at 255, which is over the threshold
  EXPECT_EQ(newActions(), Actions{retire(1)});
}

TEST_F(CpuScenario, aCountOf255IsReachedAndOneOf256IsNot) {
  options["PageRetire/PageErrorCorrThreshold"] = 254;
  start();
  pageError(1, 256);
  EXPECT_EQ(newActions(), Actions{});
  pageError(1, 255);
  EXPECT_EQ(newActions(), Actions{retire(1)});
}

TEST_F(CpuScenario, onlyTheLow32BitsOfTheErrorsAreAdded) {
  start();
  pageError(1, 0x1'0000'0000);
  pageError(1, 0x7'0000'0002);
  EXPECT_EQ(newActions(), Actions{});
  pageError(1, 0x1'0000'0001);
  EXPECT_EQ(newActions(), Actions{retire(1)});
}

TEST_F(CpuScenario, theSumIsComparedAsSignedSoThatHugeNumbersAreAdded) {
  start();
  pageError(1, 0xffffffff);  // 0 - 1 is not above 255 and leaves 255 in eight bits
  EXPECT_EQ(newActions(), Actions{retire(1)});
  pageError(1, 0xffffff03);  // 255 - 253 leaves 2
  EXPECT_EQ(newActions(), Actions{});
  pageError(1, 1);
  EXPECT_EQ(newActions(), Actions{retire(1)});
  pageError(3, 0x7fffffff);  // above 255
  EXPECT_EQ(newActions(), Actions{});
  pageError(3, 2);
  pageError(3, 0x7fffffff);  // wraps to a negative sum: 2 + 255 leaves 1
  EXPECT_EQ(newActions(), Actions{});
  pageError(3, 1);
  EXPECT_EQ(newActions(), Actions{});
  pageError(3, 1);
  EXPECT_EQ(newActions(), Actions{retire(3)});
}

TEST_F(CpuScenario, aThresholdIsComparedByItsLowEightBits) {
  options["PageRetire/PageErrorCorrThreshold"] = 258;
  start();
  pageError(1, 2);
  EXPECT_EQ(newActions(), Actions{});
  pageError(1, 1);
  EXPECT_EQ(newActions(), Actions{retire(1)});
}

TEST_F(CpuScenario, aThresholdOf256IsExceededByTheFirstError) {
  options["PageRetire/PageErrorCorrThreshold"] = 256;
  start();
  pageError(1);
  EXPECT_EQ(newActions(), Actions{retire(1)});
}

TEST_F(CpuScenario, aThresholdOf255IsNeverExceeded) {
  options["PageRetire/PageErrorCorrThreshold"] = 255;
  start();
  pageError(1, 255);
  pageError(1, 1);
  EXPECT_EQ(newActions(), Actions{});
}

TEST_F(CpuScenario, theRequestIsRepeatedUntilThePageIsPending) {
  start();
  pageError(1, 3);
  pageError(1);
  EXPECT_EQ(newActions(), (Actions{retire(1), retire(1)}));
  pageStatus = R"("0x1":1)";
  write();
  pageError(1);
  EXPECT_EQ(newActions(), Actions{});
  pageStatus = R"("0x1":0)";  // the mark stays, whatever the status turns to
  write();
  pageError(1);
  EXPECT_EQ(newActions(), Actions{});
  driver->pass(600s);
  pageError(1, 3);
  EXPECT_EQ(newActions(), Actions{});
}

TEST_F(CpuScenario, onlyTheLow16BitsOfAStatusTellThatAPageIsPending) {
  pageStatus = R"("0x1":65536,"0x2":65537,"0x3":32768)";
  start();
  pageError(1, 3);
  pageError(2, 3);
  pageError(3, 3);
  EXPECT_EQ(newActions(), Actions{retire(1)});
}

TEST_F(CpuScenario, aPageWhoseStatusCannotBeReadIsMarkedForGood) {
  failures = R"("page.status":5)";
  start();
  pageError(1, 3);
  failures.clear();
  write();
  pageError(1);
  pageError(2, 3);
  EXPECT_EQ(newActions(), Actions{retire(2)});
}

TEST_F(CpuScenario, aRefusedRequestIsSwallowedAndMadeAgain) {
  failures = R"("page.retire":5)";
  start();
  pageError(1, 3);
  EXPECT_EQ(newActions(), Actions{});
  EXPECT_EQ(diagnostics(scenario), Lines{});
  failures.clear();
  write();
  pageError(1);
  EXPECT_EQ(newActions(), Actions{retire(1)});
}

TEST_F(CpuScenario, pageZeroIsNeverRequestedThoughItIsNotRetired) {
  pageStatus = R"("0x0":0)";
  start();
  pageError(0, 3);
  pageError(0, 100);
  EXPECT_EQ(newActions(), Actions{});
  EXPECT_EQ(driver->events(), Events{});
}

TEST_F(CpuScenario, theEventIsTiedToTheWrapOfTheMarkAndDoesNotComeOfManyRecords) {
  pageStatus = R"("0x1":1)";
  start();
  for (int n = 0; n < 600; ++n) {
    pageError(1);
    pageError(0);
  }
  EXPECT_EQ(driver->events(), Events{});
  EXPECT_EQ(newActions(), Actions{});
}

TEST_F(CpuScenario, aRecordThatCannotBeReadHasNoEffect) {
  options["Cpu/CPUOfflineThreshold"] = 1;
  start();
  scenario::Arguments record = {L(0), L(kAddressValid | 0x100), L(0), L(0), L(0), L(0x1000), L(0)};
  driver->observe("kel.cpu.mce.log4", record);
  record.push_back(s("9"));
  driver->observe("kel.cpu.mce.log4", record);
  EXPECT_EQ(newActions(), Actions{});
  EXPECT_EQ(diagnostics(scenario), Lines{});
}

TEST_F(CpuScenario, theOptionsAreReadAgainEveryMinute) {
  start();
  options["PageRetire/PageErrorCorrThreshold"] = 5;
  write();
  driver->pass(59s);
  pageError(1, 3);
  EXPECT_EQ(newActions(), Actions{retire(1)});
  driver->pass(1s);
  pageError(2, 5);
  EXPECT_EQ(newActions(), Actions{});
  pageError(2);
  EXPECT_EQ(newActions(), Actions{retire(2)});
  options["PageRetire/PageErrorCorrThreshold"] = 0;
  write();
  driver->pass(59s);
  pageError(3, 5);
  EXPECT_EQ(newActions(), Actions{});
  driver->pass(1s);
  pageError(4);
  EXPECT_EQ(newActions(), Actions{retire(4)});
}

TEST_F(CpuScenario, aThresholdThatCannotBeReadKeepsItsValue) {
  options["PageRetire/PageErrorCorrThreshold"] = 5;
  start();
  failures = R"("option.read:PageRetire/PageErrorCorrThreshold":5)";
  options["PageRetire/PageErrorCorrThreshold"] = 1;
  write();
  driver->pass(60s);
  pageError(1, 5);
  EXPECT_EQ(newActions(), Actions{});
  pageError(1);
  EXPECT_EQ(newActions(), Actions{retire(1)});
}

TEST_F(CpuScenario, thresholdAndPeriodThatCouldNeverBeReadAreTwoAndThirtySeconds) {
  failures = R"("option.read:PageRetire/PageErrorCorrThreshold":5,"option.read:PageRetire/PageErrorCorrPeriod":5)";
  start();
  EXPECT_EQ(scenario.timers.secondsToNext(), 30);
  pageError(1, 2);
  EXPECT_EQ(newActions(), Actions{});
  pageError(1, 1);
  EXPECT_EQ(newActions(), Actions{retire(1)});
}

TEST_F(CpuScenario, aThresholdIsReadThoughThePeriodCannotBe) {
  failures = R"("option.read:PageRetire/PageErrorCorrPeriod":5)";
  options["PageRetire/PageErrorCorrThreshold"] = 0;
  start();
  pageError(1);
  EXPECT_EQ(newActions(), Actions{retire(1)});
}

TEST_F(CpuScenario, thePeriodReadAtTheStartReprogramsTheTimer) {
  options["PageRetire/PageErrorCorrPeriod"] = 20;
  start();
  EXPECT_EQ(scenario.timers.secondsToNext(), 20);
  pageError(1, 2);
  driver->pass(19s);
  pageError(1);
  EXPECT_EQ(newActions(), Actions{retire(1)});
  driver->pass(1s);
  pageError(1, 2);
  EXPECT_EQ(newActions(), Actions{});
}

TEST_F(CpuScenario, aChangedPeriodReprogramsTheTimerAtTheNextRefresh) {
  options["PageRetire/PageErrorCorrPeriod"] = 3600;
  start();
  options["PageRetire/PageErrorCorrPeriod"] = 40;
  write();
  driver->pass(59s);
  pageError(1, 2);
  driver->pass(1s);  // not cleared by the refresh itself
  EXPECT_EQ(scenario.timers.secondsToNext(), 40);
  driver->pass(39s);
  pageError(1);
  EXPECT_EQ(newActions(), Actions{retire(1)});
  driver->pass(1s);
  pageError(1, 2);
  EXPECT_EQ(newActions(), Actions{});
  driver->pass(40s);
  pageError(1, 2);
  EXPECT_EQ(newActions(), Actions{});
}

TEST_F(CpuScenario, anUnchangedPeriodLeavesTheTimerAsItRuns) {
  options["PageRetire/PageErrorCorrPeriod"] = 45;
  start();
  driver->pass(60s);
  EXPECT_EQ(scenario.timers.secondsToNext(), 30);  // at second 90; reprogrammed, it would be 45
}

TEST_F(CpuScenario, aPeriodThatCannotBeReadLeavesTheTimerAsItRuns) {
  options["PageRetire/PageErrorCorrPeriod"] = 45;
  start();
  options["PageRetire/PageErrorCorrPeriod"] = 10;
  failures = R"("option.read:PageRetire/PageErrorCorrPeriod":5)";
  write();
  driver->pass(60s);
  EXPECT_EQ(scenario.timers.secondsToNext(), 30);
}

TEST_F(CpuScenario, withoutTheFirstTimerNothingIsRefreshedOrCleared) {
  options["PageRetire/PageErrorCorrThreshold"] = 4;
  options["PageRetire/PageErrorCorrPeriod"] = 20;  // setting the timer that does not exist fails harmlessly
  start(0);
  EXPECT_FALSE(scenario.timers.armed());
  pageError(1, 4);
  driver->pass(3600s);
  EXPECT_EQ(newActions(), Actions{});
  pageError(1);
  EXPECT_EQ(newActions(), Actions{retire(1)});
}

TEST_F(CpuScenario, withoutTheFirstTimerTheSecondIsNotAskedFor) {
  write();
  RefusesTheFirst timers(scenario.timers);
  keld::Services services{scenario.clock, scenario.post, timers};
  driver = std::make_unique<support::Driver>(scenario, keld::kCpuCorrelator.make(services));
  EXPECT_EQ(timers.asked(), 1);
  EXPECT_FALSE(scenario.timers.armed());
}

TEST_F(CpuScenario, withoutTheSecondTimerTheOptionsAreRefreshedAndNothingIsCleared) {
  start(1);
  EXPECT_EQ(scenario.timers.secondsToNext(), 60);
  options["PageRetire/PageErrorCorrThreshold"] = 4;
  options["PageRetire/PageErrorCorrPeriod"] = 20;
  write();
  pageError(1, 2);
  driver->pass(60s);
  pageError(1, 2);
  EXPECT_EQ(newActions(), Actions{});
  driver->pass(600s);
  pageError(1);
  EXPECT_EQ(newActions(), Actions{retire(1)});
}

TEST_F(CpuScenario, oneToOneRowsGiveTheirEvents) {
  start();
  scenario::expectRows(
      scenario, *driver,
      {{"kel.cpu.mce.invalid",
        {},
        problem("orn.problem.cpu.mce.invalid",
                "MCE monitoring will be disabled as an unsupported CPU was detected. Please consult the ORN HCL for "
                "information on supported hardware.")},
       {"kel.cpu.amd.mce.dram.disabled",
        {},
        problem("orn.problem.cpu.amd.mce.dram.disabled", "DRAM ECC not enabled. Please enable it in BIOS.")},
       {"kel.cpu.intel.ioapic.listing.error",
        {},
        problem("orn.problem.cpu.intel.ioapic.listing.error",
                "Not all IO-APICs are listed in the DMAR. Not enabling interrupt remapping on this platform. ")},
       {"kel.cpu.smp.ht.invalid",
        {u(2), u(3)},
        problem("orn.problem.cpu.smp.ht.invalid",
                "Disabling HyperThreading due to invalid configuration: Number of threads: 2, Number of PCPUs: 3.")},
       {"kel.cpu.smp.ht.partner.missing",
        {u(2), u(4294967295)},
        problem("orn.problem.cpu.smp.ht.partner.missing",
                "Disabling HyperThreading due to invalid configuration: HT partner 2 is missing from PCPU -1.")},
       {"kel.cpu.smp.ht.numpcpus.max",
        {u(96), u(64)},
        problem("orn.problem.cpu.smp.ht.numpcpus.max",
                "Found 96 PCPUs, but only using 64 of them due to specified limit.")}});
}

TEST_F(CpuScenario, hyperThreadingRowsThatCannotBeReadPostAndLogNothing) {
  start();
  for (const char* id : {"kel.cpu.smp.ht.invalid", "kel.cpu.smp.ht.partner.missing", "kel.cpu.smp.ht.numpcpus.max"}) {
    scenario::expectUnreadable(scenario, *driver, {{id, {u(2)}, {}}, {id, {u(2), s("3")}, {}}});
  }
}

TEST_F(CpuScenario, interruptReportsAreAcceptedAndPostNothing) {
  start();
  const scenario::Arguments numbers = {L(1), L(2), L(3), u(4), u(5), u(6)};
  for (const char* id : {"kel.cpu.nmi.ipi.qkcs", "kel.cpu.nmi.ipi.unknowncs", "kel.cpu.nmi.ipi.savebt"}) {
    driver->observe(id, numbers);
    driver->observe(id);
    EXPECT_EQ(scenario.log.take().size(), 2U) << id << " has a handler, so it is logged by the framework";
  }
  EXPECT_EQ(driver->events(), Events{});
}

TEST_F(CpuScenario, anUnknownObservationIsIgnoredSilently) {
  start();
  driver->observe("kel.cpu.unheard.of", {i(1)});
  EXPECT_EQ(driver->events(), Events{});
  EXPECT_EQ(scenario.log.take(), Lines{});
}

}  // namespace
