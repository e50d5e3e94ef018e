#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "decisionCases.h"
#include "modelHost.h"
#include "scenarioTools.h"

namespace {

using namespace std::chrono_literals;
using scenario::Told;
using support::acts;
using support::concludes;
using support::counts;
using support::forgets;
using support::holds;
using support::i;
using support::L;
using support::s;
using support::ToldDecision;

constexpr const char* kSelected = "selected pages";
constexpr const char* kUnretired = "pages not retired";
constexpr const char* kFirmware = "firmware requests";

/// Virtual machines web01 and db01 on a host whose threshold is 100 and whose interval is 10 percent.
class PageRetireScene {
 public:
  void write(const std::string& failures = "", int logging = 0, int interval = 10) const {
    host.write(R"({"vms":[{"worldId":4711,"name":"web01"},{"worldId":4712,"name":"db01"}],)"
               R"("pageRetire":{"threshold":100},"options":{"PageRetire/ApeiLoggingEnabled":)" +
               std::to_string(logging) + R"(,"PageRetire/ThresholdInterval":)" + std::to_string(interval) +
               R"(},"failures":{)" + failures + "}}");
  }
  void start(int interval = 10) {
    write("", 0, interval);
    driver = std::make_unique<support::Driver>(scenario, keld::kPageRetireCorrelator);
  }
  void selected(std::uint64_t count) {
    driver->observe("kel.pageretire.selectedmpnthreshold.host.exceeded", {L(count)});
  }
  void unretired(std::uint64_t count) { driver->observe("kel.pageretire.selectedbutnotretired.high", {L(count)}); }
  void firmware() { driver->observe("kel.pageretire.platform.retire.request", {s("fru"), s("log")}); }
  void inject(int times, std::uint64_t page = 0x1a, int world = 4711) {
    for (int n = 0; n < times; ++n) driver->observe("kel.pageretire.mce.injected", {L(page), i(world)});
  }
  /// One injection, and 49 of the second two seconds later, of which only the last is told of.
  void injectEnough(std::uint64_t page = 0x1a, int world = 4711) {
    inject(1, page, world);
    driver->pass(2s);
    inject(48, page, world);
    scenario.decisions.take();
    inject(1, page, world);
  }

  support::ModelHost host;
  support::Scenario scenario;
  std::unique_ptr<support::Driver> driver;
};

using Case = scenario::DecisionCase<PageRetireScene>;

ToldDecision counted(int count, const std::string& page, int seconds, const std::string& vm = "VM 4711") {
  return counts("pageretire.injected.counted", vm,
                std::to_string(count) + " injections for page " + page + " over " + std::to_string(seconds) +
                    " s: killed from 50 over 2 s on",
                60);
}
ToldDecision killing(const std::string& page, const std::string& name, const std::string& vm = "VM 4711") {
  return concludes("pageretire.injected.kill", vm,
                   "50 injections for page " + page + ", killed from 50 over 2 s on: killing " + name);
}
ToldDecision killed(const std::string& vm = "VM 4711") {
  return acts("pageretire.injected.killed", vm, "killed");
}
ToldDecision notFound(const std::string& page, const std::string& vm = "VM 4711") {
  return holds(
      "pageretire.injected.not-found", vm,
      "50 injections for page " + page + ", but the host does not find or name it: the next injection asks again");
}

const std::vector<Case>& pageCases() {
  static const std::vector<Case> kCases = {
      {"asManyPagesAsTheThresholdAreNotReported",
       [](PageRetireScene& scene) {
         scene.start();
         scene.selected(100);
       },
       {counts("pageretire.selected.below", kSelected, "100, which is not above the threshold of 100")}},
      {"oneMoreIsTheFirstReport",
       [](PageRetireScene& scene) {
         scene.start();
         scene.selected(101);
       },
       {concludes("pageretire.selected.first", kSelected, "101, which is above the threshold of 100: first report")}},
      {"aCountThatHasNotGrownByTheIntervalIsHeldBack",
       [](PageRetireScene& scene) {
         scene.start();
         scene.selected(101);
         scene.scenario.decisions.take();
         scene.selected(110);
       },
       {holds("pageretire.selected.held", kSelected, "110, which is not 10 more than the 101 reported last")}},
      {"oneThatHasIsReported",
       [](PageRetireScene& scene) {
         scene.start();
         scene.selected(101);
         scene.scenario.decisions.take();
         scene.selected(111);
       },
       {concludes("pageretire.selected.grown", kSelected,
                  "111, which is above the threshold of 100 and at least 10 more than the 101 reported last")}},
      {"aStepBeyondTheCountReportsEveryCount",
       [](PageRetireScene& scene) {
         scene.start(200);
         scene.selected(199);
       },
       {concludes("pageretire.selected.always", kSelected,
                  "199, which is above the threshold of 100; below the step of 200 every count is reported")}},
      {"aStepOfTheCountItselfReportsTheFirst",
       [](PageRetireScene& scene) {
         scene.start(200);
         scene.selected(200);
       },
       {concludes("pageretire.selected.first", kSelected, "200, which is above the threshold of 100: first report")}},
      {"pagesNotRetiredAreReportedOnce",
       [](PageRetireScene& scene) {
         scene.start();
         scene.unretired(7);
       },
       {concludes("pageretire.not-retired.first", kUnretired, "7: reported, once for all")}},
      {"andHeldBackThen",
       [](PageRetireScene& scene) {
         scene.start();
         scene.unretired(7);
         scene.scenario.decisions.take();
         scene.unretired(8);
       },
       {holds("pageretire.not-retired.held", kUnretired, "8: held back, they were reported once")}},
      {"firmwareRequestsGoByTheirOption",
       [](PageRetireScene& scene) {
         scene.start();
         scene.firmware();
         scene.write("", 1);
         scene.firmware();
       },
       {holds("pageretire.firmware.off", kFirmware, "PageRetire/ApeiLoggingEnabled is 0: not reported"),
        concludes("pageretire.firmware.on", kFirmware, "PageRetire/ApeiLoggingEnabled is 1: reported")}},
  };
  return kCases;
}

const std::vector<Case>& injectionCases() {
  static const std::vector<Case> kCases = {
      {"fiftyInjectionsWithinASecondAreCounted",
       [](PageRetireScene& scene) {
         scene.start();
         scene.inject(1);
         scene.driver->pass(1s);
         scene.inject(48);
         scene.scenario.decisions.take();
         scene.inject(1);
       },
       {counted(50, "0x1a", 1)}},
      {"fortyNineOverTwoSecondsAreCounted",
       [](PageRetireScene& scene) {
         scene.start();
         scene.inject(1);
         scene.driver->pass(2s);
         scene.inject(47);
         scene.scenario.decisions.take();
         scene.inject(1);
       },
       {counted(49, "0x1a", 2)}},
      {"fiftyOverTwoSecondsKill",
       [](PageRetireScene& scene) {
         scene.start();
         scene.injectEnough();
       },
       {killing("0x1a", "web01"), killed()}},
      {"aKilledMachineIsHeldBack",
       [](PageRetireScene& scene) {
         scene.start();
         scene.injectEnough();
         scene.scenario.decisions.take();
         scene.inject(1, 0x1b);
       },
       {holds("pageretire.injected.already-killed", "VM 4711", "already killed: 1 injections for page 0x1b")}},
      {"aRefusalToKillIsTold",
       [](PageRetireScene& scene) {
         scene.start();
         scene.write(R"("vm.kill":5)");
         scene.injectEnough();
       },
       {killing("0x1a", "web01"),
        acts("pageretire.injected.kill-refused", "VM 4711",
             "the host refused to kill it and is not asked again while injections are kept")}},
      {"aMachineThatIsNotFoundIsAskedForAgain",
       [](PageRetireScene& scene) {
         scene.start();
         scene.write(R"("vm.lookup":5)");
         scene.injectEnough();
       },
       {notFound("0x1a")}},
      {"aMachineWithoutANameIsAskedForAgain",
       [](PageRetireScene& scene) {
         scene.start();
         scene.write(R"("vm.name":5)");
         scene.injectEnough();
       },
       {notFound("0x1a")}},
      {"aSecondPageOfAMachineThatIsNotFoundAsksNothing",
       [](PageRetireScene& scene) {
         scene.start();
         scene.write(R"("vm.lookup":5)");
         scene.injectEnough(0x1a);
         scene.injectEnough(0x1b);
       },
       {notFound("0x1a"), holds("pageretire.injected.not-found-for-other", "VM 4711",
                                "the host failed for another page than 0x1b: the next injection asks again")}},
      {"aSecondPageOfAMachineThatIsKilledKillsNothing",
       [](PageRetireScene& scene) {
         scene.start();
         scene.write(R"("vm.lookup":5)");
         scene.injectEnough(0x1a);
         scene.injectEnough(0x1b);
         scene.scenario.decisions.take();
         scene.write();
         scene.inject(1, 0x1c, 4712);
       },
       {counted(1, "0x1c", 0, "VM 4712"), killing("0x1a", "web01"), killed(),
        holds("pageretire.injected.killed-for-other", "VM 4711",
              "its killing was asked for because of another page than 0x1b")}},
      {"machinesBehindSixteenThatFailedWait",
       [](PageRetireScene& scene) {
         scene.start();
         scene.write(R"("vm.lookup":5)");
         for (int world = 1; world <= 18; ++world) scene.inject(1, 0x1a, world);
         scene.driver->pass(2s);
         for (int world = 1; world <= 18; ++world) scene.inject(49, 0x1a, world);
         scene.scenario.decisions.take();
         scene.inject(1, 0x1a, 18);  // where the one before gave up at the first again
       },
       [] {
         Told told;
         for (int world = 1; world <= 16; ++world) told.push_back(notFound("0x1a", "VM " + std::to_string(world)));
         for (const char* vm : {"VM 17", "VM 18"}) {
           told.push_back(holds("pageretire.injected.kill-waits", vm,
                                "50 injections for page 0x1a, but the host failed for 16 others: the next injection "
                                "begins here"));
         }
         return told;
       }()},
      {"anInjectionOfSixtySecondsIsKept",
       [](PageRetireScene& scene) {
         scene.start();
         scene.inject(1);
         scene.driver->pass(60s);
         scene.scenario.decisions.take();
         scene.inject(1);
       },
       {counted(2, "0x1a", 60)}},
      {"olderOnesAreForgottenPageByPage",
       [](PageRetireScene& scene) {
         scene.start();
         scene.inject(2, 0x1a);
         scene.inject(1, 0x1b);
         scene.driver->pass(1s);
         scene.inject(3, 0x1a);
         scene.driver->pass(60s);
         scene.scenario.decisions.take();
         scene.inject(1, 0x1c, 4712);
       },
       {forgets("pageretire.injected.expired", "VM 4711",
                "2 injections for page 0x1a are more than 60 s old and forgotten, 3 are left"),
        forgets("pageretire.injected.expired", "VM 4711",
                "1 injections for page 0x1b are more than 60 s old and forgotten, 0 are left"),
        counted(1, "0x1c", 0, "VM 4712")}},
      {"aKillIsForgottenWithTheLastInjection",
       [](PageRetireScene& scene) {
         scene.start();
         scene.injectEnough();
         scene.driver->pass(61s);
         scene.scenario.decisions.take();
         scene.inject(1);
       },
       {forgets("pageretire.injected.expired", "VM 4711",
                "50 injections for page 0x1a are more than 60 s old and forgotten, 0 are left"),
        forgets("pageretire.injected.kill-forgotten", "VM 4711",
                "no injection of the last 60 s is left: it may be killed again"),
        counted(1, "0x1a", 0)}},
      {"aKillIsRememberedWhileOneIsLeft",
       [](PageRetireScene& scene) {
         scene.start();
         scene.injectEnough();
         scene.driver->pass(60s);
         scene.scenario.decisions.take();
         scene.inject(1);
       },
       {forgets("pageretire.injected.expired", "VM 4711",
                "1 injections for page 0x1a are more than 60 s old and forgotten, 49 are left"),
        holds("pageretire.injected.already-killed", "VM 4711", "already killed: 50 injections for page 0x1a")}},
  };
  return kCases;
}

class PageRetireDecision : public testing::TestWithParam<Case> {};

TEST_P(PageRetireDecision, isToldWithItsNumbers) {
  scenario::expectTold(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Pages, PageRetireDecision, testing::ValuesIn(pageCases()), scenario::kCaseName);
INSTANTIATE_TEST_SUITE_P(Injections, PageRetireDecision, testing::ValuesIn(injectionCases()), scenario::kCaseName);

TEST(PageRetireDecisions, areAllInTheCases) {
  std::vector<Case> cases = pageCases();
  cases.insert(cases.end(), injectionCases().begin(), injectionCases().end());
  scenario::expectAllInCases(keld::kPageRetireCorrelator, "pageretire", cases);
}

}  // namespace
