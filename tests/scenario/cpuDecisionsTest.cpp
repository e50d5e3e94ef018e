#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "cpuScenario.h"
#include "decisionCases.h"

namespace {

using namespace std::chrono_literals;
using scenario::CpuScene;
using scenario::Told;
using support::acts;
using support::concludes;
using support::counts;
using support::forgets;
using support::holds;
using support::ToldDecision;

using Case = scenario::DecisionCase<CpuScene>;

constexpr const char* kPageThreshold = "PageRetire/PageErrorCorrThreshold";
constexpr const char* kPagePeriod = "PageRetire/PageErrorCorrPeriod";
constexpr const char* kCoreThreshold = "Cpu/CPUOfflineThreshold";

/// Said of each record that is none of a core.
ToldDecision noCore(const std::string& cpu = "CPU 0", const std::string& code = "0x0") {
  return holds("cpu.core.other-kind", cpu,
               "error code " + code + " is no cache or TLB error of level 0 or 1 and is counted for no core");
}
/// Said of each record without an address.
ToldDecision noPage(const std::string& cpu) {
  return holds("cpu.page.no-address", cpu, "the record has no valid address and is counted for no page");
}
ToldDecision below(const std::string& page, const std::string& count, const std::string& limit) {
  return counts("cpu.page.below", page,
                count + " corrected errors in this period, retirement is asked for above " + limit);
}
ToldDecision over(const std::string& page, const std::string& count, const std::string& limit) {
  return concludes("cpu.page.over", page,
                   count + " corrected errors in this period, retirement is asked for above " + limit);
}
ToldDecision asked(const std::string& page) {
  return acts("cpu.page.asked", page, "neither retired nor about to be: retirement is asked for");
}

void startWith(CpuScene& scene, const char* option, std::int64_t value) {
  scene.options[option] = value;
  scene.start();
  scene.scenario.decisions.take();
}

const std::vector<Case>& pageCases() {
  static const std::vector<Case> kCases = {
      {"asManyErrorsAsTheThresholdAreCounted",
       [](CpuScene& scene) {
         scene.start();
         scene.pageError(0x1234, 2);
       },
       {noCore(), below("0x1234", "2", "2")}},
      {"oneMoreAsksForThePagesRetirement",
       [](CpuScene& scene) {
         scene.start();
         scene.pageError(0x1234, 2);
         scene.scenario.decisions.take();
         scene.pageError(0x1234, 1);
       },
       {noCore(), over("0x1234", "3", "2"), asked("0x1234")}},
      {"aCountOf255Fits",
       [](CpuScene& scene) {
         startWith(scene, kPageThreshold, 255);
         scene.pageError(1, 250);
         scene.scenario.decisions.take();
         scene.pageError(1, 5);
       },
       {noCore(), below("0x1", "255", "255")}},
      {"aCountThatWouldPass255StaysAndIsCompared",
       [](CpuScene& scene) {
         startWith(scene, kPageThreshold, 250);
         scene.pageError(1, 250);
         scene.scenario.decisions.take();
         scene.pageError(1, 6);
       },
       {noCore(), holds("cpu.page.capped", "0x1", "with 6 more errors the count would pass 255 and stays at 250"),
        below("0x1", "250", "250")}},
      {"aThresholdIsToldByTheBitsThatAreCompared",
       [](CpuScene& scene) {
         startWith(scene, kPageThreshold, 258);
         scene.pageError(1, 3);
       },
       {noCore(), over("0x1", "3", "2"), asked("0x1")}},
      {"aRetiredPageIsMarked",
       [](CpuScene& scene) {
         scene.pageStatus = R"("0x1":65539)";
         scene.start();
         scene.pageError(1, 3);
       },
       {noCore(), over("0x1", "3", "2"), holds("cpu.page.retired", "0x1", "status 3: retired or about to be, marked")}},
      {"aPageWhoseStatusCannotBeReadIsMarked",
       [](CpuScene& scene) {
         scene.failures = R"("page.status":5)";
         scene.start();
         scene.pageError(1, 3);
       },
       {noCore(), over("0x1", "3", "2"),
        holds("cpu.page.status-unreadable", "0x1", "the status cannot be read: taken for retired, marked")}},
      {"aMarkedPageIsNotAskedForAgain",
       [](CpuScene& scene) {
         scene.pageStatus = R"("0x1":1)";
         scene.start();
         scene.pageError(1, 3);
         scene.pageError(1);
         scene.scenario.decisions.take();
         scene.pageError(1);
       },
       {noCore(), over("0x1", "5", "2"),
        holds("cpu.page.marked", "0x1",
              "marked as retired or about to be: not asked for again; records over the threshold since: 2")}},
      {"aRefusedRequestIsTold",
       [](CpuScene& scene) {
         scene.failures = R"("page.retire":5)";
         scene.start();
         scene.pageError(1, 3);
       },
       {noCore(), over("0x1", "3", "2"),
        acts("cpu.page.refused", "0x1",
             "the host refused to retire it: asked again with the next record over the threshold")}},
      {"pageZeroIsNeverAskedFor",
       [](CpuScene& scene) {
         scene.start();
         scene.pageError(0, 3);
       },
       {noCore(), over("0x0", "3", "2"), holds("cpu.page.zero", "0x0", "the retirement of page 0 is never asked for")}},
      {"theEndOfAPeriodForgetsEachPagesErrors",
       [](CpuScene& scene) {
         scene.start();
         scene.pageError(0x1234, 2);
         scene.pageError(2, 1);
         scene.pageError(3, 256);  // did not fit
         scene.scenario.decisions.take();
         scene.driver->pass(30s);
       },
       {forgets("cpu.page.cleared", "0x2", "the period is over: 1 corrected errors are forgotten"),
        forgets("cpu.page.cleared", "0x1234", "the period is over: 2 corrected errors are forgotten")}},
      {"aPeriodWithoutErrorsForgetsNothing",
       [](CpuScene& scene) {
         scene.start();
         scene.driver->pass(600s);
       },
       {}},
      {"optionsThatDifferFromTheirDefaultsAreToldAtTheStart",
       [](CpuScene& scene) {
         scene.options[kPageThreshold] = 250;
         scene.start();
       },
       {forgets("cpu.option.changed", kPageThreshold, "is 250 from now on, was 2")}},
      {"changedOptionsAreToldAtTheirRefresh",
       [](CpuScene& scene) {
         scene.start();
         scene.options[kPageThreshold] = 0;
         scene.options[kPagePeriod] = 40;
         scene.write();
         scene.driver->pass(59s);
         scene.scenario.decisions.take();
         scene.driver->pass(1s);
       },
       {forgets("cpu.option.changed", kPageThreshold, "is 0 from now on, was 2"),
        forgets("cpu.option.changed", kPagePeriod, "is 40 from now on, was 30")}},
      {"optionsThatCannotBeReadStay",
       [](CpuScene& scene) {
         scene.failures =
             R"("option.read:PageRetire/PageErrorCorrThreshold":5,"option.read:PageRetire/PageErrorCorrPeriod":5)";
         scene.start();
       },
       {holds("cpu.option.unreadable", kPageThreshold, "cannot be read and stays 2"),
        holds("cpu.option.unreadable", kPagePeriod, "cannot be read and stays 30")}},
  };
  return kCases;
}

const std::vector<Case>& coreCases() {
  static const std::vector<Case> kCases = {
      {"aLevelTwoErrorIsCountedForNoCore",
       [](CpuScene& scene) {
         startWith(scene, kCoreThreshold, 1);
         scene.coreError(5, 0x0102);
       },
       {noCore("CPU 5", "0x102"), noPage("CPU 5")}},
      {"withoutKnowingThatProcessorsMayGoOfflineNothingIsCounted",
       [](CpuScene& scene) {
         scene.failures = R"("offlineEnabled.read":5)";
         startWith(scene, kCoreThreshold, 1);
         scene.coreError(5);
       },
       {holds("cpu.core.enabled-unreadable", "CPU 5",
              "whether processors may be taken offline cannot be read: counted for no core"),
        noPage("CPU 5")}},
      {"whereProcessorsMayNotGoOfflineNothingIsCounted",
       [](CpuScene& scene) {
         scene.cpu = R"("vendor":"GenuineIntel","cores":4,"pcpus":8,"offlineEnabled":false)";
         startWith(scene, kCoreThreshold, 1);
         scene.coreError(5);
       },
       {holds("cpu.core.not-enabled", "CPU 5",
              "the host does not let processors be taken offline: counted for no core"),
        noPage("CPU 5")}},
      {"anUnknownVendorsErrorsAreNotCounted",
       [](CpuScene& scene) {
         scene.failures = R"("cpu.list":5)";
         startWith(scene, kCoreThreshold, 1);
         scene.coreError(5);
       },
       {holds("cpu.core.vendor-unreadable", "CPU 5", "the processors' vendor cannot be read: counted for no core"),
        noPage("CPU 5")}},
      {"anotherVendorsErrorsAreNotCounted",
       [](CpuScene& scene) {
         scene.cpu = R"("vendor":"GenuineIntel ","cores":4,"pcpus":8,"offlineEnabled":true)";
         startWith(scene, kCoreThreshold, 1);
         scene.coreError(5);
       },
       {holds("cpu.core.other-vendor", "CPU 5",
              "the processors' vendor is \"GenuineIntel \", not \"GenuineIntel\": counted for no core"),
        noPage("CPU 5")}},
      {"withoutTheHostsCountsNothingIsCounted",
       [](CpuScene& scene) {
         scene.failures = R"("cpu.info":5)";
         startWith(scene, kCoreThreshold, 1);
         scene.coreError(5);
       },
       {holds("cpu.core.counts-unreadable", "CPU 5",
              "how many processors a core has cannot be read: counted for no core"),
        noPage("CPU 5")}},
      {"countsThatDoNotDivideAreTold",
       [](CpuScene& scene) {
         scene.cpu = R"("vendor":"GenuineIntel","cores":8,"pcpus":4,"offlineEnabled":true)";
         startWith(scene, kCoreThreshold, 1);
         scene.coreError(5);
       },
       {holds("cpu.core.counts-unusable", "CPU 5",
              "4 processors and 8 cores do not tell how many a core has: counted for no core"),
        noPage("CPU 5")}},
      {"aThresholdOfZeroCountsNothing",
       [](CpuScene& scene) {
         startWith(scene, kCoreThreshold, 0);
         scene.coreError(5);
       },
       {holds("cpu.core.threshold-zero", "core 2", "Cpu/CPUOfflineThreshold is 0: not counted"), noPage("CPU 5")}},
      {"aThresholdThatCannotBeReadCountsNothing",
       [](CpuScene& scene) {
         scene.failures = R"("option.read:Cpu/CPUOfflineThreshold":5)";
         scene.start();
         scene.coreError(5);
       },
       {holds("cpu.core.threshold-unreadable", "core 2", "Cpu/CPUOfflineThreshold cannot be read: not counted"),
        noPage("CPU 5")}},
      {"oneErrorLessThanTheThresholdIsCountedForADay",
       [](CpuScene& scene) {
         startWith(scene, kCoreThreshold, 3);
         scene.coreError(4);
         scene.scenario.clock.pass(86399s);
         scene.scenario.decisions.take();
         scene.coreError(5);
       },
       {counts("cpu.core.below", "core 2", "CPU errors within a day: 2 of 3", 86400), noPage("CPU 5")}},
      {"anErrorADayOldCountsNoMore",
       [](CpuScene& scene) {
         startWith(scene, kCoreThreshold, 2);
         scene.coreError(4);
         scene.scenario.clock.pass(86400s);
         scene.scenario.decisions.take();
         scene.coreError(5);
       },
       {counts("cpu.core.below", "core 2", "CPU errors within a day: 1 of 2", 86400), noPage("CPU 5")}},
      {"theLastOneTakesItsProcessorOffline",
       [](CpuScene& scene) {
         startWith(scene, kCoreThreshold, 3);
         scene.coreError(4);
         scene.scenario.decisions.take();
         scene.coreError(5, CpuScene::kOverflow | 0x0101);
       },
       {acts("cpu.core.taken-offline", "core 2", "CPU errors within a day: 3 of 3, CPU 5 was taken offline"),
        noPage("CPU 5")}},
      {"aThresholdThatWrapsIsToldAsItWorks",
       [](CpuScene& scene) {
         startWith(scene, kCoreThreshold, 66);
         scene.coreError(5);
       },
       {counts("cpu.core.below", "core 2", "CPU errors within a day: 1 of 2", 86400), noPage("CPU 5")}},
      {"aFullRingIsReachedByAllItsPlaces",
       [](CpuScene& scene) {
         startWith(scene, kCoreThreshold, 64);
         for (int n = 0; n < 63; ++n) scene.coreError(5);
         scene.scenario.decisions.take();
         scene.coreError(5);
       },
       {acts("cpu.core.taken-offline", "core 2", "CPU errors within a day: 64 of 64, CPU 5 was taken offline"),
        noPage("CPU 5")}},
      {"aRefusalIsTold",
       [](CpuScene& scene) {
         scene.failures = R"("cpu.offline":16)";
         startWith(scene, kCoreThreshold, 1);
         scene.coreError(5);
       },
       {acts("cpu.core.refused", "core 2",
             "CPU errors within a day: 1 of 1, but the host refused to take CPU 5 offline: the next error asks again"),
        noPage("CPU 5")}},
      {"aCoreOfWhichAProcessorIsOfflineIsCountedNoMore",
       [](CpuScene& scene) {
         startWith(scene, kCoreThreshold, 1);
         scene.coreError(5);
         scene.scenario.decisions.take();
         scene.coreError(4);
       },
       {holds("cpu.core.offline", "core 2", "one of its processors was taken offline: counted no more"),
        noPage("CPU 4")}},
  };
  return kCases;
}

class CpuDecision : public testing::TestWithParam<Case> {};

TEST_P(CpuDecision, isToldWithItsNumbers) {
  scenario::expectTold(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Pages, CpuDecision, testing::ValuesIn(pageCases()), scenario::kCaseName);
INSTANTIATE_TEST_SUITE_P(Cores, CpuDecision, testing::ValuesIn(coreCases()), scenario::kCaseName);

TEST(CpuDecisions, areAllInTheCasesButTheOneThatTakesMoreRecordsThanATestCanSend) {
  std::vector<Case> cases = pageCases();
  cases.insert(cases.end(), coreCases().begin(), coreCases().end());
  std::vector<const keld::Decision*> listed(keld::kCpuCorrelator.decisions.begin(),
                                            keld::kCpuCorrelator.decisions.end());
  EXPECT_EQ(std::erase_if(listed, [](const keld::Decision* one) { return one->name == "cpu.page.wrapped"; }), 1U);
  keld::CorrelatorInfo info = keld::kCpuCorrelator;
  info.decisions = listed;
  scenario::expectAllInCases(info, "cpu", cases);
}

}  // namespace
