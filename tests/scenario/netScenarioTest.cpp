#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "correlatorHarness.h"
#include "keldNetCorrelator.h"
#include "modelHost.h"
#include "rowTable.h"

namespace {

using namespace std::chrono_literals;
using support::audit;
using support::clear;
using support::i;
using support::l;
using support::null;
using support::problem;
using support::s;
using Events = std::vector<support::PostedEvent>;

constexpr const char* kHost =
    R"({"portGroups":{"A":"sw0","B":"sw0","C":"sw0"},"options":{"Net/LinkFlappingThreshold":0}})";

class NetScenario : public testing::Test {
 protected:
  void pgDown(const char* nic, const char* group, int active) {
    driver.observe("kel.net.pg.uplink.transition.down", {s(nic), s(group), i(active), i(9)});
  }
  void pgUp(const char* nic, const char* group, int active) {
    driver.observe("kel.net.pg.uplink.transition.up", {s(nic), s(group), i(active)});
  }
  void dvDown(const char* nic, const char* port, int active) {
    driver.observe("kel.net.dvport.uplink.transition.down", {s(nic), s("dvs"), s(port), i(active), i(9)});
  }
  void dvUp(const char* nic, const char* port, int active) {
    driver.observe("kel.net.dvport.uplink.transition.up", {s(nic), s("dvs"), s(port), i(active)});
  }
  void linkDown(const char* nic) { driver.observe("kel.net.qnic.linkstate.down", {s(nic)}); }
  void linkUp(const char* nic) { driver.observe("kel.net.qnic.linkstate.up", {s(nic)}); }
  void watchdog(const char* nic) { driver.observe("kel.net.uplink.watchdog.timeout", {s(nic)}); }
  Events after(std::chrono::seconds time) {
    driver.pass(time);
    return driver.events();
  }

  static support::PostedEvent connectivityLost(const std::string& nic, const std::string& groups) {
    return problem("orn.problem.net.connectivity.lost",
                   "Lost network connectivity on virtual switch \"sw0\". Physical NIC " + nic +
                       " is down. Affected port groups: " + groups);
  }
  static support::PostedEvent redundancyLost(const std::string& nic, const std::string& groups) {
    return problem("orn.problem.net.redundancy.lost",
                   "Lost uplink redundancy on virtual switch \"sw0\". Physical NIC " + nic +
                       " is down. Affected port groups: " + groups);
  }
  static support::PostedEvent degraded(const std::string& nic, const std::string& groups) {
    return problem("orn.problem.net.redundancy.degraded",
                   "Uplink redundancy degraded on virtual switch \"sw0\". Physical NIC " + nic +
                       " is down. Affected port groups: " + groups);
  }
  static support::PostedEvent connectivityRestored(const std::string& sw, const std::string& groups,
                                                   const std::string& nic) {
    return clear("orn.clear.net.connectivity.restored", "Network connectivity restored on virtual switch " + sw +
                                                            ", portgroups: " + groups + ". Physical NIC " + nic +
                                                            " is up");
  }
  static support::PostedEvent redundancyRestored(const std::string& sw, const std::string& groups,
                                                 const std::string& nic) {
    return clear("orn.clear.net.redundancy.restored", "Uplink redundancy restored on virtual switch " + sw +
                                                          ", portgroups: " + groups + ". Physical NIC " + nic +
                                                          " is up");
  }
  static support::PostedEvent dvConnectivityRestored(const std::string& ports, const std::string& nic) {
    return clear("orn.clear.net.dvport.connectivity.restored",
                 "Network connectivity restored on DVPorts: " + ports + ". Physical NIC " + nic + " is up");
  }
  static support::PostedEvent dvRedundancyRestored(const std::string& ports, const std::string& nic) {
    return clear("orn.clear.net.dvport.redundancy.restored",
                 "Uplink redundancy restored on DVPorts: " + ports + ". Physical NIC " + nic + " is up recently");
  }
  static support::PostedEvent isDown(const std::string& nic) {
    return problem("orn.problem.net.qnic.linkstate.down", "Physical NIC " + nic + " linkstate is down");
  }
  static support::PostedEvent isUp(const std::string& nic) {
    return clear("orn.clear.net.qnic.linkstate.up", "Physical NIC " + nic + " linkstate is up");
  }
  static support::PostedEvent watchdogReset(const std::string& nic) {
    return problem("orn.problem.net.qnic.watchdog.reset",
                   "Uplink " + nic + " has recovered from a transient failure due to watchdog timeout");
  }

  support::ModelHost host{kHost};
  support::Scenario scenario;
  keld::NetCorrelator net{scenario.services, [this] { net.expire(); }};
  support::Driver driver{scenario, net.handlers()};
};

TEST_F(NetScenario, countsZeroOneAndTwoGiveLostRedundancyLostAndDegradedInThatOrder) {
  pgDown("nic0", "C", 2);
  pgDown("nic0", "B", 1);
  pgDown("nic0", "A", 0);
  EXPECT_EQ(after(1s), Events{});
  EXPECT_EQ(after(1s),
            (Events{connectivityLost("nic0", "\"A\""), redundancyLost("nic0", "\"B\""), degraded("nic0", "\"C\"")}));
  EXPECT_FALSE(scenario.timers.armed());
}

TEST_F(NetScenario, aNegativeCountGivesNothing) {
  pgDown("nic0", "A", -1);
  EXPECT_EQ(after(10s), Events{});
}

TEST_F(NetScenario, aPortGroupThatGoesDownTwiceInABurstIsListedTwice) {
  pgDown("nic0", "A", 0);
  pgDown("nic0", "A", 0);
  EXPECT_EQ(after(2s), Events{connectivityLost("nic0", "\"A\", \"A\"")});
}

TEST_F(NetScenario, laterTransitionsOfABurstJoinItWithoutProlongingIt) {
  pgDown("nic0", "A", 1);
  driver.pass(1s);
  pgDown("nic0", "B", 1);
  EXPECT_EQ(after(1s), Events{redundancyLost("nic0", "\"A\", \"B\"")});
  EXPECT_EQ(after(60s), Events{});
}

TEST_F(NetScenario, aLinkDownAlonePostsAfterOneSecond) {
  linkDown("nic0");
  EXPECT_EQ(after(1s), Events{isDown("nic0")});
}

TEST_F(NetScenario, everyLinkDownSchedulesARecordOfItsOwn) {
  linkDown("nic0");
  linkDown("nic0");
  EXPECT_EQ(after(1s), (Events{isDown("nic0"), isDown("nic0")}));
}

TEST_F(NetScenario, aLinkDownWithTransitionsPostsTheTransitionsOnly) {
  linkDown("nic0");
  pgDown("nic0", "A", 1);
  EXPECT_EQ(after(1s), Events{});
  EXPECT_EQ(after(9s), Events{redundancyLost("nic0", "\"A\"")});
  dvDown("nic1", "p1", 1);
  linkDown("nic1");
  EXPECT_EQ(after(9s), Events{problem("orn.problem.net.dvport.redundancy.lost",
                                      "Lost uplink redundancy on DVPorts: \"dvs/p1\". Physical NIC nic1 is down.")});
}

TEST_F(NetScenario, aPlainLinkUpPostsTheFourRestoredEventsWithEmptyTexts) {
  linkUp("nic0");
  EXPECT_EQ(after(1s), (Events{isUp("nic0"), connectivityRestored("", "", "nic0"), dvConnectivityRestored("", "nic0"),
                               redundancyRestored("", "", "nic0"), dvRedundancyRestored("", "nic0")}));
}

TEST_F(NetScenario, aPlainLinkUpRestoresNothingWhileAnotherNicHasALossOnRecord) {
  pgDown("nic0", "A", 0);
  dvDown("nic0", "p1", 1);
  driver.pass(2s);
  driver.events();
  linkUp("nic1");
  EXPECT_EQ(after(1s), Events{isUp("nic1")});
  linkUp("nic0");  // takes its own losses off all four registers
  EXPECT_EQ(after(1s), (Events{isUp("nic0"), connectivityRestored("", "", "nic0"), dvConnectivityRestored("", "nic0"),
                               redundancyRestored("", "", "nic0"), dvRedundancyRestored("", "nic0")}));
}

TEST_F(NetScenario, dvPortLossesNameTheirLabelsAndEndWithAFullStop) {
  dvDown("nic0", "p1", 0);
  dvDown("nic0", "p2", 1);
  dvDown("nic0", "p3", 2);
  dvDown("nic0", "p4", -1);
  EXPECT_EQ(after(2s),
            (Events{problem("orn.problem.net.dvport.connectivity.lost",
                            "Lost network connectivity on DVPorts: \"dvs/p1\". Physical NIC nic0 is down."),
                    problem("orn.problem.net.dvport.redundancy.lost",
                            "Lost uplink redundancy on DVPorts: \"dvs/p2\". Physical NIC nic0 is down."),
                    problem("orn.problem.net.dvport.redundancy.degraded",
                            "Uplink redundancy degraded on DVPorts: \"dvs/p3\". Physical NIC nic0 is down.")}));
}

TEST_F(NetScenario, connectivityComesBackWithOneUplinkAndRedundancyWithTwo) {
  pgDown("nic0", "A", 1);
  driver.pass(2s);
  pgDown("nic1", "A", 0);
  driver.pass(2s);
  driver.events();
  pgUp("nic0", "A", 1);
  EXPECT_EQ(after(2s), Events{connectivityRestored("\"sw0\"", "\"A\"", "nic0")});
  pgUp("nic1", "A", 2);
  EXPECT_EQ(after(2s), Events{redundancyRestored("\"sw0\"", "\"A\"", "nic1")});
}

TEST_F(NetScenario, aDvPortsConnectivityComesBackWithItsLabel) {
  dvDown("nic0", "p1", 0);
  driver.pass(2s);
  driver.events();
  dvUp("nic0", "p1", 1);
  EXPECT_EQ(after(2s), Events{dvConnectivityRestored("\"dvs/p1\"", "nic0")});
}

TEST_F(NetScenario, countsBelowOneRestoreNothing) {
  pgUp("nic0", "A", 0);
  pgUp("nic0", "A", -3);
  dvUp("nic0", "p1", 0);
  EXPECT_EQ(after(10s), Events{});
}

TEST_F(NetScenario, restoredRedundancyWaitsForEveryRedundancyLossAndThenNamesAllCollected) {
  pgDown("nic0", "A", 1);
  pgDown("nic1", "B", 1);
  dvDown("nic2", "p1", 1);
  driver.pass(2s);
  driver.events();
  pgUp("nic0", "A", 2);
  EXPECT_EQ(after(2s), Events{});
  pgUp("nic1", "B", 2);
  EXPECT_EQ(after(2s), Events{});  // the DVPort's loss is still on record
  dvUp("nic2", "p1", 2);
  EXPECT_EQ(after(2s), Events{dvRedundancyRestored("\"dvs/p1\"", "nic2")});
  pgUp("nic3", "C", 3);
  EXPECT_EQ(after(2s), Events{redundancyRestored("\"sw0\"", "\"A\", \"B\", \"C\"", "nic3")});
  pgUp("nic3", "C", 1);
  EXPECT_EQ(after(2s), Events{connectivityRestored("\"sw0\"", "\"C\"", "nic3")});  // the list was emptied
}

TEST_F(NetScenario, aRecoveryTakesOffTheLossesOfItsItemAndThoseOfItsNicOnBothSides) {
  pgDown("nic0", "A", 0);   // taken off by the item
  dvDown("nic1", "p1", 0);  // taken off by the NIC, on the other side
  driver.pass(2s);
  driver.events();
  pgUp("nic1", "A", 1);
  EXPECT_EQ(after(2s), Events{connectivityRestored("\"sw0\"", "\"A\"", "nic1")});
}

TEST_F(NetScenario, aDvPortRecoveryMirrorsThat) {
  dvDown("nic0", "p1", 1);
  pgDown("nic1", "A", 1);
  driver.pass(2s);
  driver.events();
  dvUp("nic1", "p1", 2);
  EXPECT_EQ(after(2s), Events{dvRedundancyRestored("\"dvs/p1\"", "nic1")});
}

TEST_F(NetScenario, aCountOfOneLeavesTheRedundancyLossOnRecord) {
  pgDown("nic0", "A", 1);
  driver.pass(2s);
  driver.events();
  pgUp("nic0", "A", 1);
  EXPECT_EQ(after(2s), Events{connectivityRestored("\"sw0\"", "\"A\"", "nic0")});
  pgUp("nic1", "B", 2);
  EXPECT_EQ(after(2s), Events{});
}

TEST_F(NetScenario, anUnknownSwitchPostsNothingAndKeepsTheTransitionsForALaterReport) {
  pgDown("nic0", "X", 0);
  EXPECT_EQ(after(10s), Events{});
  // The entry is there, so a further transition schedules no record.
  pgDown("nic0", "A", 1);
  EXPECT_FALSE(scenario.timers.armed());
  EXPECT_EQ(after(10s), Events{});
  // PG_DOWN was cleared, so a link down speaks for itself.
  linkDown("nic0");
  EXPECT_EQ(after(1s), Events{isDown("nic0")});
}

TEST_F(NetScenario, anUnknownSwitchKeepsTheUpEntryToo) {
  pgUp("nic0", "X", 2);
  EXPECT_EQ(after(10s), Events{});
  pgUp("nic0", "A", 2);
  EXPECT_FALSE(scenario.timers.armed());
}

TEST_F(NetScenario, aFailingSwitchLookUpIsAnUnknownSwitch) {
  host.write(R"({"portGroups":{"A":"sw0"},"failures":{"portGroup.lookup":5}})");
  pgDown("nic0", "A", 0);
  EXPECT_EQ(after(10s), Events{});
}

TEST_F(NetScenario, theFirstPortGroupOfTheListNamesTheSwitch) {
  pgDown("nic0", "A", 0);
  pgDown("nic0", "X", 0);
  EXPECT_EQ(after(2s), Events{connectivityLost("nic0", "\"A\", \"X\"")});
}

TEST_F(NetScenario, downAndUpInsideTheWatchdogWindowGiveExactlyOneReset) {
  watchdog("nic0");
  linkDown("nic0");
  pgDown("nic0", "A", 0);
  driver.pass(3s);
  linkUp("nic0");
  pgUp("nic0", "A", 1);
  EXPECT_EQ(after(4s), Events{watchdogReset("nic0")});
  EXPECT_EQ(after(60s), Events{});
  // All flags are 0 again: the NIC reports as usual.
  pgDown("nic0", "A", 1);
  EXPECT_EQ(after(2s), Events{redundancyLost("nic0", "\"A\"")});
}

TEST_F(NetScenario, aResetDropsThePortGroupUpEntry) {
  watchdog("nic0");
  pgDown("nic0", "A", 0);
  pgUp("nic0", "A", 1);
  EXPECT_EQ(after(7s), Events{watchdogReset("nic0")});
  // An entry that stayed would keep this one from scheduling a record.
  pgUp("nic0", "B", 2);
  EXPECT_EQ(after(2s), Events{redundancyRestored("\"sw0\"", "\"B\"", "nic0")});
}

TEST_F(NetScenario, aDvPortUpIsHeldBackWhileTheWatchdogIsSet) {
  watchdog("nic0");
  dvUp("nic0", "p1", 2);
  EXPECT_EQ(after(60s), Events{});
}

TEST_F(NetScenario, aDownWithoutAnUpIsReportedAtTheWatchdogsSecondAndThenTheNicStaysSilentUntilAReset) {
  watchdog("nic0");
  pgDown("nic0", "A", 0);
  EXPECT_EQ(after(6s), Events{});
  EXPECT_EQ(after(1s), Events{connectivityLost("nic0", "\"A\"")});
  pgUp("nic0", "A", 1);
  EXPECT_EQ(after(10s), Events{});
  linkDown("nic0");
  linkUp("nic0");
  dvDown("nic0", "p1", 0);
  EXPECT_EQ(after(60s), Events{});
  watchdog("nic0");
  EXPECT_EQ(after(7s), Events{watchdogReset("nic0")});  // a down and an up flag are still set
  linkDown("nic0");
  EXPECT_EQ(after(1s), Events{isDown("nic0")});
}

TEST_F(NetScenario, aDvPortDownIsReportedAtTheWatchdogsSecond) {
  watchdog("nic0");
  dvDown("nic0", "p1", 1);
  EXPECT_EQ(after(7s), Events{problem("orn.problem.net.dvport.redundancy.lost",
                                      "Lost uplink redundancy on DVPorts: \"dvs/p1\". Physical NIC nic0 is down.")});
}

TEST_F(NetScenario, aLinkDownPendingAtTheWatchdogsSecondIsReportedByIt) {
  watchdog("nic0");
  driver.pass(6s);
  scenario.clock.pass(1s);  // the pass that is due has not run yet
  linkDown("nic0");
  scenario.timers.fireDue();
  EXPECT_EQ(driver.events(), Events{isDown("nic0")});
  EXPECT_EQ(after(10s), Events{});  // the link-down record finds WATCHDOG set
}

TEST_F(NetScenario, aWatchdogWithNothingDownReportsNothingAndStays) {
  watchdog("nic0");
  EXPECT_EQ(after(7s), Events{});
  linkDown("nic0");
  EXPECT_EQ(after(10s), Events{});
}

TEST_F(NetScenario, aResetDropsTheDvPortDownEntryTwiceAndLeavesTheUpEntry) {
  watchdog("nic0");
  dvDown("nic0", "p1", 0);
  dvUp("nic0", "p1", 1);
  EXPECT_EQ(after(7s), Events{watchdogReset("nic0")});
  // The up entry is still there, so a further up transition schedules no record.
  dvUp("nic0", "p2", 2);
  EXPECT_FALSE(scenario.timers.armed());
  // The down entry is gone, so a down transition does.
  dvDown("nic0", "p3", 0);
  EXPECT_EQ(after(2s).size(), 1U);
}

TEST_F(NetScenario, aResetOfAPortGroupDownWithADvPortUpDropsTheDvPortDownEntry) {
  watchdog("nic0");
  pgDown("nic0", "A", 0);
  dvDown("nic0", "p1", 0);
  dvUp("nic0", "p1", 1);
  EXPECT_EQ(after(7s), Events{watchdogReset("nic0")});
  dvDown("nic0", "p2", 0);
  EXPECT_EQ(after(2s), Events{problem("orn.problem.net.dvport.connectivity.lost",
                                      "Lost network connectivity on DVPorts: \"dvs/p2\". Physical NIC nic0 is down.")});
}

TEST_F(NetScenario, theTimerIsReArmedLateForAnEarlierRecord) {
  watchdog("nic0");  // armed for 7
  driver.pass(2s);
  linkDown("nic1");  // due in 1, but armed for 2 + 1
  EXPECT_EQ(scenario.timers.secondsToNext(), 3);
  EXPECT_EQ(after(2s), Events{});
  EXPECT_EQ(after(1s), Events{isDown("nic1")});
  EXPECT_EQ(scenario.timers.secondsToNext(), 2);
}

TEST_F(NetScenario, theTimerStaysWhereTheCandidateIsNotEarlier) {
  watchdog("nic0");
  driver.pass(6s);
  linkDown("nic1");  // candidate 7 is not below 7: the pass at second 7 catches it
  EXPECT_EQ(scenario.timers.secondsToNext(), 1);
  EXPECT_EQ(after(1s), Events{isDown("nic1")});
}

TEST_F(NetScenario, aClockSteppedBackWrapsTheCandidateSoThatTheTimerStays) {
  watchdog("nic0");
  scenario.clock.correct(scenario.clock.wall() - 10s);
  linkDown("nic1");  // (now - armedAt) + 1 is 4294967287 in 32 bits
  EXPECT_EQ(scenario.timers.secondsToNext(), 17);
}

TEST_F(NetScenario, recordsAreNotDueBeforeTheirTimeWhenTheClockIsSteppedBack) {
  linkDown("nic0");
  scenario.clock.correct(scenario.clock.wall() - 100s);
  net.expire();
  EXPECT_EQ(driver.events(), Events{});
  EXPECT_EQ(scenario.timers.secondsToNext(), 101);
}

TEST_F(NetScenario, aClockSteppedForwardMakesRecordsDueAtOnce) {
  pgDown("nic0", "A", 1);
  scenario.clock.correct(scenario.clock.wall() + 3600s);
  scenario.timers.fireDue();
  EXPECT_EQ(driver.events(), Events{redundancyLost("nic0", "\"A\"")});
}

TEST_F(NetScenario, nicsAreVisitedInTheOrderOfTheirNames) {
  linkDown("nic1");
  linkDown("nic0");
  EXPECT_EQ(after(1s), (Events{isDown("nic0"), isDown("nic1")}));
}

TEST_F(NetScenario, observationsWithUnreadableArgumentsLeaveNoTrace) {
  driver.observe("kel.net.pg.uplink.transition.down", {s("nic0"), s("A"), i(0)});
  driver.observe("kel.net.pg.uplink.transition.down", {s("nic0"), s("A"), s("0"), i(0)});
  driver.observe("kel.net.pg.uplink.transition.up", {s("nic0"), s("A")});
  driver.observe("kel.net.dvport.uplink.transition.down", {s("nic0"), s("dvs"), s("p"), i(0)});
  driver.observe("kel.net.dvport.uplink.transition.up", {s("nic0"), s("dvs"), i(1), i(1)});
  driver.observe("kel.net.qnic.linkstate.down");
  driver.observe("kel.net.qnic.linkstate.up", {i(1)});
  driver.observe("kel.net.uplink.watchdog.timeout");
  EXPECT_FALSE(scenario.timers.armed());
  for (const auto& line : scenario.log.take()) EXPECT_NE(line.find("us: [kel.net."), std::string::npos) << line;
}

class NetFlapping : public NetScenario {
 protected:
  void threshold(int value) {
    host.write(R"({"options":{"Net/LinkFlappingThreshold":)" + std::to_string(value) + "}}");
  }
  /// How often the NIC was reported as flapping by this link down.
  std::size_t downNow(const char* nic = "nic0") {
    linkDown(nic);
    std::size_t count = 0;
    for (const auto& event : driver.events()) {
      count += event == problem("orn.problem.net.qnic.linkstate.flapping",
                                std::string("Taking down physical NIC ") + nic + " because the link is flapping.");
    }
    return count;
  }
};

TEST_F(NetFlapping, withThresholdThreeTheFourthWithinAMinuteTakesTheNicDownAndTheFifthStartsAfresh) {
  threshold(3);
  for (int n = 0; n < 3; ++n) EXPECT_EQ(downNow(), 0U);
  EXPECT_TRUE(host.actions().empty());
  EXPECT_EQ(downNow(), 1U);
  EXPECT_EQ(host.actions(), std::vector<std::string>{R"({"action":"nic.down","nic":"nic0"})"});
  for (int n = 0; n < 3; ++n) EXPECT_EQ(downNow(), 0U);
  EXPECT_EQ(downNow(), 1U);
}

TEST_F(NetFlapping, thresholdZeroTakesNothingDown) {
  threshold(0);
  for (int n = 0; n < 100; ++n) EXPECT_EQ(downNow(), 0U);
  EXPECT_TRUE(host.actions().empty());
}

TEST_F(NetFlapping, aNegativeThresholdIsExceededByTheFirst) {
  threshold(-1);
  EXPECT_EQ(downNow(), 1U);
}

TEST_F(NetFlapping, atSecond61TheOneAtZeroHasLeftTheWindow) {
  threshold(2);
  EXPECT_EQ(downNow(), 0U);
  driver.pass(30s);
  EXPECT_EQ(downNow(), 0U);
  driver.pass(31s);
  EXPECT_EQ(downNow(), 0U);
}

TEST_F(NetFlapping, atSecond60TheOneAtZeroIsStillInTheWindow) {
  threshold(1);
  EXPECT_EQ(downNow(), 0U);
  driver.pass(60s);
  EXPECT_EQ(downNow(), 1U);
}

TEST_F(NetFlapping, linkUpsDoNotTouchTheWindowAndNicsAreCountedApart) {
  threshold(2);
  EXPECT_EQ(downNow("nic0"), 0U);
  EXPECT_EQ(downNow("nic1"), 0U);
  linkUp("nic0");
  EXPECT_EQ(downNow("nic1"), 0U);
  EXPECT_EQ(downNow("nic0"), 0U);
  EXPECT_EQ(downNow("nic0"), 1U);
}

TEST_F(NetFlapping, aNewThresholdHoldsFromTheNextLinkDownOn) {
  threshold(0);
  for (int n = 0; n < 5; ++n) EXPECT_EQ(downNow(), 0U);
  threshold(5);
  EXPECT_EQ(downNow(), 1U);  // the earlier five have been counted all the while
}

TEST_F(NetFlapping, anUnreadableThresholdKeepsTheTimes) {
  host.write(R"({"failures":{"option.read:Net/LinkFlappingThreshold":5}})");
  EXPECT_EQ(downNow(), 0U);
  EXPECT_EQ(downNow(), 0U);
  threshold(2);
  EXPECT_EQ(downNow(), 1U);
}

TEST_F(NetFlapping, aNicThatCannotBeTakenDownGivesNoEventAndEmptiesTheWindow) {
  host.write(R"({"options":{"Net/LinkFlappingThreshold":1},"failures":{"nic.down":5}})");
  EXPECT_EQ(downNow(), 0U);
  EXPECT_EQ(downNow(), 0U);
  threshold(1);
  EXPECT_EQ(downNow(), 0U);
  EXPECT_EQ(downNow(), 1U);
}

TEST_F(NetScenario, everyOneToOneRowGivesItsKindNameAndText) {
  const std::vector<support::Row> rows = support::loadRows(KELD_NET_ROWS);
  for (const support::Row& row : rows) {
    host.write(row.model);
    driver.observe(row.id, row.arguments);
    EXPECT_EQ(driver.events(), Events{support::posted(row)}) << row.id;
    if (!row.arguments.empty()) {
      driver.observe(row.id);
      EXPECT_EQ(driver.events(), Events{}) << row.id << " without arguments";
    }
  }
  EXPECT_GE(rows.size(), 37U);
}

TEST_F(NetScenario, anUnknownObservationOfTheGroupIsIgnoredSilently) {
  driver.observe("kel.net.unheard.of", {s("x")});
  EXPECT_EQ(driver.events(), Events{});
  EXPECT_TRUE(scenario.log.take().empty());
}

TEST_F(NetScenario, theTsoObservationWithoutAVmNamePostsNothing) {
  driver.observe("kel.net.e1000.tso6.notsupported", {i(12)});
  host.write(R"({"vms":[{"worldId":1,"groupId":12,"name":"web01"}],"failures":{"vm.name":5}})");
  driver.observe("kel.net.e1000.tso6.notsupported", {i(12)});
  EXPECT_EQ(driver.events(), Events{});
}

TEST_F(NetScenario, aNullTextShowsAsNull) {
  driver.observe("kel.net.lacp.enable", {null()});
  EXPECT_EQ(driver.events(), Events{audit("orn.audit.net.lacp.enable", "LACP for MSW (null) is enabled")});
}

}  // namespace
