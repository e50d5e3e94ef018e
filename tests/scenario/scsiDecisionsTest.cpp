#include <string>

#include "decisionCases.h"
#include "modelHost.h"

namespace {

using namespace std::chrono_literals;
using support::concludes;
using support::counts;
using support::forgets;
using support::holds;
using support::s;

/// Path p1 of device naa.1.
struct ScsiScene {
  ScsiScene() {
    redundancy(1);
    driver.observe("kel.scsi.scsipath.add", {s("p0")});
    driver.observe("kel.scsi.scsipath.por", {s("p0")});
    skip();  // the very first counts are taken away at once
  }
  void redundancy(int state, const std::string& failures = "{}") const {
    host.write(R"({"storage":{"paths":{"p1":"naa.1"},"devices":{"naa.1":{"redundancyState":)" + std::to_string(state) +
               R"(,"disk":true,"partitions":[]},"naa.2":{"redundancyState":1}}},"failures":)" + failures + "}");
  }
  void change(const std::string& before, const std::string& now) {
    driver.observe("kel.scsi.scsipath.pathstate." + now, {s("p1"), s(before)});
  }
  void reset(const std::string& name) { driver.observe("kel.scsi.scsipath.por", {s(name)}); }
  void add() { driver.observe("kel.scsi.scsipath.add", {s("p1")}); }
  void remove() { driver.observe("kel.scsi.scsipath.remove", {s("p1")}); }
  void down() { change("on", "dead"); }
  void up() { change("off", "standby"); }
  void changes(int number) {
    for (int n = 0; n < number; ++n) change("unknown", "on");
  }
  /// What was decided so far is not asked for.
  void skip() { scenario.decisions.take(); }

  support::ModelHost host;
  support::Scenario scenario;
  support::Driver driver{scenario, keld::kScsiCorrelator};
};

support::ToldDecision first() {
  return counts("scsi.frequency.below", "p1", "counted: 1 of 10 state changes");
}
support::ToldDecision second() {
  return counts("scsi.frequency.below", "p1", "counted: 2 of 10 state changes");
}

using ScsiCase = scenario::DecisionCase<ScsiScene>;

const std::vector<ScsiCase> kCases = {
    {"aStateThatWasNotUsableIsNoLoss",
     [](ScsiScene& scsi) { scsi.change("dead", "off"); },
     {first(), holds("scsi.path.was-not-usable", "p1", "no event: previous state \"dead\" was not usable")}},
    {"aStateThatWasNotDownIsNoReturn",
     [](ScsiScene& scsi) { scsi.change("standby", "on"); },
     {first(), holds("scsi.path.was-not-down", "p1", "no event: previous state \"standby\" was not down")}},
    {"aPathWithoutADevice",
     [](ScsiScene& scsi) {
       scsi.redundancy(1, R"({"path.lookup":5})");
       scsi.down();
       scsi.up();
     },
     {first(), holds("scsi.path.unknown", "p1", "no event: the path's device cannot be looked up"), second(),
      holds("scsi.path.unknown", "p1", "no event: the path's device cannot be looked up")}},
    {"aDeviceThatIsNotKnown",
     [](ScsiScene& scsi) {
       scsi.redundancy(1, R"({"device.lookup":5})");
       scsi.down();
     },
     {first(), holds("scsi.path.device-unknown", "p1", "no event: device naa.1 cannot be looked up")}},
    {"aRedundancyStateThatIsNotTold",
     [](ScsiScene& scsi) {
       scsi.redundancy(0);
       scsi.down();
     },
     {first(),
      holds("scsi.path.redundancy-not-told", "p1", "no event: redundancy state 0 of device naa.1 tells nothing")}},
    {"theRedundancyStateSaysWhatIsLost",
     [](ScsiScene& scsi) {
       for (const int state : {1, 2, 3, 4}) {
         scsi.redundancy(state);
         scsi.down();
       }
     },
     {first(), concludes("scsi.path.connectivity-lost", "p1", "redundancy state 1 of device naa.1: connectivity lost"),
      second(), concludes("scsi.path.redundancy-lost", "p1", "redundancy state 2 of device naa.1: redundancy lost"),
      counts("scsi.frequency.below", "p1", "counted: 3 of 10 state changes"),
      concludes("scsi.path.redundancy-degraded", "p1", "redundancy state 3 of device naa.1: redundancy degraded"),
      counts("scsi.frequency.below", "p1", "counted: 4 of 10 state changes"),
      holds("scsi.path.odd-state", "p1",
            "no event: redundancy state 4 of device naa.1 is none that is reported; the path counts as reported "
            "down")}},
    {"aReturnWithoutAStateUsesUpTheReport",
     [](ScsiScene& scsi) {
       scsi.down();
       scsi.redundancy(0);
       scsi.skip();
       scsi.up();
       scsi.up();
     },
     {second(), forgets("scsi.path.mark-dropped", "p1", "no longer counts as reported down for device naa.1"),
      holds("scsi.path.redundancy-not-told", "p1", "no event: redundancy state 0 of device naa.1 tells nothing"),
      counts("scsi.frequency.below", "p1", "counted: 3 of 10 state changes"),
      holds("scsi.path.not-reported-down", "p1", "no event: the path was not reported down for device naa.1")}},
    {"aPathThatWasNotReportedDownIsNoReturn",
     [](ScsiScene& scsi) { scsi.up(); },
     {first(),
      holds("scsi.path.not-reported-down", "p1", "no event: the path was not reported down for device naa.1")}},
    {"twoUsablePathsAreRedundancy",
     [](ScsiScene& scsi) {
       scsi.redundancy(9);
       scsi.down();
       scsi.scenario.timers.advance(61s);
       scsi.redundancy(3);
       scsi.skip();
       scsi.up();
     },
     {forgets("scsi.frequency.aged", "p1",
              "its count of 2 is set to 0, as all below 10 are: last done 61 s ago, limit 60 s"),
      counts("scsi.frequency.below", "p1", "counted: 0 of 10 state changes"),
      forgets("scsi.path.mark-dropped", "p1", "no longer counts as reported down for device naa.1"),
      concludes("scsi.path.redundancy-restored", "p1", "redundancy state 3 of device naa.1: redundancy restored")}},
    {"oneUsablePathIsConnectivityAndNoneIsNothing",
     [](ScsiScene& scsi) {
       scsi.down();
       scsi.skip();
       scsi.up();
       scsi.down();
       scsi.redundancy(2);
       scsi.up();
     },
     {second(), forgets("scsi.path.mark-dropped", "p1", "no longer counts as reported down for device naa.1"),
      holds("scsi.path.still-lost", "p1", "no event: redundancy state 1 of device naa.1: no usable path"),
      counts("scsi.frequency.below", "p1", "counted: 3 of 10 state changes"),
      concludes("scsi.path.connectivity-lost", "p1", "redundancy state 1 of device naa.1: connectivity lost"),
      counts("scsi.frequency.below", "p1", "counted: 4 of 10 state changes"),
      forgets("scsi.path.mark-dropped", "p1", "no longer counts as reported down for device naa.1"),
      concludes("scsi.path.connectivity-restored", "p1", "redundancy state 2 of device naa.1: connectivity restored")}},
    {"theTenthChangeIsReportedAndTheEleventhIsNot",
     [](ScsiScene& scsi) {
       scsi.changes(8);
       scsi.skip();
       scsi.changes(3);
     },
     {counts("scsi.frequency.below", "p1", "counted: 9 of 10 state changes"),
      holds("scsi.path.was-not-down", "p1", "no event: previous state \"unknown\" was not down"),
      counts("scsi.frequency.reached", "p1", "counted: 10 of 10 state changes, which are worth a report"),
      concludes("scsi.frequency.changes", "p1", "frequent state changes reported, device naa.1"),
      holds("scsi.path.was-not-down", "p1", "no event: previous state \"unknown\" was not down"),
      holds("scsi.frequency.above", "p1",
            "no event: counted 11, more than the 10 state changes that are reported once"),
      holds("scsi.path.was-not-down", "p1", "no event: previous state \"unknown\" was not down")}},
    {"theTenthChangeOfAPathWithoutADeviceIsNotReported",
     [](ScsiScene& scsi) {
       scsi.redundancy(1, R"({"path.lookup":5})");
       scsi.changes(9);
       scsi.skip();
       scsi.changes(1);
     },
     {counts("scsi.frequency.reached", "p1", "counted: 10 of 10 state changes, which are worth a report"),
      holds("scsi.path.unknown", "p1", "no event: the path's device cannot be looked up"),
      holds("scsi.path.was-not-down", "p1", "no event: previous state \"unknown\" was not down")}},
    {"countsAreSetBackOnceInMoreThanAMinute",
     [](ScsiScene& scsi) {
       scsi.changes(1);
       scsi.scenario.timers.advance(60s);
       scsi.skip();
       scsi.down();
       scsi.scenario.timers.advance(1s);
       scsi.add();
     },
     {second(), concludes("scsi.path.connectivity-lost", "p1", "redundancy state 1 of device naa.1: connectivity lost"),
      forgets("scsi.frequency.aged", "p1",
              "its count of 3 is set to 0, as all below 10 are: last done 61 s ago, limit 60 s"),
      counts("scsi.frequency.below", "p1", "counted: 0 of 10 state changes")}},
    {"theVeryFirstCountIsTakenAway",
     [](ScsiScene& scsi) {
       support::Driver fresh(scsi.scenario, keld::kScsiCorrelator);
       fresh.observe("kel.scsi.scsipath.pathstate.on", {s("p1"), s("on")});
     },
     {forgets("scsi.frequency.first-aged", "p1", "its count of 1 is set to 0, as all below 10 are: never done before"),
      counts("scsi.frequency.below", "p1", "counted: 0 of 10 state changes"),
      holds("scsi.path.was-not-down", "p1", "no event: previous state \"on\" was not down")}},
    {"allCountsAreDroppedOnceInMoreThanTenMinutes",
     [](ScsiScene& scsi) {
       scsi.changes(10);
       scsi.scenario.timers.advance(600s);
       scsi.skip();
       scsi.add();
       scsi.scenario.timers.advance(1s);
       scsi.add();
     },
     {holds("scsi.frequency.above", "p1",
            "no event: counted 11, more than the 10 state changes that are reported once"),
      forgets("scsi.frequency.reset", "p1", "its count of 11 is dropped, as all are: last done 601 s ago, limit 600 s"),
      counts("scsi.frequency.below", "p1", "counted: 0 of 10 state changes")}},
    {"aPathThatIsRemovedLosesItsCount",
     [](ScsiScene& scsi) {
       scsi.add();
       scsi.add();
       scsi.remove();
       scsi.remove();
     },
     {counts("scsi.frequency.below", "p1", "counted: 0 of 10 state changes"), first(),
      forgets("scsi.frequency.removed", "p1", "removed: its count of 1 is dropped"),
      forgets("scsi.frequency.not-counted", "p1", "removed: it had no count")}},
    {"theTenthPowerOnResetIsReportedOfThePathOrTheDevice",
     [](ScsiScene& scsi) {
       for (int n = 0; n < 9; ++n) {
         scsi.reset("p1");
         scsi.reset("naa.2");
         scsi.reset("naa.3");
       }
       scsi.skip();
       scsi.reset("p1");
       scsi.reset("naa.2");
       scsi.reset("naa.3");
     },
     {counts("scsi.frequency.reached", "p1", "counted: 10 of 10 power-on resets, which are worth a report"),
      concludes("scsi.frequency.path-resets", "p1", "frequent power-on resets reported, device naa.1"),
      counts("scsi.frequency.reached", "naa.2", "counted: 10 of 10 power-on resets, which are worth a report"),
      concludes("scsi.frequency.device-resets", "naa.2",
                "frequent power-on resets reported of the device, as no path has this name"),
      counts("scsi.frequency.reached", "naa.3", "counted: 10 of 10 power-on resets, which are worth a report"),
      holds("scsi.path.device-unknown", "naa.3", "no event: device naa.3 cannot be looked up")}},
};

class ScsiDecisions : public testing::TestWithParam<ScsiCase> {};

TEST_P(ScsiDecisions, isTold) {
  scenario::expectTold(GetParam());
}
INSTANTIATE_TEST_SUITE_P(Cases, ScsiDecisions, testing::ValuesIn(kCases), scenario::kCaseName);

TEST(ScsiDecisionsList, leavesNoneOut) {
  scenario::expectAllInCases(keld::kScsiCorrelator, "scsi", kCases);
}

}  // namespace
