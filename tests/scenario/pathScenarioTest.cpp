#include <gtest/gtest.h>

#include <string>

#include "modelHost.h"
#include "scenarioTools.h"

namespace {

using namespace std::chrono_literals;
using scenario::diagnostics;
using scenario::Events;
using scenario::Lines;
using support::clear;
using support::i;
using support::null;
using support::problem;
using support::s;

/// Paths p1 and p2 of device naa.1, p3 of naa.2; both devices in the same state.
class StoragePath : public testing::Test {
 protected:
  void redundancy(std::int64_t state, const std::string& failures = "{}") const {
    const std::string device = R"({"redundancyState":)" + std::to_string(state) +
                               R"(,"disk":true,"partitions":[{"number":1,"volume":"ds1"}]})";
    host.write(R"({"storage":{"paths":{"p1":"naa.1","p2":"naa.1","p3":"naa.2"},"devices":{"naa.1":)" + device +
               R"(,"naa.2":)" + device + R"(}},"failures":)" + failures + "}");
  }
  /// Device naa.1 of path p1, without the last usable path.
  void partitions(const std::string& list, const std::string& disk = "true", const std::string& failures = "{}") const {
    host.write(R"({"storage":{"paths":{"p1":"naa.1"},"devices":{"naa.1":{"redundancyState":1,"disk":)" + disk +
               R"(,"partitions":)" + list + R"(}}},"failures":)" + failures + "}");
  }
  void change(const std::string& path, const std::string& before, const std::string& now) {
    driver.observe("kel.scsi.scsipath.pathstate." + now, {s(path), s(before)});
  }
  void down(const std::string& path) { change(path, "on", "dead"); }
  void up(const std::string& path) { change(path, "dead", "on"); }
  /// The events of one step, of which there is none beside.
  template <typename Step>
  Events of(Step step) {
    EXPECT_EQ(driver.events(), Events{});
    step();
    return driver.events();
  }
  Events ofDown(const std::string& path) {
    return of([&] { down(path); });
  }
  Events ofUp(const std::string& path) {
    return of([&] { up(path); });
  }

  static support::PostedEvent lost(const std::string& datastores = "\"ds1\"") {
    return problem(
        "orn.problem.storage.connectivity.lost",
        "Lost connectivity to storage device naa.1. Path p1 is down. Affected datastores: " + datastores + ".");
  }
  static support::PostedEvent restored() {
    return clear("orn.clear.storage.connectivity.restored",
                 "Connectivity to storage device naa.1 (Datastores: \"ds1\") restored. Path p1 is active again.");
  }

  support::ModelHost host;
  support::Scenario scenario;
  support::Driver driver{scenario, keld::kScsiCorrelator};
};
using StoragePathDeathTest = StoragePath;

TEST_F(StoragePath, theLastPathGoneIsConnectivityLost) {
  redundancy(1);
  EXPECT_EQ(ofDown("p1"), Events{lost()});
}

TEST_F(StoragePath, oneUsablePathLeftIsRedundancyLost) {
  redundancy(2);
  EXPECT_EQ(ofDown("p1"),
            Events{problem("orn.problem.storage.redundancy.lost",
                           "Lost path redundancy to storage device naa.1. Path p1 is down. Affected datastores: "
                           "\"ds1\".")});
}

TEST_F(StoragePath, severalUsablePathsLeftIsRedundancyDegraded) {
  redundancy(3);
  EXPECT_EQ(ofDown("p1"),
            Events{problem("orn.problem.storage.redundancy.degraded",
                           "Path redundancy to storage device naa.1 degraded. Path p1 is down. Affected datastores: "
                           "\"ds1\".")});
}

TEST_F(StoragePath, aDownAndAnUpGiveOneProblemAndOneClearAndASecondUpNothing) {
  redundancy(1);
  EXPECT_EQ(ofDown("p1"), Events{lost()});
  redundancy(2);
  EXPECT_EQ(ofUp("p1"), Events{restored()});
  EXPECT_EQ(ofUp("p1"), Events{});
  EXPECT_EQ(diagnostics(scenario), Lines{});
}

TEST_F(StoragePath, aSecondUsablePathIsRedundancyRestored) {
  redundancy(2);
  down("p1");
  driver.events();
  redundancy(3);
  EXPECT_EQ(ofUp("p1"), Events{clear("orn.clear.storage.redundancy.restored",
                                     "Path redundancy to storage device naa.1 (Datastores: \"ds1\") restored. Path p1 "
                                     "is active again.")});
}

TEST_F(StoragePath, eachUsableStateBeforeAndEachUnusableOneNowIsADown) {
  redundancy(1);
  for (const char* before : {"on", "standby"}) {
    for (const char* now : {"dead", "off"})
      EXPECT_EQ(of([&] { change("p1", before, now); }), Events{lost()}) << before << " to " << now;
  }
}

TEST_F(StoragePath, eachUnusableStateBeforeAndEachUsableOneNowIsAnUp) {
  redundancy(2);
  for (const char* before : {"off", "dead"}) {
    for (const char* now : {"on", "standby"}) {
      down("p1");
      driver.events();
      EXPECT_EQ(of([&] { change("p1", before, now); }), Events{restored()}) << before << " to " << now;
    }
  }
}

TEST_F(StoragePath, movesAmongUsableAndAmongUnusableStatesAndFromUnknownOnesGiveNothing) {
  redundancy(2);
  down("p1");
  driver.events();
  scenario.timers.advance(61s);
  for (const char* before : {"off", "dead", "unknown", "", "On", "on ", "standby2"}) {
    EXPECT_EQ(of([&] { change("p1", before, "dead"); }), Events{}) << before;
  }
  scenario.timers.advance(61s);
  for (const char* before : {"on", "standby", "unknown", "", "Dead", "dead ", "offline"}) {
    EXPECT_EQ(of([&] { change("p1", before, "on"); }), Events{}) << before;
  }
  EXPECT_EQ(ofUp("p1"), Events{restored()});  // the mark has survived them all
}

TEST_F(StoragePath, aStateOfZeroOnTheWayDownIsNeitherReportedNorMarked) {
  redundancy(0);
  EXPECT_EQ(ofDown("p1"), Events{});
  redundancy(2);
  EXPECT_EQ(ofUp("p1"), Events{});
}

TEST_F(StoragePath, anUnknownStateOnTheWayDownIsToleratedAndMarked) {
  redundancy(9);
  EXPECT_EQ(ofDown("p1"), Events{});
  redundancy(2);
  EXPECT_EQ(ofUp("p1"), Events{restored()});
}

TEST_F(StoragePathDeathTest, anUnknownStateOnTheWayUpIsFatal) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  redundancy(9);
  down("p1");
  EXPECT_DEATH(up("p1"), "NOT_REACHED apps/keld/keldScsiCorrelator:1050");
  redundancy(4);
  EXPECT_DEATH(up("p1"), "NOT_REACHED apps/keld/keldScsiCorrelator:1050");
}

TEST_F(StoragePath, anUnknownStateOnTheWayUpOfAPathNeverReportedDownIsNotAskedFor) {
  redundancy(9);
  EXPECT_EQ(ofUp("p1"), Events{});
}

TEST_F(StoragePath, statesZeroAndOneOnTheWayUpPostNothingAndUseUpTheMark) {
  for (const int state : {0, 1}) {
    redundancy(1);
    EXPECT_EQ(ofDown("p1"), Events{lost()});
    redundancy(state);
    EXPECT_EQ(ofUp("p1"), Events{}) << state;
    redundancy(2);
    EXPECT_EQ(ofUp("p1"), Events{}) << state;
  }
}

TEST_F(StoragePath, anUpWithoutADownLeavesAMarkOfZeroBehindThatSuppressesNothingLater) {
  redundancy(2);
  EXPECT_EQ(ofUp("p1"), Events{});
  EXPECT_EQ(ofUp("p1"), Events{});
  redundancy(1);
  EXPECT_EQ(ofDown("p1"), Events{lost()});
  redundancy(2);
  EXPECT_EQ(ofUp("p1"), Events{restored()});
  EXPECT_EQ(ofUp("p1"), Events{});
}

TEST_F(StoragePath, theMarksKeyIsPathAndDeviceWithoutASeparator) {
  const auto states = [this](int state) {
    const std::string device = R"({"redundancyState":)" + std::to_string(state) + "}";
    host.write(R"({"storage":{"paths":{"a":"bc","ab":"c"},"devices":{"bc":)" + device + R"(,"c":)" + device + "}}}");
  };
  states(1);
  down("a");
  driver.events();
  states(2);
  EXPECT_EQ(ofUp("ab"),
            Events{clear("orn.clear.storage.connectivity.restored",
                         "Connectivity to storage device c (Datastores: Unknown) restored. Path ab is active again.")});
  EXPECT_EQ(ofUp("a"), Events{});
}

TEST_F(StoragePath, pathsOfOneDeviceAreMarkedApart) {
  redundancy(1);
  down("p1");
  driver.events();
  redundancy(2);
  EXPECT_EQ(ofUp("p2"), Events{});
  EXPECT_EQ(ofUp("p1"), Events{restored()});
}

TEST_F(StoragePath, anUnknownPathOrDeviceOnTheWayDownIsNeitherReportedNorMarked) {
  for (const char* failures : {R"({"path.lookup":5})", R"({"device.lookup":5})"}) {
    redundancy(1, failures);
    EXPECT_EQ(ofDown("p1"), Events{}) << failures;
    redundancy(2);
    EXPECT_EQ(ofUp("p1"), Events{}) << failures;
  }
  EXPECT_EQ(ofDown("p9"), Events{});
  EXPECT_EQ(diagnostics(scenario), Lines{});
}

TEST_F(StoragePath, anUnknownPathOnTheWayUpKeepsTheMarkAndAnUnknownDeviceUsesItUp) {
  redundancy(1);
  down("p1");
  driver.events();
  redundancy(2, R"({"path.lookup":5})");
  EXPECT_EQ(ofUp("p1"), Events{});
  redundancy(2);
  EXPECT_EQ(ofUp("p1"), Events{restored()});
  down("p1");
  driver.events();
  redundancy(2, R"({"device.lookup":5})");
  EXPECT_EQ(ofUp("p1"), Events{});
  redundancy(2);
  EXPECT_EQ(ofUp("p1"), Events{});
}

TEST_F(StoragePath, theDatastoresStandInPartitionOrderEachOnce) {
  partitions(
      R"([{"number":3,"volume":"b"},{"number":1,"volume":"a"},{"number":2,"volume":"b"},{"number":4,"volume":"B"}])");
  EXPECT_EQ(ofDown("p1"), Events{lost(R"("b", "a", "B")")});
}

TEST_F(StoragePath, aPartitionNumberOfZeroInItsLowEightBitsIsNotAskedForAndOneWithoutAVolumeIsSkipped) {
  partitions(
      R"([{"number":0,"volume":"whole"},{"number":256,"volume":"far"},{"number":1,"error":2},{"number":2,"volume":"a"}])");
  EXPECT_EQ(ofDown("p1"), Events{lost("\"a\"")});
}

TEST_F(StoragePath, anyOtherErrorOfAPartitionMakesTheDatastoresUnknownDespiteNamesGathered) {
  partitions(R"([{"number":1,"volume":"a"},{"number":2,"error":5},{"number":3,"volume":"b"}])");
  EXPECT_EQ(ofDown("p1"), Events{lost("Unknown")});
}

TEST_F(StoragePath, aDeviceWithoutDatastoresShowsUnknown) {
  partitions("[]");
  EXPECT_EQ(ofDown("p1"), Events{lost("Unknown")});
  partitions(R"([{"number":1,"error":2}])");
  EXPECT_EQ(ofDown("p1"), Events{lost("Unknown")});
}

TEST_F(StoragePath, aDeviceThatIsNoDiskAndAVolumeDirectoryThatCannotBeOpenedShowUnknown) {
  partitions(R"([{"number":1,"volume":"a"}])", "false");
  EXPECT_EQ(ofDown("p1"), Events{lost("Unknown")});
  partitions(R"([{"number":1,"volume":"a"}])", "true", R"({"volumes.open":13})");
  EXPECT_EQ(ofDown("p1"), Events{lost("Unknown")});
}

TEST_F(StoragePath, aRestoredEventShowsUnknownDatastoresToo) {
  redundancy(1);
  down("p1");
  driver.events();
  redundancy(2, R"({"volumes.open":5})");
  EXPECT_EQ(ofUp("p1"), Events{clear("orn.clear.storage.connectivity.restored",
                                     "Connectivity to storage device naa.1 (Datastores: Unknown) restored. Path p1 is "
                                     "active again.")});
}

TEST_F(StoragePath, theVolumeRequestIsBoundedToItsBytes) {
  for (const std::size_t length : {125U, 126U, 300U}) {  // with ":1" and the NUL 128, 129 and many more
    const std::string device(length, 'd');
    host.write(R"({"storage":{"paths":{"p1":")" + device + R"("},"devices":{")" + device +
               R"(":{"redundancyState":1,"disk":true,"partitions":[{"number":1,"volume":"a"}]}}}})");
    EXPECT_EQ(ofDown("p1"),
              Events{problem("orn.problem.storage.connectivity.lost",
                             "Lost connectivity to storage device " + device +
                                 ". Path p1 is down. Affected datastores: " + (length == 125 ? "\"a\"." : "Unknown."))})
        << length;
  }
}

TEST_F(StoragePath, aVolumeRequestThatWouldNameAnotherPartitionIsNotMade) {
  const std::string device(125, 'd');  // with ":1" there is room for no more
  host.write(R"({"storage":{"paths":{"p1":")" + device + R"("},"devices":{")" + device +
             R"(":{"redundancyState":1,"disk":true,"partitions":[{"number":12},{"number":1,"volume":"a"}]}}}})");
  EXPECT_EQ(ofDown("p1"),
            Events{problem("orn.problem.storage.connectivity.lost", "Lost connectivity to storage device " + device +
                                                                        ". Path p1 is down. Affected datastores: "
                                                                        "Unknown.")});
}

TEST_F(StoragePath, unreadableStateObservationsAreDroppedSilently) {
  redundancy(1);
  const std::vector<scenario::Arguments> unreadable = {
      {}, {s("p1")}, {i(1), s("on")}, {s("p1"), i(1)}, {null(), s("on")}, {s("p1"), null()}};
  for (const char* now : {"dead", "off", "on", "standby"}) {
    for (const auto& arguments : unreadable)
      driver.observe(std::string("kel.scsi.scsipath.pathstate.") + now, arguments);
  }
  EXPECT_EQ(driver.events(), Events{});
  EXPECT_EQ(diagnostics(scenario), Lines{});
  EXPECT_EQ(ofDown("p1"), Events{lost()});
}

TEST_F(StoragePath, anAdditionOrRemovalWithoutAPathNameIsLogged) {
  scenario::expectUnreadable(scenario, driver,
                             {{"kel.scsi.scsipath.add", {}, {"Failed to get path add remove path name: 75\n"}},
                              {"kel.scsi.scsipath.remove", {i(3)}, {"Failed to get path add remove path name: 22\n"}}});
}

TEST_F(StoragePath, theAdditionAndRemovalHandlerKnowsItsTwoObservations) {
  for (const char* registered : {"kel.scsi.scsipath.add", "kel.scsi.scsipath.remove"}) {
    scenario::callHandler(scenario, keld::kScsiCorrelator, registered, "kel.scsi.scsipath.moved", {s("p1")});
    EXPECT_EQ(diagnostics(scenario), Lines{"Unknown KEL ID: kel.scsi.scsipath.moved\n"}) << registered;
  }
}

TEST_F(StoragePath, additionsAndRemovalsPostNothing) {
  redundancy(1);
  driver.observe("kel.scsi.scsipath.add", {s("p1")});
  driver.observe("kel.scsi.scsipath.remove", {s("p1")});
  EXPECT_EQ(driver.events(), Events{});
  EXPECT_EQ(diagnostics(scenario), Lines{});
}

TEST_F(StoragePath, anUnknownObservationOfTheGroupIsIgnoredSilently) {
  driver.observe("kel.scsi.unheard.of", {s("p1")});
  EXPECT_EQ(driver.events(), Events{});
  EXPECT_EQ(scenario.log.take(), Lines{});
}

}  // namespace
