#include <gtest/gtest.h>

#include <string>

#include "scenarioTools.h"

namespace {

using namespace std::chrono_literals;
using scenario::diagnostics;
using scenario::Events;
using scenario::Lines;
using support::audit;
using support::i;
using support::null;
using support::problem;
using support::s;
using support::u;

constexpr const char* kDumped = "kel.uw.core.dumped";
constexpr const char* kEncrypted = "kel.uw.core.dumped.encrypted";

class ProcessScenario : public testing::Test {
 protected:
  Events crash(const std::string& name, const char* id = kDumped) {
    driver.observe(id, {s(name), i(77), s("/core")});
    return driver.events();
  }
  Events crashWithKey(const std::string& name, const char* id = kEncrypted) {
    driver.observe(id, {s(name), i(77), s("/core"), s("key 1")});
    return driver.events();
  }
  Events dumpFailure(const std::string& name) {
    driver.observe("kel.uw.core.dumpFailed", {s(name), i(77), s("why")});
    return driver.events();
  }
  static support::PostedEvent queueOnly(support::PostedEvent event) {
    event.queueOnly = true;
    return event;
  }
  static support::PostedEvent dumped(const std::string& name, int count) {
    return problem("orn.problem.application.core.dumped",
                   "An application (" + name + ") running on ORNi host has crashed (" + std::to_string(count) +
                       " time(s) so far). A core file may have been created at "
                       "/core.");
  }
  static support::PostedEvent encrypted(const std::string& name, int count) {
    return problem("orn.problem.application.core.dumped.encrypted",
                   "An application (" + name + ") running on ORNi host has crashed (" + std::to_string(count) +
                       " time(s) so far). An encrypted core file using keyId key 1 may have been created at /core.");
  }
  static support::PostedEvent agentDumped(const std::string& agent, const std::string& name, int count) {
    return queueOnly(
        problem("orn.problem." + agent + ".core.dumped",
                name + " crashed (" + std::to_string(count) +
                    " time(s) so far) and a core file may have been created at /core. This may have caused "
                    "connections to the host to be dropped."));
  }
  static support::PostedEvent agentEncrypted(const std::string& agent, const std::string& name, int count) {
    return queueOnly(
        problem("orn.problem." + agent + ".core.dumped.encrypted",
                name + " crashed (" + std::to_string(count) +
                    " time(s) so far) and an encrypted core file using keyId key 1 may have been created at "
                    "/core. This may have caused connections to the host to be dropped."));
  }
  static support::PostedEvent dumpFailed(const std::string& name, int count) {
    return problem("orn.problem.application.core.dumpFailed",
                   "An application (" + name + ") running on ORNi host has crashed (" + std::to_string(count) +
                       " time(s) so far), but core dump creation failed.");
  }

  support::Scenario scenario;
  support::Driver driver{scenario, keld::kUserWorldCorrelator};
};

TEST_F(ProcessScenario, theFirstCrashIsReportedAndLaterOnesEveryTenHoursWithTheirCount) {
  EXPECT_EQ(crash("app"), Events{dumped("app", 1)});
  driver.pass(100s);
  EXPECT_EQ(crash("app"), Events{});
  driver.pass(36000s);
  EXPECT_EQ(crash("app"), Events{dumped("app", 3)});
  EXPECT_EQ(diagnostics(scenario), Lines{});
}

TEST_F(ProcessScenario, after35999SecondsACrashIsOnlyCounted) {
  EXPECT_EQ(crash("app"), Events{dumped("app", 1)});
  driver.pass(35999s);
  EXPECT_EQ(crash("app"), Events{});
  driver.pass(1s);
  EXPECT_EQ(crash("app"), Events{dumped("app", 3)});
  driver.pass(35999s);
  EXPECT_EQ(crash("app"), Events{});
  driver.pass(1s);
  EXPECT_EQ(crash("app"), Events{dumped("app", 5)});
}

TEST_F(ProcessScenario, crashCountsAreNeverForgotten) {
  EXPECT_EQ(crash("app"), Events{dumped("app", 1)});
  driver.pass(24h * 400);
  EXPECT_EQ(crash("app"), Events{dumped("app", 2)});
}

TEST_F(ProcessScenario, applicationsAreCountedByTheirWholeName) {
  EXPECT_EQ(crash("app"), Events{dumped("app", 1)});
  EXPECT_EQ(crash("app 2"), Events{dumped("app 2", 1)});
  EXPECT_EQ(crash("App"), Events{dumped("App", 1)});
  EXPECT_EQ(crash(""), Events{dumped("", 1)});
  EXPECT_EQ(crash("app"), Events{});
}

TEST_F(ProcessScenario, aClockSetBackIsSilentButCounts) {
  EXPECT_EQ(crash("app"), Events{dumped("app", 1)});
  scenario.clock.correct(scenario.clock.wall() - 24h);
  EXPECT_EQ(crash("app"), Events{});
  driver.pass(24h + 35999s);
  EXPECT_EQ(crash("app"), Events{});
  driver.pass(1s);
  EXPECT_EQ(crash("app"), Events{dumped("app", 4)});
}

TEST_F(ProcessScenario, position3AloneTellsPlainFromEncrypted) {
  EXPECT_EQ(crash("a", kDumped), Events{dumped("a", 1)});
  EXPECT_EQ(crash("b", kEncrypted), Events{dumped("b", 1)});
  EXPECT_EQ(crashWithKey("c", kDumped), Events{encrypted("c", 1)});
  EXPECT_EQ(crashWithKey("d", kEncrypted), Events{encrypted("d", 1)});
}

TEST_F(ProcessScenario, aPosition3ThatIsNoTextStopsTheHandlerBeforeItCounts) {
  for (const char* id : {kDumped, kEncrypted}) {
    driver.observe(id, {s("app"), i(77), s("/core"), i(5)});
    EXPECT_EQ(driver.events(), Events{}) << id;
  }
  EXPECT_EQ(diagnostics(scenario), Lines{});
  EXPECT_EQ(crash("app"), Events{dumped("app", 1)});
}

TEST_F(ProcessScenario, plainAndEncryptedCoresAreCountedTogether) {
  EXPECT_EQ(crash("app"), Events{dumped("app", 1)});
  EXPECT_EQ(crashWithKey("app"), Events{});
  driver.pass(36000s);
  EXPECT_EQ(crashWithKey("app"), Events{encrypted("app", 3)});
}

TEST_F(ProcessScenario, failedDumpsAreCountedApart) {
  EXPECT_EQ(crash("app"), Events{dumped("app", 1)});
  EXPECT_EQ(dumpFailure("app"), Events{dumpFailed("app", 1)});
  EXPECT_EQ(dumpFailure("app"), Events{});
  driver.pass(35999s);
  EXPECT_EQ(dumpFailure("app"), Events{});
  driver.pass(1s);
  EXPECT_EQ(dumpFailure("app"), Events{dumpFailed("app", 4)});
  EXPECT_EQ(crash("app"), Events{dumped("app", 2)});
}

TEST_F(ProcessScenario, theManagementAgentsAreKnownByASubstringAndTheirEventsAreQueuedOnly) {
  EXPECT_EQ(crash("hagd-worker"), Events{agentDumped("hagd", "hagd-worker", 1)});
  EXPECT_EQ(crashWithKey("xhagd"), Events{agentEncrypted("hagd", "xhagd", 1)});
  EXPECT_EQ(crash("cagt"), Events{agentDumped("cagt", "cagt", 1)});
  EXPECT_EQ(crashWithKey("the cagt 2"), Events{agentEncrypted("cagt", "the cagt 2", 1)});
}

TEST_F(ProcessScenario, hagdWinsOverCagt) {
  EXPECT_EQ(crash("cagt-hagd"), Events{agentDumped("hagd", "cagt-hagd", 1)});
  EXPECT_EQ(crashWithKey("hagd-cagt"), Events{agentEncrypted("hagd", "hagd-cagt", 1)});
}

TEST_F(ProcessScenario, anAgentsNameIsComparedByItsLetterCase) {
  EXPECT_EQ(crash("Hagd"), Events{dumped("Hagd", 1)});
  EXPECT_EQ(crash("CAGT"), Events{dumped("CAGT", 1)});
}

TEST_F(ProcessScenario, anAgentIsRemindedOfLikeAnyApplication) {
  EXPECT_EQ(crash("hagd"), Events{agentDumped("hagd", "hagd", 1)});
  EXPECT_EQ(crash("hagd"), Events{});
  driver.pass(36000s);
  EXPECT_EQ(crash("hagd"), Events{agentDumped("hagd", "hagd", 3)});
}

TEST_F(ProcessScenario, aFailedDumpOfAnAgentIsAnApplicationsAndSentAtOnce) {
  EXPECT_EQ(dumpFailure("hagd"), Events{dumpFailed("hagd", 1)});
  EXPECT_EQ(dumpFailure("cagt"), Events{dumpFailed("cagt", 1)});
}

TEST_F(ProcessScenario, crashesThatCannotBeReadAreNeitherReportedNorCounted) {
  for (const char* id : {kDumped, kEncrypted, "kel.uw.core.dumpFailed"}) {
    scenario::expectUnreadable(scenario, driver,
                               {{id, {}, {}},
                                {id, {s("app"), i(1)}, {}},
                                {id, {s("app"), s("1"), s("/core")}, {}},
                                {id, {i(1), i(1), s("/core")}, {}}});
  }
  EXPECT_EQ(crash("app"), Events{dumped("app", 1)});
  EXPECT_EQ(dumpFailure("app"), Events{dumpFailed("app", 1)});
}

TEST_F(ProcessScenario, nullTextsHarmNothing) {
  for (const char* id : {kDumped, kEncrypted, "kel.uw.core.dumpFailed"}) {
    driver.observe(id, {null(), i(77), null()});
    driver.observe(id, {null(), i(77), null(), null()});
    driver.observe(id, {s("null"), i(77), null(), null()});
  }
  driver.observe("kel.uw.secpolicy.domain.level.changed", {null(), i(0), null(), u(9)});
  driver.observe("kel.uw.secpolicy.alldomains.level.changed", {null(), i(0)});
  driver.events();
  EXPECT_EQ(crash("app"), Events{dumped("app", 1)});
}

TEST_F(ProcessScenario, aDomainThatLeavesEnforcingIsAudited) {
  for (const int level : {0, 2, -1}) {
    driver.observe("kel.uw.secpolicy.domain.level.changed", {s("warning"), i(level), s("appDom"), u(9)});
    EXPECT_EQ(driver.events(), Events{audit("orn.audit.uw.secpolicy.domain.level.changed",
                                            "The enforcement level for security domain appDom has been changed to "
                                            "warning. The enforcement level must always be set to enforcing.")});
    driver.observe("kel.uw.secpolicy.alldomains.level.changed", {s("disabled"), i(level)});
    EXPECT_EQ(driver.events(), Events{audit("orn.audit.uw.secpolicy.alldomains.level.changed",
                                            "The enforcement level for all security domains has been changed to "
                                            "disabled. The enforcement level must always be set to enforcing.")});
  }
}

TEST_F(ProcessScenario, aChangeToEnforcingIsNotAudited) {
  driver.observe("kel.uw.secpolicy.domain.level.changed", {s("enforcing"), i(1), s("appDom"), u(9)});
  driver.observe("kel.uw.secpolicy.alldomains.level.changed", {s("enforcing"), i(1)});
  EXPECT_EQ(driver.events(), Events{});
}

TEST_F(ProcessScenario, levelChangesThatCannotBeReadAreDroppedSilently) {
  scenario::expectUnreadable(scenario, driver,
                             {{"kel.uw.secpolicy.domain.level.changed", {s("warning"), i(0), s("appDom")}, {}},
                              {"kel.uw.secpolicy.domain.level.changed", {s("warning"), i(0), i(1), u(9)}, {}},
                              {"kel.uw.secpolicy.alldomains.level.changed", {s("warning")}, {}},
                              {"kel.uw.secpolicy.alldomains.level.changed", {i(0), i(0)}, {}}});
}

TEST_F(ProcessScenario, anUnknownObservationIsIgnoredSilently) {
  driver.observe("kel.uw.unheard.of", {s("app")});
  EXPECT_EQ(driver.events(), Events{});
  EXPECT_EQ(scenario.log.take(), Lines{});
}

}  // namespace
