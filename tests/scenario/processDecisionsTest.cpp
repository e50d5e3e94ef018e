#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "decisionCases.h"
#include "scenarioTools.h"

namespace {

using namespace std::chrono_literals;
using support::concludes;
using support::holds;
using support::i;
using support::null;
using support::s;
using support::u;
using support::waits;

class ProcessScene {
 public:
  void crash(const char* application) { driver.observe("kel.uw.core.dumped", {s(application), i(77), s("/core")}); }
  void dumpFailure(const char* application) {
    driver.observe("kel.uw.core.dumpFailed", {s(application), i(77), s("why")});
  }

  support::Scenario scenario;
  support::Driver driver{scenario, keld::kUserWorldCorrelator};
};

using Case = scenario::DecisionCase<ProcessScene>;

const std::vector<Case>& cases() {
  static const std::vector<Case> kCases = {
      {"theFirstCrashIsReported",
       [](ProcessScene& scene) { scene.crash("app"); },
       {concludes("uw.crash.first", "app", "crash 1: reported", 36000)}},
      {"aCrashWithinTenHoursIsHeldOff",
       [](ProcessScene& scene) {
         scene.crash("app");
         scene.driver.pass(35999s);
         scene.scenario.decisions.take();
         scene.crash("app");
       },
       {holds("uw.crash.held", "app", "crash 2: last reported 35999 s ago, the next reminder after 36000 s")}},
      {"aCrashAfterTenHoursIsRemindedOf",
       [](ProcessScene& scene) {
         scene.crash("app");
         scene.crash("app");
         scene.driver.pass(36000s);
         scene.scenario.decisions.take();
         scene.crash("app");
       },
       {concludes("uw.crash.reminds", "app", "crash 3: last reported 36000 s ago, reminded of after 36000 s", 36000)}},
      {"aCrashBeforeTheClockWasSetBackIsHeldOff",
       [](ProcessScene& scene) {
         scene.crash("app");
         scene.scenario.clock.correct(scene.scenario.clock.wall() - 10s);
         scene.scenario.decisions.take();
         scene.crash("app");
       },
       {holds("uw.crash.held", "app", "crash 2: last reported -10 s ago, the next reminder after 36000 s")}},
      {"theReceiversOwnCrashWaits",
       [](ProcessScene& scene) { scene.crash("hagd-worker"); },
       {concludes("uw.crash.first", "hagd-worker", "crash 1: reported", 36000),
        waits("uw.crash.queued", "hagd-worker", "events go through it: this one waits in the retry queue")}},
      {"theFirstFailedDumpIsReported",
       [](ProcessScene& scene) {
         scene.crash("app");
         scene.scenario.decisions.take();
         scene.dumpFailure("app");
       },
       {concludes("uw.dump-failed.first", "app", "crash 1 without a core dump: reported", 36000)}},
      {"aFailedDumpWithinTenHoursIsHeldOff",
       [](ProcessScene& scene) {
         scene.dumpFailure("app");
         scene.driver.pass(35999s);
         scene.scenario.decisions.take();
         scene.dumpFailure("app");
       },
       {holds("uw.dump-failed.held", "app",
              "crash 2 without a core dump: last reported 35999 s ago, the next reminder after 36000 s")}},
      {"aFailedDumpAfterTenHoursIsRemindedOf",
       [](ProcessScene& scene) {
         scene.dumpFailure("app");
         scene.driver.pass(36000s);
         scene.scenario.decisions.take();
         scene.dumpFailure("app");
       },
       {concludes("uw.dump-failed.reminds", "app",
                  "crash 2 without a core dump: last reported 36000 s ago, reminded of after 36000 s", 36000)}},
      {"aCrashOfNoApplicationIsOfAnEmptyOne",
       [](ProcessScene& scene) {
         scene.driver.observe("kel.uw.core.dumped", {null(), i(77), null()});
       },
       {concludes("uw.crash.first", "", "crash 1: reported", 36000)}},
      {"aDomainThatIsEnforcingIsNotAudited",
       [](ProcessScene& scene) {
         scene.driver.observe("kel.uw.secpolicy.domain.level.changed", {s("enforcing"), i(1), s("appDom"), u(9)});
         scene.driver.observe("kel.uw.secpolicy.alldomains.level.changed", {s("enforcing"), i(1)});
       },
       {holds("uw.level.enforcing", "appDom", "level 1 (\"enforcing\") is what is wanted: not audited"),
        holds("uw.level.enforcing", "all domains", "level 1 (\"enforcing\") is what is wanted: not audited")}},
      {"aDomainThatIsNotIsAudited",
       [](ProcessScene& scene) {
         scene.driver.observe("kel.uw.secpolicy.domain.level.changed", {s("warning"), i(2), s("appDom"), u(9)});
         scene.driver.observe("kel.uw.secpolicy.alldomains.level.changed", {null(), i(0)});
       },
       {concludes("uw.level.changed", "appDom", "level 2 (\"warning\") is not enforcing: audited"),
        concludes("uw.level.changed", "all domains", "level 0 (\"\") is not enforcing: audited")}},
  };
  return kCases;
}

class ProcessDecision : public testing::TestWithParam<Case> {};

TEST_P(ProcessDecision, isToldWithItsNumbers) {
  scenario::expectTold(GetParam());
}

INSTANTIATE_TEST_SUITE_P(All, ProcessDecision, testing::ValuesIn(cases()), scenario::kCaseName);

TEST(ProcessDecisions, areAllInTheCases) {
  scenario::expectAllInCases(keld::kUserWorldCorrelator, "uw", cases());
}

}  // namespace
