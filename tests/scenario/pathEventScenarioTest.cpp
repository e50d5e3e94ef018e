#include <gtest/gtest.h>

#include <string>

#include "modelHost.h"
#include "scenarioTools.h"

namespace {

using namespace std::chrono_literals;
using scenario::diagnostics;
using scenario::Events;
using scenario::Lines;
using support::i;
using support::problem;
using support::s;

/// Paths p1 and p2 of device naa.1. State changes stay among usable states, which give no event of
/// their own.
class PathEvents : public testing::Test {
 protected:
  void model(int state, const std::string& failures = "{}") const {
    host.write(R"({"storage":{"paths":{"p1":"naa.1","p2":"naa.1"},"devices":{"naa.1":{"redundancyState":)" +
               std::to_string(state) + R"(,"disk":true,"partitions":[{"number":1,"volume":"ds1"},)" +
               R"({"number":2,"volume":"ds2"}]}}},"failures":)" + failures + "}");
  }
  void changes(int count, const std::string& path = "p1") {
    for (int n = 0; n < count; ++n) driver.observe("kel.scsi.scsipath.pathstate.standby", {s(path), s("on")});
  }
  void resets(int count, const std::string& name = "p1") {
    for (int n = 0; n < count; ++n) driver.observe("kel.scsi.scsipath.por", {s(name)});
  }
  void add(const std::string& path = "p1") { driver.observe("kel.scsi.scsipath.add", {s(path)}); }
  void remove(const std::string& path = "p1") { driver.observe("kel.scsi.scsipath.remove", {s(path)}); }
  /// Brings both trackers to their first reset and ageing check, with nothing counted.
  void settle() {
    remove("none");
    resets(1, "none");
    ASSERT_EQ(driver.events(), Events{});
  }
  /// How many further observations it takes to the next event; 0 where twenty give none.
  template <typename Step>
  int stepsToEvent(Step step) {
    EXPECT_EQ(driver.events(), Events{});
    for (int n = 1; n <= 20; ++n) {
      step();
      if (!driver.events().empty()) return n;
    }
    return 0;
  }
  int changesToEvent(const std::string& path = "p1") {
    return stepsToEvent([&] { changes(1, path); });
  }
  int resetsToEvent(const std::string& name = "p1") {
    return stepsToEvent([&] { resets(1, name); });
  }

  static support::PostedEvent stateChanges(const std::string& path = "p1",
                                           const std::string& datastores = R"("ds1", "ds2")") {
    return problem(
        "orn.problem.storage.connectivity.pathstatechanges",
        "Frequent path state changes are occurring for path " + path +
            ". This may indicate a storage problem. Affected device: naa.1. Affected datastores: " + datastores + ".");
  }
  static support::PostedEvent pathResets(const std::string& path = "p1",
                                         const std::string& datastores = R"("ds1", "ds2")") {
    return problem(
        "orn.problem.storage.connectivity.pathpor",
        "Frequent PowerOn Reset Unit Attentions are occurring on path " + path +
            ". This may indicate a storage problem. Affected device: naa.1. Affected datastores: " + datastores + ".");
  }
  static support::PostedEvent deviceResets(const std::string& datastores = R"("ds1", "ds2")") {
    return problem("orn.problem.storage.connectivity.devicepor",
                   "Frequent PowerOn Reset Unit Attentions are occurring on device naa.1. This may indicate a storage "
                   "problem. Affected datastores: " +
                       datastores + ".");
  }

  void SetUp() override { model(2); }

  support::ModelHost host;
  support::Scenario scenario;
  support::Driver driver{scenario, keld::kScsiCorrelator};
};

TEST_F(PathEvents, theTenthChangeWithinAnAgeingPeriodPostsOnce) {
  settle();
  changes(9);
  EXPECT_EQ(driver.events(), Events{});
  changes(1);
  EXPECT_EQ(driver.events(), Events{stateChanges()});
  changes(90);
  EXPECT_EQ(driver.events(), Events{});
}

TEST_F(PathEvents, theVeryFirstObservationIsCountedAndThenAgedAway) {
  EXPECT_EQ(changesToEvent(), 11);
  EXPECT_EQ(resetsToEvent(), 11);
}

TEST_F(PathEvents, everyStateCountsWhateverTheStateBefore) {
  settle();
  model(0);  // no path event of their own
  const char* const moves[][2] = {{"on", "standby"},  {"standby", "on"}, {"off", "dead"}, {"dead", "off"},
                                  {"x", "on"},        {"", "dead"},      {"on", "dead"},  {"dead", "on"},
                                  {"off", "standby"}, {"standby", "off"}};
  for (const auto& [before, now] : moves) {
    EXPECT_EQ(driver.events(), Events{});
    driver.observe(std::string("kel.scsi.scsipath.pathstate.") + now, {s("p1"), s(before)});
  }
  EXPECT_EQ(driver.events(), Events{stateChanges("p1", "Unknown")});
}

TEST_F(PathEvents, theTrackersEventStandsBeforeThePathsOwn) {
  settle();
  changes(9);
  driver.observe("kel.scsi.scsipath.pathstate.dead", {s("p1"), s("on")});
  EXPECT_EQ(driver.events(),
            (Events{stateChanges(), problem("orn.problem.storage.redundancy.lost",
                                            "Lost path redundancy to storage device naa.1. Path p1 is down. Affected "
                                            "datastores: \"ds1\", \"ds2\".")}));
}

TEST_F(PathEvents, aChangeWhoseStateBeforeCannotBeReadIsNotCounted) {
  settle();
  for (int n = 0; n < 20; ++n) driver.observe("kel.scsi.scsipath.pathstate.on", {s("p1")});
  for (int n = 0; n < 20; ++n) driver.observe("kel.scsi.scsipath.pathstate.on", {s("p1"), i(1)});
  EXPECT_EQ(changesToEvent(), 10);
}

TEST_F(PathEvents, after600SecondsACountGoesOnSilently) {
  settle();
  changes(10);
  driver.events();
  driver.pass(600s);
  EXPECT_EQ(changesToEvent(), 0);
}

TEST_F(PathEvents, after601SecondsEverythingIsForgotten) {
  settle();
  changes(10);
  driver.events();
  driver.pass(600s);
  remove("none");  // an ageing check, so that the next one does not fall on the reset
  driver.pass(1s);
  EXPECT_EQ(changesToEvent(), 10);
}

TEST_F(PathEvents, aResetThatFallsOnAnAgeingCheckForgetsTheChangeThatBroughtIt) {
  settle();
  changes(10);
  driver.events();
  driver.pass(601s);
  EXPECT_EQ(changesToEvent(), 11);
}

TEST_F(PathEvents, theFullResetForgetsCountsBelowTenToo) {
  settle();
  driver.pass(600s);
  remove("none");  // a check, and no reset
  changes(9);
  driver.pass(1s);
  EXPECT_EQ(changesToEvent(), 10);
}

TEST_F(PathEvents, eightChangesAPauseAndOneMoreAreAgedToZeroAfterCounting) {
  settle();
  changes(8);
  driver.pass(61s);
  changes(1);
  EXPECT_EQ(changesToEvent(), 10);
}

TEST_F(PathEvents, nineChangesAPauseAndOneMoreReachTenBeforeTheCheckAndPost) {
  settle();
  changes(9);
  driver.pass(61s);
  changes(1);
  EXPECT_EQ(driver.events(), Events{stateChanges()});
}

TEST_F(PathEvents, after60SecondsNothingIsAged) {
  for (const auto pause : {59s, 60s}) {
    scenario.clock.pass(1h);
    settle();
    changes(8);
    driver.pass(pause);
    EXPECT_EQ(changesToEvent(), 2) << pause.count();
  }
}

TEST_F(PathEvents, theAgeingPeriodRunsFromTheLastCheck) {
  settle();
  driver.pass(61s);
  changes(5);  // the first of them is aged away by the check
  driver.pass(60s);
  EXPECT_EQ(changesToEvent(), 6);
}

TEST_F(PathEvents, aCheckAgesEveryPath) {
  settle();
  changes(9, "p1");
  driver.pass(61s);
  changes(1, "p2");
  EXPECT_EQ(changesToEvent("p1"), 10);
  EXPECT_EQ(changesToEvent("p2"), 10);
}

TEST_F(PathEvents, aRemovalOfAnUnknownPathRunsTheCheckToo) {
  settle();
  changes(9);
  driver.pass(61s);
  remove("none");
  EXPECT_EQ(changesToEvent(), 10);
}

TEST_F(PathEvents, aCountOfTenSurvivesEveryCheckUntilTheFullReset) {
  settle();
  changes(10);
  driver.events();
  for (int second = 0; second < 540; second += 61) {
    driver.pass(61s);
    changes(12);
  }
  EXPECT_EQ(driver.events(), Events{});
}

TEST_F(PathEvents, pathsAreCountedApart) {
  settle();
  changes(9, "p1");
  changes(9, "p2");
  EXPECT_EQ(driver.events(), Events{});
  changes(1, "p2");
  EXPECT_EQ(driver.events(), Events{stateChanges("p2")});
  changes(1, "p1");
  EXPECT_EQ(driver.events(), Events{stateChanges("p1")});
}

TEST_F(PathEvents, aRemovedPathThatIsAddedAgainStartsFromZero) {
  settle();
  changes(9);
  remove();
  add();
  EXPECT_EQ(changesToEvent(), 10);
}

TEST_F(PathEvents, aRemovedPathThatIsNotAddedAgainStartsFromItsNextChange) {
  settle();
  changes(9);
  remove();
  EXPECT_EQ(changesToEvent(), 10);
}

TEST_F(PathEvents, anAdditionOfAKnownPathCountsLikeAChange) {
  settle();
  changes(1);
  for (int n = 0; n < 8; ++n) add();
  EXPECT_EQ(driver.events(), Events{});
  add();
  EXPECT_EQ(driver.events(), Events{stateChanges()});
}

TEST_F(PathEvents, aRemovedPathMayPostAgainBeforeTheFullReset) {
  settle();
  changes(10);
  driver.events();
  remove();
  EXPECT_EQ(changesToEvent(), 10);
}

TEST_F(PathEvents, anUnknownPathOrDeviceAtTheTenthChangeLosesTheEvent) {
  settle();
  changes(9);
  model(2, R"({"path.lookup":5})");
  changes(1);
  model(2);
  EXPECT_EQ(changesToEvent(), 0);
  changes(9, "p2");
  model(2, R"({"device.lookup":5})");
  changes(1, "p2");
  model(2);
  EXPECT_EQ(changesToEvent("p2"), 0);
  EXPECT_EQ(diagnostics(scenario), Lines{});
}

TEST_F(PathEvents, aStateOfZeroPostsWithUnknownDatastores) {
  settle();
  model(0);
  changes(10);
  EXPECT_EQ(driver.events(), Events{stateChanges("p1", "Unknown")});
  resets(10);
  EXPECT_EQ(driver.events(), Events{pathResets("p1", "Unknown")});
  resets(10, "naa.1");
  EXPECT_EQ(driver.events(), Events{deviceResets("Unknown")});
}

TEST_F(PathEvents, datastoresThatCannotBeFoundAreUnknown) {
  settle();
  model(9, R"({"volumes.open":5})");
  changes(10);
  EXPECT_EQ(driver.events(), Events{stateChanges("p1", "Unknown")});
  resets(10);
  EXPECT_EQ(driver.events(), Events{pathResets("p1", "Unknown")});
}

TEST_F(PathEvents, theTenthPowerOnResetOfAPathPostsThePathsText) {
  settle();
  resets(9);
  EXPECT_EQ(driver.events(), Events{});
  resets(1);
  EXPECT_EQ(driver.events(), Events{pathResets()});
  resets(90);
  EXPECT_EQ(driver.events(), Events{});
}

TEST_F(PathEvents, theTenthPowerOnResetOfADevicePostsTheDevicesText) {
  settle();
  resets(10, "naa.1");
  EXPECT_EQ(driver.events(), Events{deviceResets()});
}

TEST_F(PathEvents, aFailingPathLookUpMakesAPathADeviceThatIsNotThere) {
  settle();
  resets(9);
  model(2, R"({"path.lookup":5})");
  resets(1);
  model(2);
  EXPECT_EQ(resetsToEvent(), 0);
}

TEST_F(PathEvents, powerOnResetsOfSomethingUnknownPostNothing) {
  settle();
  resets(10, "naa.9");
  EXPECT_EQ(driver.events(), Events{});
  model(2, R"({"device.lookup":5})");
  resets(10, "naa.1");
  EXPECT_EQ(driver.events(), Events{});
}

TEST_F(PathEvents, theTrackersCountApart) {
  settle();
  changes(9);
  resets(9);
  EXPECT_EQ(driver.events(), Events{});
  resets(1);
  EXPECT_EQ(driver.events(), Events{pathResets()});
  changes(1);
  EXPECT_EQ(driver.events(), Events{stateChanges()});
}

TEST_F(PathEvents, theTrackersAgeApart) {
  settle();
  changes(9);
  driver.pass(61s);
  resets(1);  // its own check, not that of the state changes
  EXPECT_EQ(changesToEvent(), 1);
}

TEST_F(PathEvents, theTrackersAreResetApart) {
  remove("none");
  driver.pass(300s);
  resets(1, "none");
  resets(10);
  EXPECT_EQ(driver.events(), Events{pathResets()});
  driver.pass(301s);
  changes(1);  // resets the tracker of state changes, not that of the power-on resets
  EXPECT_EQ(resetsToEvent(), 0);
}

TEST_F(PathEvents, powerOnResetsAgeAfterCountingAndForgetAfter600Seconds) {
  settle();
  resets(8);
  driver.pass(61s);
  resets(1);
  EXPECT_EQ(resetsToEvent(), 10);
  driver.pass(539s);  // second 600
  EXPECT_EQ(resetsToEvent(), 0);
  driver.pass(1s);
  EXPECT_EQ(resetsToEvent(), 10);
}

TEST_F(PathEvents, ninePowerOnResetsAPauseAndOneMorePost) {
  settle();
  resets(9);
  driver.pass(61s);
  resets(1);
  EXPECT_EQ(driver.events(), Events{pathResets()});
}

TEST_F(PathEvents, aPowerOnResetWithoutANameIsDroppedSilently) {
  settle();
  driver.observe("kel.scsi.scsipath.por");
  driver.observe("kel.scsi.scsipath.por", {i(1)});
  EXPECT_EQ(driver.events(), Events{});
  EXPECT_EQ(diagnostics(scenario), Lines{});
}

TEST_F(PathEvents, whileAClockSetBackCatchesUpNothingIsAgedOrReset) {
  settle();
  changes(4);
  scenario.clock.correct(scenario.clock.wall() - 24h);
  changes(4);
  driver.pass(3600s);
  EXPECT_EQ(changesToEvent(), 2);
}

TEST_F(PathEvents, noTimerAgesAnything) {
  settle();
  changes(9);
  EXPECT_FALSE(scenario.timers.armed());
}

}  // namespace
