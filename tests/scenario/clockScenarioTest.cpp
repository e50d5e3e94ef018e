#include <gtest/gtest.h>

#include <string>

#include "scenarioTools.h"

namespace {

using namespace std::chrono_literals;
using scenario::diagnostics;
using scenario::Events;
using scenario::Lines;
using support::i;
using support::l;
using support::problem;
using support::s;

constexpr const char* kSync = "kel.clock.correction.adjtime.sync";
constexpr const char* kUnsync = "kel.clock.correction.adjtime.unsync";
constexpr const char* kLostsync = "kel.clock.correction.adjtime.lostsync";
constexpr const char* kStepUnsync = "kel.clock.correction.step.unsync";
constexpr const char* kWarning = "kel.clock.correction.delta.warning";
constexpr const char* kFailed = "kel.clock.correction.delta.failed";
constexpr const char* kAllowed = "kel.clock.correction.delta.allowed";

class ClockScenario : public testing::Test {
 protected:
  /// How many events the observation gives now.
  std::size_t posted(const std::string& id, const scenario::Arguments& arguments = {}) {
    driver.observe(id, arguments);
    return driver.events().size();
  }
  /// Arguments that fit every observation of the group.
  static scenario::Arguments numbers() { return {i(100), i(5), i(300), i(60), i(3), i(4)}; }

  support::Scenario scenario;
  support::Driver driver{scenario, keld::kClockCorrelator};
};

TEST_F(ClockScenario, everyObservationGivesItsEvent) {
  const auto parameter = [](const std::string& name) {
    return problem("orn.problem.clock.parameter.set." + name, "setting system clock parameter " + name + " to -7");
  };
  const std::vector<scenario::RowCase> rows = {
      {"kel.clock.state.reset", {}, problem("orn.problem.clock.state.reset", "resetting system clock state")},
      {"kel.clock.parameter.set.maxNegPhaseCorrection", {i(-7)}, parameter("maxNegPhaseCorrection")},
      {"kel.clock.parameter.set.maxPosPhaseCorrection", {i(-7)}, parameter("maxPosPhaseCorrection")},
      {"kel.clock.parameter.set.numLargeCorrections", {i(-7)}, parameter("numLargeCorrections")},
      {"kel.clock.parameter.set.maxLargeCorrections", {i(-7)}, parameter("maxLargeCorrections")},
      {kWarning,
       {i(100), i(5), i(300), i(60), i(3), i(4)},
       problem("orn.problem.clock.correction.delta.warning",
               "system clock stepped to 100.000000005, but delta 300 > 60 seconds, 3/4 large corrections")},
      {kFailed,
       {i(100), i(5), i(300), i(60), i(3)},
       problem("orn.problem.clock.correction.delta.failed",
               "system clock step to 100.000000005 failed, delta 300 > 60 seconds, number of large corrections > 3")},
      {kAllowed,
       {i(100), i(999999999), i(-300), i(60)},
       problem("orn.problem.clock.correction.delta.allowed",
               "system clock stepped to 100.999999999, but delta -300 > 60 seconds")},
      {kStepUnsync,
       {i(1), i(20)},
       problem("orn.problem.clock.correction.step.unsync",
               "system clock stepped to 1.000000020, lost sync to upstream time servers")},
      {kSync,
       {},
       problem("orn.problem.clock.correction.adjtime.sync", "system clock synchronized to upstream time servers")},
      {kUnsync,
       {},
       problem("orn.problem.clock.correction.adjtime.unsync",
               "system clock lost synchronization to upstream time servers")},
      {kLostsync,
       {},
       problem("orn.problem.clock.correction.adjtime.lostsync",
               "system clock apparently no longer synchronized to upstream time servers")}};
  for (const auto& row : rows) {
    driver.observe(row.id, row.arguments);
    EXPECT_EQ(driver.events(), Events{row.event}) << row.id;
  }
  EXPECT_EQ(diagnostics(scenario), Lines{});
}

TEST_F(ClockScenario, everyObservationIsHeldOffForAnHour) {
  for (const char* id : {"kel.clock.state.reset", "kel.clock.parameter.set.maxNegPhaseCorrection",
                         "kel.clock.parameter.set.maxPosPhaseCorrection", "kel.clock.parameter.set.numLargeCorrections",
                         "kel.clock.parameter.set.maxLargeCorrections", kWarning, kFailed, kAllowed, kStepUnsync, kSync,
                         kUnsync, kLostsync}) {
    EXPECT_EQ(posted(id, numbers()), 1U) << id;
    driver.pass(3599s);
    EXPECT_EQ(posted(id, numbers()), 0U) << id;
    driver.pass(1s);
    EXPECT_EQ(posted(id, numbers()), 1U) << id;
  }
}

TEST_F(ClockScenario, theHourRunsFromTheLastPostNotFromTheLastObservation) {
  EXPECT_EQ(posted(kSync), 1U);
  for (int minute = 10; minute < 60; minute += 10) {
    driver.pass(600s);
    EXPECT_EQ(posted(kSync), 0U);
  }
  driver.pass(600s);
  EXPECT_EQ(posted(kSync), 1U);
}

TEST_F(ClockScenario, theHourIsCountedInWholeSecondsOfTheClock) {
  scenario.clock.pass(900ms);
  EXPECT_EQ(posted(kSync), 1U);
  scenario.clock.pass(3599100ms);
  EXPECT_EQ(posted(kSync), 1U);
}

TEST_F(ClockScenario, identifiersAreHeldOffOneByOne) {
  EXPECT_EQ(posted(kWarning, numbers()), 1U);
  driver.pass(900s);
  EXPECT_EQ(posted(kFailed, numbers()), 1U);
  EXPECT_EQ(posted(kAllowed, numbers()), 1U);
  driver.pass(900s);
  EXPECT_EQ(posted(kWarning, {i(1), i(2), i(3), i(4), i(5), i(6)}), 0U);
  EXPECT_EQ(posted("kel.clock.parameter.set.maxNegPhaseCorrection", {i(1)}), 1U);
  EXPECT_EQ(posted("kel.clock.parameter.set.maxPosPhaseCorrection", {i(1)}), 1U);
  EXPECT_EQ(posted("kel.clock.parameter.set.maxNegPhaseCorrection", {i(2)}), 0U);
}

TEST_F(ClockScenario, eachOfTheThreeLossesReArmsTheSynchronizedEvent) {
  for (const char* loss : {kStepUnsync, kUnsync, kLostsync}) {
    EXPECT_EQ(posted(kSync), 1U) << loss;
    driver.pass(10s);
    EXPECT_EQ(posted(loss, numbers()), 1U) << loss;
    driver.pass(10s);
    EXPECT_EQ(posted(kSync), 1U) << loss;
    driver.pass(10s);
    EXPECT_EQ(posted(kSync), 0U) << loss;
    driver.pass(3600s);
  }
}

TEST_F(ClockScenario, nothingElseReArmsTheSynchronizedEvent) {
  EXPECT_EQ(posted(kSync), 1U);
  for (const char* id : {"kel.clock.state.reset", "kel.clock.parameter.set.maxNegPhaseCorrection", kWarning, kFailed,
                         kAllowed, "kel.clock.unheard.of"}) {
    posted(id, numbers());
  }
  EXPECT_EQ(posted(kSync), 0U);
}

TEST_F(ClockScenario, aLossThatIsHeldOffReArmsNothing) {
  EXPECT_EQ(posted(kUnsync), 1U);
  EXPECT_EQ(posted(kSync), 1U);
  driver.pass(10s);
  EXPECT_EQ(posted(kUnsync), 0U);
  EXPECT_EQ(posted(kSync), 0U);
}

TEST_F(ClockScenario, aLossThatCannotBeReadReArmsNothing) {
  EXPECT_EQ(posted(kSync), 1U);
  driver.pass(10s);
  EXPECT_EQ(posted(kStepUnsync, {i(1)}), 0U);
  driver.pass(10s);
  EXPECT_EQ(posted(kSync), 0U);
}

TEST_F(ClockScenario, theSynchronizedEventReArmsNoLoss) {
  EXPECT_EQ(posted(kUnsync), 1U);
  EXPECT_EQ(posted(kSync), 1U);
  EXPECT_EQ(posted(kUnsync), 0U);
}

TEST_F(ClockScenario, aStateResetClearsNoHoldOff) {
  EXPECT_EQ(posted(kSync), 1U);
  EXPECT_EQ(posted(kWarning, numbers()), 1U);
  EXPECT_EQ(posted("kel.clock.parameter.set.maxNegPhaseCorrection", {i(1)}), 1U);
  EXPECT_EQ(posted("kel.clock.state.reset"), 1U);
  EXPECT_EQ(posted(kSync), 0U);
  EXPECT_EQ(posted(kWarning, numbers()), 0U);
  EXPECT_EQ(posted("kel.clock.parameter.set.maxNegPhaseCorrection", {i(1)}), 0U);
  EXPECT_EQ(posted("kel.clock.state.reset"), 0U);
}

TEST_F(ClockScenario, whatCannotBeReadIsDroppedSilentlyAndHoldsNothingOff) {
  const std::vector<std::pair<const char*, std::size_t>> needed = {{"kel.clock.parameter.set.maxNegPhaseCorrection", 1},
                                                                   {"kel.clock.parameter.set.maxPosPhaseCorrection", 1},
                                                                   {"kel.clock.parameter.set.numLargeCorrections", 1},
                                                                   {"kel.clock.parameter.set.maxLargeCorrections", 1},
                                                                   {kWarning, 6},
                                                                   {kFailed, 5},
                                                                   {kAllowed, 4},
                                                                   {kStepUnsync, 2}};
  for (const auto& [id, count] : needed) {
    scenario::Arguments arguments = numbers();
    arguments.resize(count - 1);
    EXPECT_EQ(posted(id, arguments), 0U) << id;
    arguments.push_back(s("5"));
    EXPECT_EQ(posted(id, arguments), 0U) << id;
    arguments.back() = i(5);
    EXPECT_EQ(posted(id, arguments), 1U) << id;
  }
  EXPECT_EQ(diagnostics(scenario), Lines{});
}

TEST_F(ClockScenario, anUnreadableObservationLeavesTheHoldOffOfTheLastPost) {
  EXPECT_EQ(posted(kAllowed, numbers()), 1U);
  driver.pass(3600s);
  EXPECT_EQ(posted(kAllowed), 0U);
  EXPECT_EQ(posted(kAllowed, numbers()), 1U);
}

TEST_F(ClockScenario, aClockSetBackADaySilencesWhatWasPostedUntilItsHourHasPassedAgain) {
  EXPECT_EQ(posted(kWarning, numbers()), 1U);
  scenario.clock.correct(scenario.clock.wall() - 24h);
  EXPECT_EQ(posted(kWarning, numbers()), 0U);
  EXPECT_EQ(posted(kFailed, numbers()), 1U);  // had not been posted before
  driver.pass(24h + 3599s);
  EXPECT_EQ(posted(kWarning, numbers()), 0U);
  driver.pass(1s);
  EXPECT_EQ(posted(kWarning, numbers()), 1U);
}

TEST_F(ClockScenario, aLossReArmsTheSynchronizedEventOnAClockSetBackToo) {
  EXPECT_EQ(posted(kSync), 1U);
  scenario.clock.correct(scenario.clock.wall() - 24h);
  EXPECT_EQ(posted(kSync), 0U);
  EXPECT_EQ(posted(kUnsync), 1U);
  EXPECT_EQ(posted(kSync), 1U);
}

TEST_F(ClockScenario, aClockSetForwardEndsTheHoldOff) {
  EXPECT_EQ(posted(kWarning, numbers()), 1U);
  scenario.clock.correct(scenario.clock.wall() + 3600s);
  EXPECT_EQ(posted(kWarning, numbers()), 1U);
}

TEST_F(ClockScenario, numbersOf64BitsAreCutTo32) {
  driver.observe("kel.clock.parameter.set.maxLargeCorrections", {l(0x1'0000'0005)});
  EXPECT_EQ(driver.events(), Events{problem("orn.problem.clock.parameter.set.maxLargeCorrections",
                                            "setting system clock parameter maxLargeCorrections to 5")});
}

TEST_F(ClockScenario, anUnknownObservationIsReportedInTheGroupsOwnWords) {
  driver.observe("kel.clock.unheard.of");
  driver.observe("kel.clock.unheard.of");
  EXPECT_EQ(driver.events(), Events{});
  EXPECT_EQ(scenario.log.take(), (Lines{"No system clock correlator for kel.clock.unheard.of\n",
                                        "No system clock correlator for kel.clock.unheard.of\n"}));
}

TEST_F(ClockScenario, anObservationWithoutAnIdentifierIsReported) {
  driver.observe("");
  EXPECT_EQ(driver.events(), Events{});
  EXPECT_EQ(scenario.log.take(), Lines{"FAIL: Received NULL kelID\n"});
}

TEST_F(ClockScenario, noTimerIsUsed) {
  posted(kSync);
  EXPECT_FALSE(scenario.timers.armed());
}

TEST_F(ClockScenario, aHandlerWithoutAnIdentifierPostsAndLogsNothing) {
  for (const char* registered : {"kel.clock.state.reset", kWarning, kSync}) {
    scenario::callHandler(scenario, keld::kClockCorrelator, registered, "", numbers());
  }
  EXPECT_EQ(driver.events(), Events{});
  EXPECT_EQ(diagnostics(scenario), Lines{});
}

}  // namespace
