#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <string>

#include "scenarioTools.h"

namespace {

using namespace std::chrono_literals;
using scenario::Arguments;
using scenario::diagnostics;
using scenario::Events;
using scenario::Lines;
using support::audit;
using support::clear;
using support::i;
using support::null;
using support::problem;
using support::s;
using support::u;

constexpr const char* kGotIp = "kel.dstor.net.gotip";
constexpr const char* kNoIp = "kel.dstor.net.noip";
constexpr const char* kRdtNoIp = "kel.dstor.rdt.noip";
constexpr const char* kCreated = "kel.dstor.net.created";
constexpr const char* kReconfigured = "kel.dstor.net.reconfigured";
constexpr const char* kReduced = "kel.dstor.net.redundancy.reduced";
constexpr const char* kNoConnectivity = "kel.dstor.net.no.connectivity";
constexpr const char* kDisabled = "kel.dstor.clmd.disabled";
constexpr const char* kEnabled = "kel.dstor.clmd.enabled";
constexpr const char* kUnloaded = "kel.dstor.clmd.unloaded";
constexpr const char* kUnrecoverable = "kel.dstor.dom.unrecoverableerror";
constexpr const char* kSingleDiskUnrecoverable = "kel.dstor.dom.singlediskunrecoverableerror";
constexpr const char* kFixed = "kel.dstor.dom.errorfixed";
constexpr const char* kSingleDiskFixed = "kel.dstor.dom.singlediskerrorfixed";
constexpr const char* kResyncTimeout = "kel.dstor.dom.resynctimeout";

support::PostedEvent queueOnly(support::PostedEvent event) {
  event.queueOnly = true;
  return event;
}
support::PostedEvent ready(const std::string& nic) {
  return clear("orn.clear.dstor.qknic.ready", "qknic " + nic +
                                                  " now has an IP address. Earlier reported connectivity problems, if "
                                                  "any, can now be ignored as it is resolved.");
}
/// An interface without an address while others have one.
support::PostedEvent nicNotReady(const std::string& nic) {
  return problem("orn.problem.dstor.qknic.not.ready",
                 "qknic " + nic +
                     " that is currently configured to be used with Dstor doesn't have an IP address yet. However, "
                     "there are other network configuration which are active. If those configurations are removed "
                     "that may cause problems.");
}
/// An interface without an address where none has one.
support::PostedEvent netNotReady(const std::string& nic) {
  return queueOnly(problem("orn.problem.dstor.net.not.ready",
                           "qknic " + nic +
                               " that is currently configured to be used with Dstor doesn't have an IP address yet. "
                               "There are no other active network configuration and therefore the Dstor node doesn't "
                               "have network connectivity."));
}
support::PostedEvent available() {
  return clear("orn.clear.dstor.network.available",
               "Dstor now has usable network configuration. Earlier reported connectivity problems, if any, can now be "
               "ignored as it is resolved.");
}
support::PostedEvent added() {
  return audit("orn.audit.dstor.net.vnic.added", "Dstor vnic added");
}
support::PostedEvent deleted() {
  return audit("orn.audit.dstor.net.vnic.deleted", "Dstor vnic deleted");
}
support::PostedEvent redundancyLost() {
  return problem("orn.problem.dstor.net.redundancy.lost",
                 "Dstor network configuration doesn't have any redundancy. This may be a problem if further network "
                 "configuration is removed.");
}
support::PostedEvent redundancyReduced() {
  return problem("orn.problem.dstor.net.redundancy.reduced",
                 "Dstor network configuration redundancy has reduced. This may be a problem if further network "
                 "configuration is removed.");
}
support::PostedEvent noConnectivity() {
  return queueOnly(problem("orn.problem.dstor.no.network.connectivity",
                           "Dstor doesn't have any network configuration. This can severly impact several objects in "
                           "the Dstor datastore."));
}
support::PostedEvent clusteringDisabled() {
  return problem("orn.problem.dstor.clustering.disabled",
                 "Dstor clustering and directory services have been disabled thus will be no longer available.");
}
support::PostedEvent clusteringRestored() {
  return clear("orn.clear.dstor.clustering.enabled", "Dstor clustering and directory services have now been enabled.");
}
support::PostedEvent clusteringEnabled() {
  return audit("orn.audit.dstor.clustering.enabled", "Dstor clustering and directory services have been enabled.");
}
support::PostedEvent unrecoverable(const std::string& component, const std::string& group) {
  return problem("orn.problem.kel.dstor.dom.unrecoverableerror",
                 "Dstor detected an unrecoverable medium or checksum error for component " + component +
                     " on disk group " + group + ".");
}
support::PostedEvent singleDiskUnrecoverable(const std::string& component, const std::string& disk) {
  return problem(
      "orn.problem.kel.dstor.dom.singlediskunrecoverableerror",
      "Dstor detected an unrecoverable medium or checksum error for component " + component + " on disk " + disk + ".");
}
support::PostedEvent fixed(const std::string& component, const std::string& group) {
  return problem("orn.problem.kel.dstor.dom.errorfixed",
                 "Dstor detected and fixed a medium or checksum error for component " + component + " on disk group " +
                     group + ".");
}
support::PostedEvent singleDiskFixed(const std::string& component, const std::string& disk) {
  return problem(
      "orn.problem.kel.dstor.dom.singlediskerrorfixed",
      "Dstor detected and fixed a medium or checksum error for component " + component + " on disk " + disk + ".");
}
support::PostedEvent resyncTimedOut(const std::string& minutes, const std::string& component, const std::string& disk,
                                    const std::string& megabytes) {
  return problem("orn.problem.kel.dstor.dom.resynctimeout",
                 "Resync timed out as no progress was made in " + minutes + " minute(s) for component " + component +
                     " on disk " + disk +
                     ". Resync will be tried again for this component. The remaining resync is around " + megabytes +
                     "MB.");
}

class DstorScenario : public testing::Test {
 protected:
  Events observed(const char* id, const Arguments& arguments = {}) {
    driver.observe(id, arguments);
    return driver.events();
  }
  Events nic(const char* id, const std::string& name) { return observed(id, {s(name)}); }
  Events error(const char* id, const std::string& component, const std::string& disk) {
    return observed(id, {s(component), s(disk)});
  }
  /// Brings interfaces into the table, with an address.
  void create(std::initializer_list<const char*> names) {
    for (const char* name : names) nic(kCreated, name);
  }

  support::Scenario scenario;
  support::Driver driver{scenario, keld::kDstorCorrelator};
};

TEST_F(DstorScenario, itWatchesItsOneGroupWith40Handlers) {
  EXPECT_STREQ(keld::kDstorCorrelator.nameWord, "Dstor");
  ASSERT_EQ(keld::kDstorCorrelator.groups.size(), 1U);
  EXPECT_STREQ(keld::kDstorCorrelator.groups[0], "dstor");
  EXPECT_TRUE(keld::kDstorCorrelator.identifiers.empty());
  EXPECT_EQ(keld::kDstorCorrelator.make(scenario.services)->handlers().size(), 40U);
}

TEST_F(DstorScenario, anUnknownObservationIsIgnoredSilently) {
  for (const char* id : {"kel.dstor.unheard.of", "kel.dstor.rdt.gotip", ""}) {
    EXPECT_EQ(observed(id, {s("qk1")}), Events{}) << id;
  }
  EXPECT_EQ(scenario.log.take(), Lines{});
}

TEST_F(DstorScenario, theOnlyInterfaceWithoutAddressIsQueuedAndClearedOnceItHasOne) {
  EXPECT_EQ(nic(kNoIp, "qk1"), Events{netNotReady("qk1")});
  EXPECT_EQ(nic(kGotIp, "qk1"), Events{ready("qk1")});
  EXPECT_EQ(nic(kGotIp, "qk1"), Events{});
  EXPECT_EQ(diagnostics(scenario), Lines{});
}

TEST_F(DstorScenario, anAddressOfAnInterfaceNeverSeenIsSilentAndLeavesItUnknown) {
  EXPECT_EQ(nic(kGotIp, "qk1"), Events{});
  EXPECT_EQ(nic(kNoIp, "qk2"), Events{netNotReady("qk2")});
  EXPECT_EQ(nic(kGotIp, "qk1"), Events{});
  EXPECT_EQ(nic(kGotIp, "qk2"), Events{ready("qk2")});
}

TEST_F(DstorScenario, anInterfaceThatHasAnAddressIsNotClearedAgain) {
  create({"qk1"});
  EXPECT_EQ(nic(kGotIp, "qk1"), Events{});
}

TEST_F(DstorScenario, anInterfaceWithoutAddressBesideOneThatHasOneIsSentAtOnce) {
  create({"qk1"});
  EXPECT_EQ(nic(kNoIp, "qk2"), Events{nicNotReady("qk2")});
  EXPECT_EQ(nic(kGotIp, "qk2"), Events{ready("qk2")});
}

TEST_F(DstorScenario, anAddressThatWasReportedCountsForTheOthers) {
  EXPECT_EQ(nic(kNoIp, "qk1"), Events{netNotReady("qk1")});
  EXPECT_EQ(nic(kNoIp, "qk2"), Events{netNotReady("qk2")});
  nic(kGotIp, "qk1");
  EXPECT_EQ(nic(kNoIp, "qk2"), Events{nicNotReady("qk2")});
}

TEST_F(DstorScenario, theInterfaceThatLosesItsAddressNoLongerCounts) {
  create({"qk1"});
  EXPECT_EQ(nic(kNoIp, "qk1"), Events{netNotReady("qk1")});
  create({"qk2", "qk3"});
  EXPECT_EQ(nic(kNoIp, "qk2"), Events{nicNotReady("qk2")});
  EXPECT_EQ(nic(kNoIp, "qk3"), Events{netNotReady("qk3")});
}

TEST_F(DstorScenario, aMissingAddressIsReportedAsOftenAsItIsObserved) {
  EXPECT_EQ(nic(kNoIp, "qk1"), Events{netNotReady("qk1")});
  EXPECT_EQ(nic(kNoIp, "qk1"), Events{netNotReady("qk1")});
  EXPECT_EQ(nic(kGotIp, "qk1"), Events{ready("qk1")});
}

TEST_F(DstorScenario, bothObservationsOfAMissingAddressAreTheSame) {
  EXPECT_EQ(nic(kRdtNoIp, "qk1"), Events{netNotReady("qk1")});
  EXPECT_EQ(nic(kGotIp, "qk1"), Events{ready("qk1")});
  EXPECT_EQ(nic(kRdtNoIp, "qk2"), Events{nicNotReady("qk2")});
  EXPECT_EQ(nic(kNoIp, "qk1"), Events{netNotReady("qk1")});
}

TEST_F(DstorScenario, aNewInterfaceIsOnlyAudited) {
  for (const char* id : {kCreated, kReconfigured}) {
    EXPECT_EQ(nic(id, "qk1"), Events{added()}) << id;
    EXPECT_EQ(nic(id, "qk1"), Events{added()}) << id;
    EXPECT_EQ(nic(id, "qk2"), Events{added()}) << id;
  }
}

TEST_F(DstorScenario, anInterfaceMadeAnewWithoutAddressBeforeClearsTheNetworkAndHasOne) {
  for (const char* id : {kCreated, kReconfigured}) {
    EXPECT_EQ(nic(kNoIp, "qk1"), Events{netNotReady("qk1")}) << id;
    EXPECT_EQ(nic(id, "qk1"), (Events{available(), added()})) << id;
    EXPECT_EQ(nic(kGotIp, "qk1"), Events{}) << id;
    EXPECT_EQ(nic(id, "qk1"), Events{added()}) << id;
  }
}

TEST_F(DstorScenario, anotherInterfacesMissingAddressDoesNotClearTheNetwork) {
  nic(kNoIp, "qk1");
  EXPECT_EQ(nic(kCreated, "qk2"), Events{added()});
  EXPECT_EQ(nic(kGotIp, "qk1"), Events{ready("qk1")});
}

TEST_F(DstorScenario, theFirstInterfaceAfterALossOfConnectivityClearsItOnce) {
  for (const char* id : {kCreated, kReconfigured}) {
    EXPECT_EQ(nic(kNoConnectivity, "qk1"), (Events{deleted(), noConnectivity()})) << id;
    EXPECT_EQ(nic(id, "qk1"), (Events{available(), added()})) << id;
    EXPECT_EQ(nic(id, "qk2"), Events{added()}) << id;
    EXPECT_EQ(nic(id, "qk1"), Events{added()}) << id;
    observed(kUnloaded);
  }
}

TEST_F(DstorScenario, aLossOfConnectivityReportedTwiceIsClearedOnce) {
  nic(kNoConnectivity, "qk1");
  EXPECT_EQ(nic(kNoConnectivity, "qk1"), (Events{deleted(), noConnectivity()}));
  EXPECT_EQ(nic(kCreated, "qk1"), (Events{available(), added()}));
  EXPECT_EQ(nic(kCreated, "qk1"), Events{added()});
}

TEST_F(DstorScenario, oneClearStandsForALossOfConnectivityAndAMissingAddress) {
  nic(kNoConnectivity, "qk1");
  nic(kNoIp, "qk2");
  EXPECT_EQ(nic(kCreated, "qk2"), (Events{available(), added()}));
  EXPECT_EQ(nic(kCreated, "qk2"), Events{added()});
  EXPECT_EQ(nic(kGotIp, "qk2"), Events{});
}

TEST_F(DstorScenario, aClearedLossLeavesTheOthersWithoutAddress) {
  nic(kNoConnectivity, "qk1");
  nic(kNoIp, "qk2");
  EXPECT_EQ(nic(kCreated, "qk3"), (Events{available(), added()}));
  EXPECT_EQ(nic(kCreated, "qk2"), (Events{available(), added()}));
}

TEST_F(DstorScenario, anAddressDoesNotClearALossOfConnectivity) {
  nic(kNoConnectivity, "qk1");
  nic(kNoIp, "qk1");
  EXPECT_EQ(nic(kGotIp, "qk1"), Events{ready("qk1")});
  EXPECT_EQ(nic(kCreated, "qk1"), (Events{available(), added()}));
}

TEST_F(DstorScenario, aLossOfConnectivityForgetsTheNamedInterfaceOnly) {
  nic(kNoIp, "qk1");
  create({"qk2"});
  EXPECT_EQ(nic(kNoConnectivity, "qk1"), (Events{deleted(), noConnectivity()}));
  EXPECT_EQ(nic(kGotIp, "qk1"), Events{});
  EXPECT_EQ(nic(kNoIp, "qk3"), Events{nicNotReady("qk3")});
  EXPECT_EQ(nic(kNoConnectivity, "qk9"), (Events{deleted(), noConnectivity()}));
  EXPECT_EQ(nic(kGotIp, "qk3"), Events{ready("qk3")});
}

TEST_F(DstorScenario, redundancyIsLostWithFewerThanTwoInterfacesLeft) {
  create({"qk1", "qk2", "qk3", "qk4"});
  EXPECT_EQ(nic(kReduced, "qk4"), (Events{redundancyReduced(), deleted()}));
  EXPECT_EQ(nic(kReduced, "qk3"), (Events{redundancyReduced(), deleted()}));
  EXPECT_EQ(nic(kReduced, "qk2"), (Events{redundancyLost(), deleted()}));
  EXPECT_EQ(nic(kReduced, "qk1"), (Events{redundancyLost(), deleted()}));
  EXPECT_EQ(nic(kReduced, "qk1"), (Events{redundancyLost(), deleted()}));
}

TEST_F(DstorScenario, anInterfaceThatIsGoneAlreadyLeavesTheOthersToCount) {
  EXPECT_EQ(nic(kReduced, "qk9"), (Events{redundancyLost(), deleted()}));
  create({"qk1"});
  EXPECT_EQ(nic(kReduced, "qk9"), (Events{redundancyLost(), deleted()}));
  create({"qk2"});
  EXPECT_EQ(nic(kReduced, "qk9"), (Events{redundancyReduced(), deleted()}));
}

TEST_F(DstorScenario, interfacesWithoutAddressCountForRedundancy) {
  create({"qk1", "qk3"});
  nic(kNoIp, "qk2");
  EXPECT_EQ(nic(kReduced, "qk3"), (Events{redundancyReduced(), deleted()}));
  nic(kNoIp, "qk1");
  EXPECT_EQ(nic(kReduced, "qk3"), (Events{redundancyReduced(), deleted()}));
}

TEST_F(DstorScenario, anInterfaceThatReducedRedundancyIsForgotten) {
  create({"qk2"});
  nic(kNoIp, "qk1");
  nic(kReduced, "qk1");
  EXPECT_EQ(nic(kGotIp, "qk1"), Events{});
  nic(kReduced, "qk2");
  EXPECT_EQ(nic(kNoIp, "qk3"), Events{netNotReady("qk3")});
  EXPECT_EQ(nic(kCreated, "qk1"), Events{added()});
}

TEST_F(DstorScenario, lostRedundancyIsNoLossOfConnectivity) {
  create({"qk1"});
  EXPECT_EQ(nic(kReduced, "qk1"), (Events{redundancyLost(), deleted()}));
  EXPECT_EQ(nic(kCreated, "qk1"), Events{added()});
}

TEST_F(DstorScenario, interfacesAreToldApartByTheirWholeName) {
  nic(kNoIp, "qk1");
  EXPECT_EQ(nic(kGotIp, "qk10"), Events{});
  EXPECT_EQ(nic(kGotIp, "QK1"), Events{});
  EXPECT_EQ(nic(kGotIp, ""), Events{});
  EXPECT_EQ(nic(kGotIp, "qk1"), Events{ready("qk1")});
}

TEST_F(DstorScenario, anInterfaceRowWithoutANameDoesNothing) {
  for (const char* id : {kGotIp, kNoIp, kRdtNoIp, kCreated, kReconfigured, kReduced, kNoConnectivity}) {
    scenario::expectUnreadable(scenario, driver, {{id, {}, {}}, {id, {i(1)}, {}}, {id, {null()}, {}}});
  }
  EXPECT_EQ(nic(kNoIp, "qk1"), Events{netNotReady("qk1")});
  EXPECT_EQ(nic(kCreated, "qk2"), Events{added()});
}

TEST_F(DstorScenario, anInterfaceWithoutANameKeepsAReportedLossStanding) {
  nic(kNoConnectivity, "qk1");
  EXPECT_EQ(observed(kCreated), Events{});
  EXPECT_EQ(observed(kReconfigured), Events{});
  EXPECT_EQ(nic(kCreated, "qk1"), (Events{available(), added()}));
}

TEST_F(DstorScenario, clusteringEnabledIsAnAuditUntilItWasDisabled) {
  EXPECT_EQ(observed(kEnabled), Events{clusteringEnabled()});
  EXPECT_EQ(observed(kEnabled), Events{clusteringEnabled()});
  EXPECT_EQ(observed(kDisabled), Events{clusteringDisabled()});
  EXPECT_EQ(observed(kEnabled), Events{clusteringRestored()});
  EXPECT_EQ(diagnostics(scenario), Lines{});
}

TEST_F(DstorScenario, clusteringEnabledTwiceAfterItWasDisabledClearsTwice) {
  observed(kDisabled);
  EXPECT_EQ(observed(kEnabled), Events{clusteringRestored()});
  EXPECT_EQ(observed(kEnabled), Events{clusteringRestored()});
  driver.pass(24h);
  EXPECT_EQ(observed(kEnabled), Events{clusteringRestored()});
}

TEST_F(DstorScenario, clusteringDisabledIsReportedEveryTime) {
  EXPECT_EQ(observed(kDisabled), Events{clusteringDisabled()});
  EXPECT_EQ(observed(kDisabled), Events{clusteringDisabled()});
}

TEST_F(DstorScenario, clusteringRowsReadNoArgument) {
  EXPECT_EQ(observed(kEnabled, {i(1), null()}), Events{clusteringEnabled()});
  EXPECT_EQ(observed(kDisabled, {s("%s")}), Events{clusteringDisabled()});
  EXPECT_EQ(observed(kUnloaded, {i(1)}), Events{});
  EXPECT_EQ(observed(kEnabled), Events{clusteringEnabled()});
}

TEST_F(DstorScenario, clusteringAndConnectivityAreReportedApart) {
  observed(kDisabled);
  EXPECT_EQ(nic(kCreated, "qk1"), Events{added()});
  EXPECT_EQ(observed(kEnabled), Events{clusteringRestored()});
  observed(kUnloaded);
  nic(kNoConnectivity, "qk1");
  EXPECT_EQ(observed(kEnabled), Events{clusteringEnabled()});
  EXPECT_EQ(nic(kCreated, "qk1"), (Events{available(), added()}));
}

TEST_F(DstorScenario, unloadingForgetsEverythingAndPostsNothing) {
  create({"qk2", "qk3"});
  nic(kNoIp, "qk1");
  nic(kNoConnectivity, "qk9");
  observed(kDisabled);
  error(kUnrecoverable, "c", "dg");
  EXPECT_EQ(observed(kUnloaded), Events{});
  EXPECT_EQ(diagnostics(scenario), Lines{});
  EXPECT_EQ(nic(kGotIp, "qk1"), Events{});
  EXPECT_EQ(nic(kNoIp, "qk4"), Events{netNotReady("qk4")});
  EXPECT_EQ(nic(kCreated, "qk1"), Events{added()});
  EXPECT_EQ(observed(kEnabled), Events{clusteringEnabled()});
  EXPECT_EQ(error(kUnrecoverable, "c", "dg"), Events{unrecoverable("c", "dg")});
}

TEST_F(DstorScenario, enablingOrDisablingClusteringForgetsNothing) {
  nic(kNoIp, "qk1");
  nic(kNoConnectivity, "qk9");
  error(kUnrecoverable, "c", "dg");
  observed(kDisabled);
  observed(kEnabled);
  EXPECT_EQ(nic(kGotIp, "qk1"), Events{ready("qk1")});
  EXPECT_EQ(nic(kCreated, "qk2"), (Events{available(), added()}));
  EXPECT_EQ(error(kUnrecoverable, "c", "dg"), Events{});
}

TEST_F(DstorScenario, allFourErrorsAreProblemsTheFixedOnesToo) {
  EXPECT_EQ(error(kUnrecoverable, "c1", "dg1"), Events{unrecoverable("c1", "dg1")});
  EXPECT_EQ(error(kSingleDiskUnrecoverable, "c2", "disk2"), Events{singleDiskUnrecoverable("c2", "disk2")});
  EXPECT_EQ(error(kFixed, "c3", "dg3"), Events{fixed("c3", "dg3")});
  EXPECT_EQ(error(kSingleDiskFixed, "c4", "disk4"), Events{singleDiskFixed("c4", "disk4")});
  EXPECT_EQ(diagnostics(scenario), Lines{});
}

TEST_F(DstorScenario, anErrorIsReportedAgainAfter3600Seconds) {
  for (const char* id : {kUnrecoverable, kSingleDiskUnrecoverable, kFixed, kSingleDiskFixed}) {
    const std::string disk = id;
    EXPECT_EQ(error(id, "c", disk).size(), 1U) << id;
    driver.pass(3599s);
    EXPECT_EQ(error(id, "c", disk), Events{}) << id;
    driver.pass(1s);
    EXPECT_EQ(error(id, "c", disk).size(), 1U) << id;
    driver.pass(3599s);
    EXPECT_EQ(error(id, "c", disk), Events{}) << id;
    driver.pass(1s);
    EXPECT_EQ(error(id, "c", disk).size(), 1U) << id;
  }
  EXPECT_EQ(diagnostics(scenario), Lines{});
}

TEST_F(DstorScenario, anyErrorOfADiskGroupHoldsBackAllFour) {
  for (const char* first : {kUnrecoverable, kSingleDiskUnrecoverable, kFixed, kSingleDiskFixed}) {
    const std::string disk = first;
    EXPECT_EQ(error(first, "c", disk).size(), 1U) << first;
    driver.pass(3599s);
    for (const char* later : {kUnrecoverable, kSingleDiskUnrecoverable, kFixed, kSingleDiskFixed}) {
      EXPECT_EQ(error(later, "c", disk), Events{}) << first << ' ' << later;
    }
  }
  driver.pass(1s);
  EXPECT_EQ(error(kFixed, "c", kSingleDiskFixed), Events{fixed("c", kSingleDiskFixed)});
}

TEST_F(DstorScenario, anErrorIsHeldBackByItsDiskGroupWhateverItsComponent) {
  EXPECT_EQ(error(kUnrecoverable, "c1", "dg1"), Events{unrecoverable("c1", "dg1")});
  EXPECT_EQ(error(kUnrecoverable, "c2", "dg1"), Events{});
  EXPECT_EQ(error(kUnrecoverable, "c1", "dg2"), Events{unrecoverable("c1", "dg2")});
  EXPECT_EQ(error(kUnrecoverable, "c1", "dg10"), Events{unrecoverable("c1", "dg10")});
  EXPECT_EQ(error(kUnrecoverable, "dg1", "c1"), Events{unrecoverable("dg1", "c1")});
  EXPECT_EQ(error(kUnrecoverable, "", ""), Events{unrecoverable("", "")});
  EXPECT_EQ(error(kUnrecoverable, "c1", ""), Events{});
}

TEST_F(DstorScenario, anErrorThatWasHeldBackDoesNotExtendTheHour) {
  EXPECT_EQ(error(kUnrecoverable, "c", "dg"), Events{unrecoverable("c", "dg")});
  driver.pass(1800s);
  EXPECT_EQ(error(kUnrecoverable, "c", "dg"), Events{});
  driver.pass(1799s);
  EXPECT_EQ(error(kFixed, "c", "dg"), Events{});
  driver.pass(1s);
  EXPECT_EQ(error(kFixed, "c", "dg"), Events{fixed("c", "dg")});
}

TEST_F(DstorScenario, aClockSetBackHoldsErrorsBackUntilItHasCaughtUp) {
  EXPECT_EQ(error(kUnrecoverable, "c", "dg"), Events{unrecoverable("c", "dg")});
  scenario.clock.correct(scenario.clock.wall() - 24h);
  EXPECT_EQ(error(kUnrecoverable, "c", "dg"), Events{});
  EXPECT_EQ(error(kUnrecoverable, "c", "dg2"), Events{unrecoverable("c", "dg2")});
  driver.pass(24h + 3599s);
  EXPECT_EQ(error(kUnrecoverable, "c", "dg"), Events{});
  driver.pass(1s);
  EXPECT_EQ(error(kUnrecoverable, "c", "dg"), Events{unrecoverable("c", "dg")});
}

TEST_F(DstorScenario, aClockSetForwardEndsTheHour) {
  EXPECT_EQ(error(kFixed, "c", "dg"), Events{fixed("c", "dg")});
  scenario.clock.correct(scenario.clock.wall() + 1h);
  EXPECT_EQ(error(kFixed, "c", "dg"), Events{fixed("c", "dg")});
}

TEST_F(DstorScenario, theFirstErrorIsReportedWhateverTheTime) {
  scenario.clock.correct(WallTime(0s));
  EXPECT_EQ(error(kUnrecoverable, "c", "dg"), Events{unrecoverable("c", "dg")});
  driver.pass(3599s);
  EXPECT_EQ(error(kUnrecoverable, "c", "dg"), Events{});
  EXPECT_EQ(error(kUnrecoverable, "c", "dg2"), Events{unrecoverable("c", "dg2")});
}

TEST_F(DstorScenario, anErrorThatCannotBeReadHoldsNothingBack) {
  for (const char* id : {kUnrecoverable, kSingleDiskUnrecoverable, kFixed, kSingleDiskFixed}) {
    scenario::expectUnreadable(scenario, driver,
                               {{id, {}, {}}, {id, {s("c")}, {}}, {id, {s("c"), i(1)}, {}}, {id, {i(1), s("dg")}, {}}});
  }
  EXPECT_EQ(error(kUnrecoverable, "c", "dg"), Events{unrecoverable("c", "dg")});
  EXPECT_EQ(error(kUnrecoverable, "c", "c"), Events{unrecoverable("c", "c")});
}

TEST_F(DstorScenario, nullTextsOfAnErrorAreShownAsSuch) {
  EXPECT_EQ(observed(kUnrecoverable, {null(), s("dg")}), Events{unrecoverable("(null)", "dg")});
  EXPECT_EQ(observed(kUnrecoverable, {s("c"), null()}), Events{unrecoverable("c", "(null)")});
  EXPECT_EQ(error(kUnrecoverable, "c", "dg2"), Events{unrecoverable("c", "dg2")});
}

TEST_F(DstorScenario, aRowOfOneTextPostsEvenWithoutIt) {
  const support::PostedEvent offline =
      problem("orn.problem.kel.dstor.pdl.offline", "Dstor device (null) has gone offline.");
  const support::PostedEvent online = clear("orn.clear.kel.dstor.pdl.online", "Dstor device (null) has come online.");
  const support::PostedEvent rdma = audit("orn.audit.dstor.rdma.changed", "Dstor RDMA changed for qknic (null).");
  for (const Arguments& arguments : {Arguments{}, Arguments{i(1)}, Arguments{null()}, Arguments{i(1), s("late")}}) {
    scenario::expectRows(scenario, driver,
                         {{"kel.dstor.pdl.offline", arguments, offline},
                          {"kel.dstor.pdl.online", arguments, online},
                          {"kel.dstor.rdt.rdma.change", arguments, rdma}});
  }
}

TEST_F(DstorScenario, aRowOfSeveralArgumentsThatCannotBeReadPostsAndLogsNothing) {
  scenario::expectUnreadable(scenario, driver,
                             {{"kel.dstor.ldgm.congestionthreshold", {}, {}},
                              {"kel.dstor.ldgm.congestionthreshold", {s("a"), s("b"), u(1)}, {}},
                              {"kel.dstor.ldgm.congestionthreshold", {s("a"), s("b"), s("1"), u(2)}, {}},
                              {"kel.dstor.ldgm.disklimit2", {s("a"), u(1)}, {}},
                              {"kel.dstor.ldgm.diskgrouplimit", {u(1), s("a"), u(1)}, {}},
                              {"kel.dstor.ldgm.componentthreshold", {s("a"), u(1), u(2)}, {}},
                              {"kel.dstor.dom.nospaceduringresync", {s("a"), s("b")}, {}},
                              {"kel.dstor.dom.resyncdecisiondelayed", {s("a"), s("b")}, {}},
                              {"kel.dstor.dom.resyncdecisiondelayed", {s("a"), i(1), s("c")}, {}},
                              {"kel.dstor.ldgm.devicerebuild", {s("a")}, {}},
                              {"kel.dstor.ldgm.diskgrouprebuild", {}, {}}});
}

TEST_F(DstorScenario, nullTextsOfARowOfSeveralArgumentsAreShownAsSuch) {
  EXPECT_EQ(observed("kel.dstor.ldgm.congestionthreshold", {null(), null(), u(4000000000U), u(2)}),
            Events{problem("orn.problem.dstor.ldgm.congestionthreshold",
                           "LDGM (null) Congestion State: (null). Congestion Threshold: 4000000000 Current "
                           "Congestion: 2.")});
  EXPECT_EQ(observed("kel.dstor.ldgm.componentthreshold", {s("n1"), u(90), u(9), u(10)}),
            Events{problem("orn.problem.kel.dstor.ldgm.componentthreshold",
                           "Dstor Node: n1 reached threshold of 90 % opened components (9 of 10).")});
}

TEST_F(DstorScenario, aResyncTimeoutOfFourArgumentsFillsTheTextInOrder) {
  EXPECT_EQ(observed(kResyncTimeout, {u(30), s("c"), s("d"), u(512)}), Events{resyncTimedOut("30", "c", "d", "512")});
  EXPECT_EQ(observed(kResyncTimeout, {u(4294967295U), s("c"), s("d"), u(0)}),
            Events{resyncTimedOut("4294967295", "c", "d", "0")});
  EXPECT_EQ(observed(kResyncTimeout, {u(1), null(), null(), u(2)}),
            Events{resyncTimedOut("1", "(null)", "(null)", "2")});
  EXPECT_EQ(observed(kResyncTimeout, {u(1), s("c"), s("d"), u(2), s("surplus")}),
            Events{resyncTimedOut("1", "c", "d", "2")});
}

TEST_F(DstorScenario, aResyncTimeoutThatCannotBeReadIsPostedWithWhatThereIs) {
  for (const Arguments& arguments : {Arguments{s("c")}, Arguments{s("c"), s("d")}, Arguments{s("c"), i(1)}}) {
    EXPECT_EQ(observed(kResyncTimeout, arguments), Events{resyncTimedOut("0", "c", "(null)", "0")});
  }
  for (const Arguments& arguments : {Arguments{}, Arguments{null()}, Arguments{u(30)}, Arguments{u(30), s("c"), s("d")},
                                     Arguments{u(30), s("c"), s("d"), s("512")}}) {
    EXPECT_EQ(observed(kResyncTimeout, arguments), Events{resyncTimedOut("0", "(null)", "(null)", "0")});
  }
  EXPECT_EQ(diagnostics(scenario), Lines{});
}

TEST_F(DstorScenario, onlyTheTwoEventsOfALostNetworkAreQueuedOnly) {
  std::set<std::string> queued;
  const std::unique_ptr<keld::Correlator> correlator = keld::kDstorCorrelator.make(scenario.services);
  for (const auto& [id, handler] : correlator->handlers()) {
    for (const Arguments& arguments : {Arguments{s("a"), s("b"), s("c")}, Arguments{s("a"), s("b"), u(1), u(2)},
                                       Arguments{s("a"), u(1), u(2), u(3)}, Arguments{u(1), s("a"), s("b"), u(2)}}) {
      driver.observe(id, arguments);
    }
  }
  for (const support::PostedEvent& event : driver.events()) {
    if (event.queueOnly) queued.insert(event.name);
  }
  EXPECT_EQ(queued,
            (std::set<std::string>{"orn.problem.dstor.net.not.ready", "orn.problem.dstor.no.network.connectivity"}));
}

}  // namespace
