#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "decisionCases.h"
#include "scenarioTools.h"

namespace {

using namespace std::chrono_literals;
using support::concludes;
using support::forgets;
using support::holds;
using support::null;
using support::s;

class DstorScene {
 public:
  /// What happened to an interface: "gotip", "noip", "created", "redundancy.reduced", "no.connectivity".
  void net(const std::string& what, const char* nic) { driver.observe("kel.dstor.net." + what, {s(nic)}); }
  void clustering(const std::string& what) { driver.observe("kel.dstor.clmd." + what); }
  void mediumError(const char* disk) { driver.observe("kel.dstor.dom.errorfixed", {s("component"), s(disk)}); }

  support::Scenario scenario;
  support::Driver driver{scenario, keld::kDstorCorrelator};
};

using Case = scenario::DecisionCase<DstorScene>;

const std::vector<Case>& nicCases() {
  static const std::vector<Case> kCases = {
      {"anUnknownInterfaceIsNotReportedAsReady",
       [](DstorScene& scene) { scene.net("gotip", "qk0"); },
       {holds("dstor.nic.unknown", "qk0", "it was never known to lack an address: not reported")}},
      {"oneThatHadAnAddressIsNot",
       [](DstorScene& scene) {
         scene.net("created", "qk0");
         scene.scenario.decisions.take();
         scene.net("gotip", "qk0");
       },
       {holds("dstor.nic.had-address", "qk0", "it has an address already: not reported")}},
      {"oneThatLackedItIs",
       [](DstorScene& scene) {
         scene.net("noip", "qk0");
         scene.scenario.decisions.take();
         scene.net("gotip", "qk0");
       },
       {concludes("dstor.nic.lacked-address", "qk0", "it lacked an address until now: reported as ready")}},
      {"aLostAddressNamesAnInterfaceThatHasOne",
       [](DstorScene& scene) {
         scene.net("created", "qk0");
         scene.net("created", "qk1");
         scene.scenario.decisions.take();
         scene.net("noip", "qk0");
       },
       {concludes("dstor.nic.other-ready", "qk0", "it has no address, but qk1 has one")}},
      {"theLastAddressLostIsTheNetworks",
       [](DstorScene& scene) {
         scene.net("noip", "qk0");
         scene.scenario.decisions.take();
         scene.net("noip", "qk1");
       },
       {concludes("dstor.nic.none-ready", "qk1",
                  "none of the 2 known interfaces has an address: the event waits in the retry queue")}},
      {"aNewInterfaceAloneSaysNothingOfTheNetwork",
       [](DstorScene& scene) { scene.net("created", "qk0"); },
       {holds("dstor.nic.nothing-lost", "qk0",
              "neither lost connectivity nor a missing address is on record: only the interface is reported")}},
      {"oneThatLackedItsAddressBringsTheNetworkBack",
       [](DstorScene& scene) {
         scene.net("noip", "qk0");
         scene.scenario.decisions.take();
         scene.net("created", "qk0");
       },
       {concludes("dstor.nic.address-back", "qk0",
                  "it lacked an address until now: the network is reported as available")}},
      {"aNewInterfaceBringsLostConnectivityBack",
       [](DstorScene& scene) {
         scene.net("no.connectivity", "qk0");
         scene.scenario.decisions.take();
         scene.net("created", "qk1");
         scene.net("created", "qk1");
       },
       {concludes("dstor.nic.connectivity-back", "qk1",
                  "the connectivity that was reported as lost is there again: reported as available"),
        holds("dstor.nic.nothing-lost", "qk1",
              "neither lost connectivity nor a missing address is on record: only the interface is reported")}},
      {"oneInterfaceLeftIsNotRedundant",
       [](DstorScene& scene) {
         scene.net("created", "qk0");
         scene.net("created", "qk1");
         scene.scenario.decisions.take();
         scene.net("redundancy.reduced", "qk1");
       },
       {forgets("dstor.nic.dropped", "qk1", "no longer among the known interfaces"),
        concludes("dstor.nic.not-redundant", "qk1",
                  "known interfaces left: 1, redundant from 2 on: reported as lost")}},
      {"twoInterfacesLeftAre",
       [](DstorScene& scene) {
         scene.net("created", "qk0");
         scene.net("created", "qk1");
         scene.scenario.decisions.take();
         scene.net("redundancy.reduced", "qk2");
       },
       {concludes("dstor.nic.less-redundant", "qk2",
                  "known interfaces left: 2, redundant from 2 on: reported as reduced")}},
      {"lostConnectivityIsOnRecordAndTheInterfaceIsNot",
       [](DstorScene& scene) {
         scene.net("created", "qk0");
         scene.scenario.decisions.take();
         scene.net("no.connectivity", "qk0");
       },
       {forgets("dstor.nic.dropped", "qk0", "no longer among the known interfaces"),
        concludes("dstor.nic.no-connectivity", "qk0",
                  "all connectivity is lost, which is on record until an interface is created: the event waits in the "
                  "retry queue")}},
  };
  return kCases;
}

const std::vector<Case>& otherCases() {
  static const std::vector<Case> kCases = {
      {"clusteringIsClearedAtEachReturnOnceItWasReportedAsDisabled",
       [](DstorScene& scene) {
         scene.clustering("enabled");
         scene.clustering("disabled");
         scene.clustering("enabled");
         scene.clustering("enabled");
       },
       {concludes("dstor.clustering.enabled", "clustering", "it was never reported as disabled: audited, not cleared"),
        concludes("dstor.clustering.disabled", "clustering", "reported as disabled, which stays on record"),
        concludes("dstor.clustering.enabled-again", "clustering", "it was reported as disabled: cleared"),
        concludes("dstor.clustering.enabled-again", "clustering", "it was reported as disabled: cleared")}},
      {"aDisksFirstErrorIsReported",
       [](DstorScene& scene) { scene.mediumError("disk 1"); },
       {concludes("dstor.medium.first", "disk 1", "nothing was reported of it yet: reported", 3600)}},
      {"aDiskWithoutANameIsOneToo",
       [](DstorScene& scene) {
         scene.driver.observe("kel.dstor.dom.errorfixed", {s("component"), null()});
       },
       {concludes("dstor.medium.first", "", "nothing was reported of it yet: reported", 3600)}},
      {"anotherWithinAnHourIsHeldOff",
       [](DstorScene& scene) {
         scene.mediumError("disk 1");
         scene.driver.pass(3599s);
         scene.scenario.decisions.take();
         scene.mediumError("disk 1");
       },
       {holds("dstor.medium.held", "disk 1", "held off: last reported 3599 s ago, limit 3600 s")}},
      {"anHourAfterTheLastReportOneIsReported",
       [](DstorScene& scene) {
         scene.mediumError("disk 1");
         scene.driver.pass(3600s);
         scene.scenario.decisions.take();
         scene.mediumError("disk 1");
       },
       {concludes("dstor.medium.over", "disk 1", "reported: last reported 3600 s ago, limit 3600 s", 3600)}},
      {"unloadingForgetsWhatThereIs",
       [](DstorScene& scene) {
         scene.net("no.connectivity", "qk1");
         scene.net("noip", "qk0");
         scene.clustering("disabled");
         scene.mediumError("disk 1");
         scene.scenario.decisions.take();
         scene.clustering("unloaded");
       },
       {forgets("dstor.nic.dropped", "qk0", "no longer among the known interfaces"),
        forgets("dstor.network.forgotten", "network",
                "the service was unloaded: the lost connectivity is on record no more"),
        forgets("dstor.clustering.forgotten", "clustering", "the service was unloaded: on record as disabled no more"),
        forgets("dstor.medium.forgotten", "disk 1", "the service was unloaded: held off no more")}},
      {"whatIsForgottenBeginsAnew",
       [](DstorScene& scene) {
         scene.mediumError("disk 1");
         scene.clustering("unloaded");
         scene.scenario.decisions.take();
         scene.clustering("unloaded");
         scene.mediumError("disk 1");
       },
       {concludes("dstor.medium.first", "disk 1", "nothing was reported of it yet: reported", 3600)}},
  };
  return kCases;
}

class DstorDecision : public testing::TestWithParam<Case> {};

TEST_P(DstorDecision, isToldWithItsNumbers) {
  scenario::expectTold(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Interfaces, DstorDecision, testing::ValuesIn(nicCases()), scenario::kCaseName);
INSTANTIATE_TEST_SUITE_P(Others, DstorDecision, testing::ValuesIn(otherCases()), scenario::kCaseName);

TEST(DstorDecisions, areAllInTheCases) {
  std::vector<Case> cases = nicCases();
  cases.insert(cases.end(), otherCases().begin(), otherCases().end());
  scenario::expectAllInCases(keld::kDstorCorrelator, "dstor", cases);
}

}  // namespace
