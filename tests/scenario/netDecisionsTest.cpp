#include <string>

#include "decisionCases.h"
#include "keldNetCorrelator.h"
#include "modelHost.h"

namespace {

using namespace std::chrono_literals;
using scenario::Told;
using support::acts;
using support::concludes;
using support::counts;
using support::forgets;
using support::holds;
using support::i;
using support::s;
using support::waits;

constexpr const char* kHost = R"({"portGroups":{"A":"sw0","B":"sw0","C":"sw0","D":"sw0"}})";

struct NetScene {
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
  void tso() { driver.observe("kel.net.e1000.tso6.notsupported", {i(12)}); }
  void threshold(const std::string& value, const std::string& failures = "{}") const {
    host.write(R"({"options":{"Net/LinkFlappingThreshold":)" + value + R"(},"failures":)" + failures + "}");
  }
  /// What was decided so far is not asked for.
  void skip() { scenario.decisions.take(); }

  support::ModelHost host{kHost};
  support::Scenario scenario;
  keld::NetCorrelator net{scenario.services, [this] { net.expire(); }};
  support::Driver driver{scenario, net.handlers()};
};

using NetCase = scenario::DecisionCase<NetScene>;

const std::vector<NetCase> kCases = {
    {"aTransitionWaitsForTwoSeconds",
     [](NetScene& net) {
       net.pgDown("nic0", "A", 0);
       net.pgUp("nic1", "B", 2);
       net.dvDown("nic2", "p1", 1);
       net.dvUp("nic3", "p2", -1);
     },
     {waits("net.transition.waits", "nic0",
            "\"A\" is put on record as port group down (active uplinks: 0), to be settled in 2 s", 2),
      waits("net.transition.waits", "nic1",
            "\"B\" is put on record as port group up (active uplinks: 2), to be settled in 2 s", 2),
      waits("net.transition.waits", "nic2",
            "\"dvs/p1\" is put on record as DVPort down (active uplinks: 1), to be settled in 2 s", 2),
      waits("net.transition.waits", "nic3",
            "\"dvs/p2\" is put on record as DVPort up (active uplinks: -1), to be settled in 2 s", 2)}},
    {"laterTransitionsJoinTheRecordThatWaits",
     [](NetScene& net) {
       net.pgDown("nic0", "A", 1);
       net.driver.pass(1s);
       net.skip();
       net.pgDown("nic0", "B", 2);
       net.pgDown("nic0", "C", 0);
     },
     {counts("net.transition.joins", "nic0",
             "\"B\", port group down (active uplinks: 2), joins the record of 1 transitions that waits"),
      counts("net.transition.joins", "nic0",
             "\"C\", port group down (active uplinks: 0), joins the record of 2 transitions that waits")}},
    {"aTransitionThatJoinsWhatWasKeptHasNoTimer",
     [](NetScene& net) {
       net.pgUp("nic0", "X", 2);
       net.driver.pass(2s);
       net.skip();
       net.pgUp("nic0", "A", 1);
     },
     {holds("net.transition.left", "nic0",
            "\"A\", port group up (active uplinks: 1), joins 1 transitions left on record, which no timer of their own "
            "settles")}},
    {"aLinkWaitsForASecond",
     [](NetScene& net) {
       net.linkUp("nic0");
       net.linkDown("nic0");
     },
     {waits("net.link.waits", "nic0", "put on record as link up, to be settled in 1 s", 1),
      holds("net.flapping.off", "nic0",
            "link-downs within 60 s: 1; option Net/LinkFlappingThreshold is 0, nothing is done"),
      waits("net.link.waits", "nic0", "put on record as link down, to be settled in 1 s", 1)}},
    {"aLinkIsNotPutOnRecordBesideTransitions",
     [](NetScene& net) {
       net.pgUp("nic0", "A", 1);
       net.dvUp("nic1", "p1", 1);
       net.skip();
       net.linkUp("nic0");
       net.linkUp("nic1");
     },
     {holds("net.link.covered", "nic0", "link up is not put on record: port group up on record speaks for the link"),
      holds("net.link.covered", "nic1", "link up is not put on record: DVPort up on record speaks for the link")}},
    {"aWatchdogTimeOutWaitsForSevenSeconds",
     [](NetScene& net) { net.watchdog("nic0"); },
     {waits("net.watchdog.waits", "nic0", "watchdog time-out: reports of this NIC are held back, to be settled in 7 s",
            7)}},
    {"aRecordThatIsDueEarlierMovesTheTimer",
     [](NetScene& net) {
       net.watchdog("nic0");
       net.driver.pass(2s);
       net.skip();
       net.linkUp("nic1");
     },
     {waits("net.timer.moved", "nic1",
            "the timer that settles all records is set anew: it fires in 3 s, before that in 5 s"),
      waits("net.link.waits", "nic1", "put on record as link up, to be settled in 3 s", 3)}},
    {"aRecordThatIsNotDueEarlierLeavesTheTimer",
     [](NetScene& net) {
       net.watchdog("nic0");
       net.driver.pass(5s);
       net.skip();
       net.pgUp("nic1", "A", 1);
       net.driver.pass(1s);
       net.linkUp("nic2");
       net.linkUp("nic0");
     },
     {waits("net.transition.waits", "nic1",
            "\"A\" is put on record as port group up (active uplinks: 1), to be settled in 2 s", 2),
      waits("net.link.waits", "nic2", "put on record as link up, to be settled in 1 s", 1),
      waits("net.link.waits", "nic0", "put on record as link up, to be settled in 1 s", 1)}},
    {"aClockSetBackMakesARecordWaitForTheTimer",
     [](NetScene& net) {
       net.watchdog("nic0");
       net.scenario.clock.correct(net.scenario.clock.wall() - 10s);
       net.skip();
       net.linkUp("nic1");
     },
     {waits("net.link.waits", "nic1", "put on record as link up, to be settled in 17 s", 17)}},
    {"aPassLeavesWhatIsNotDue",
     [](NetScene& net) {
       net.watchdog("nic0");
       net.linkUp("nic1");
       net.skip();
       net.driver.pass(1s);
     },
     {waits("net.timer.not-due", "nic0", "watchdog time-out is not due for 6 s"),
      concludes("net.link.reported", "nic1", "link up is due and nothing else speaks for the link: reported"),
      concludes("net.connectivity.restored", "nic1",
                "no loss of connectivity is on record: reported restored, 0 named"),
      concludes("net.redundancy.restored", "nic1", "no loss of redundancy is on record: reported restored, 0 named")}},
    {"theWatchdogSwallowsTransitionsAndLinks",
     [](NetScene& net) {
       net.watchdog("nic0");
       net.pgUp("nic0", "A", 1);
       net.dvDown("nic0", "p1", 1);
       net.driver.pass(1s);
       net.skip();
       net.driver.pass(1s);
       net.linkDown("nic0");
       net.linkUp("nic0");
     },
     {waits("net.timer.not-due", "nic0", "watchdog time-out is not due for 5 s"),
      holds("net.watchdog.swallows", "nic0", "port group up is due: the watchdog's hold on this NIC swallows it"),
      holds("net.watchdog.swallows", "nic0", "DVPort down is due: the watchdog's hold on this NIC swallows it"),
      holds("net.flapping.off", "nic0",
            "link-downs within 60 s: 1; option Net/LinkFlappingThreshold is 0, nothing is done"),
      holds("net.link.covered", "nic0", "link down is not put on record: DVPort down on record speaks for the link"),
      holds("net.link.covered", "nic0", "link up is not put on record: port group up on record speaks for the link")}},
    {"theWatchdogSwallowsALink",
     [](NetScene& net) {
       net.watchdog("nic0");
       net.linkUp("nic0");
       net.linkDown("nic0");
       net.skip();
       net.driver.pass(1s);
     },
     {waits("net.timer.not-due", "nic0", "watchdog time-out is not due for 6 s"),
      holds("net.watchdog.swallows", "nic0", "link up is due: the watchdog's hold on this NIC swallows it"),
      holds("net.watchdog.swallows", "nic0", "link down is due: the watchdog's hold on this NIC swallows it")}},
    {"aLinkThatIsDueIsOvertakenByTransitions",
     [](NetScene& net) {
       net.linkUp("nic0");
       net.pgUp("nic0", "A", 1);
       net.linkDown("nic1");
       net.dvDown("nic1", "p1", 1);
       net.skip();
       net.driver.pass(1s);
     },
     {holds("net.link.overtaken", "nic0", "link up is due: port group up on record speaks for the link"),
      waits("net.timer.not-due", "nic0", "port group up is not due for 1 s"),
      holds("net.link.overtaken", "nic1", "link down is due: DVPort down on record speaks for the link"),
      waits("net.timer.not-due", "nic1", "DVPort down is not due for 1 s")}},
    {"aLinkThatIsDueAloneIsReported",
     [](NetScene& net) {
       net.linkDown("nic0");
       net.skip();
       net.driver.pass(1s);
     },
     {concludes("net.link.reported", "nic0", "link down is due and nothing else speaks for the link: reported")}},
    {"aWatchdogTimeOutWithNothingDownIsSilent",
     [](NetScene& net) {
       net.watchdog("nic0");
       net.skip();
       net.driver.pass(7s);
     },
     {holds("net.watchdog.nothing-down", "nic0",
            "watchdog time-out is due: nothing is down on record, no event; the NIC stays silent until a reset")}},
    {"downAndUpAtTheWatchdogsSecondAreAReset",
     [](NetScene& net) {
       net.watchdog("nic0");
       net.pgDown("nic0", "A", 0);
       net.dvUp("nic0", "p1", 1);
       net.driver.pass(6s);
       net.skip();
       net.driver.pass(1s);
     },
     {concludes("net.watchdog.reset", "nic0",
                "watchdog time-out is due: port group down and DVPort up are on record, which a reset takes the place "
                "of")}},
    {"downAloneAtTheWatchdogsSecondIsReported",
     [](NetScene& net) {
       net.watchdog("nic0");
       net.dvDown("nic0", "p1", 0);
       net.driver.pass(6s);
       net.skip();
       net.driver.pass(1s);
     },
     {concludes("net.watchdog.down", "nic0",
                "watchdog time-out is due: DVPort down is on record and nothing up, reported; the NIC stays silent "
                "until a reset"),
      concludes("net.loss.connectivity", "nic0", "active uplinks of \"dvs/p1\": 0, connectivity lost")}},
    {"aLinkDownAloneAtTheWatchdogsSecondIsReported",
     [](NetScene& net) {
       net.watchdog("nic0");
       net.driver.pass(6s);
       net.scenario.clock.pass(1s);  // the pass that is due has not run yet
       net.linkDown("nic0");
       net.skip();
       net.scenario.timers.fireDue();
     },
     {concludes("net.watchdog.down", "nic0",
                "watchdog time-out is due: link down is on record and nothing up, reported; the NIC stays silent until "
                "a reset"),
      waits("net.timer.not-due", "nic0", "link down is not due for 1 s")}},
    {"aRecordWhoseTransitionsAResetDroppedFindsNone",
     [](NetScene& net) {
       net.watchdog("nic0");
       net.driver.pass(6s);
       net.pgDown("nic0", "A", 0);
       net.pgUp("nic0", "A", 1);
       net.driver.pass(1s);
       net.skip();
       net.driver.pass(1s);
     },
     {holds("net.transition.gone", "nic0", "port group down is due: none is on record any more"),
      holds("net.transition.gone", "nic0", "port group up is due: none is on record any more")}},
    {"aDvPortRecordWhoseTransitionsAResetDroppedFindsNone",
     [](NetScene& net) {
       net.watchdog("nic0");
       net.driver.pass(6s);
       net.dvDown("nic0", "p1", 0);
       net.dvUp("nic0", "p1", 0);
       net.driver.pass(1s);
       net.skip();
       net.driver.pass(1s);
     },
     {holds("net.transition.gone", "nic0", "DVPort down is due: none is on record any more"),
      holds("net.recovery.ignored", "nic0", "active uplinks of \"dvs/p1\": 0, which restores nothing")}},
    {"anUnknownSwitchKeepsTheTransitions",
     [](NetScene& net) {
       net.pgDown("nic0", "X", 0);
       net.pgDown("nic0", "A", 0);
       net.pgUp("nic1", "Y", 1);
       net.skip();
       net.driver.pass(2s);
     },
     {holds("net.switch.unknown", "nic0",
            "port group \"X\": its switch cannot be looked up, 2 transitions are kept on record"),
      holds("net.switch.unknown", "nic1",
            "port group \"Y\": its switch cannot be looked up, 1 transitions are kept on record")}},
    {"activeUplinksSayWhatIsLost",
     [](NetScene& net) {
       net.pgDown("nic0", "A", -1);
       net.pgDown("nic0", "B", 0);
       net.pgDown("nic0", "C", 1);
       net.pgDown("nic0", "D", 2);
       net.skip();
       net.driver.pass(2s);
     },
     {holds("net.loss.ignored", "nic0", "active uplinks of \"A\": -1, which is no loss"),
      concludes("net.loss.connectivity", "nic0", "active uplinks of \"B\": 0, connectivity lost"),
      concludes("net.loss.redundancy", "nic0", "active uplinks of \"C\": 1, redundancy lost"),
      concludes("net.loss.degraded", "nic0", "active uplinks of \"D\": 2, redundancy degraded")}},
    {"activeUplinksSayWhatIsBack",
     [](NetScene& net) {
       net.pgUp("nic0", "A", 0);
       net.pgUp("nic0", "B", 1);
       net.pgUp("nic0", "C", 2);
       net.skip();
       net.driver.pass(2s);
     },
     {holds("net.recovery.ignored", "nic0", "active uplinks of \"A\": 0, which restores nothing"),
      counts("net.recovery.connected", "nic0", "active uplinks of \"B\": 1, connectivity is back"),
      counts("net.recovery.redundant", "nic0", "active uplinks of \"C\": 2, redundancy is back"),
      concludes("net.connectivity.restored", "nic0",
                "no loss of connectivity is on record: reported restored, 1 named"),
      concludes("net.redundancy.restored", "nic0", "no loss of redundancy is on record: reported restored, 1 named")}},
    {"lossesOfAnotherNicHoldTheRestoredEventsBack",
     [](NetScene& net) {
       net.pgDown("nic1", "C", 0);
       net.pgDown("nic1", "D", 1);
       net.driver.pass(2s);
       net.dvUp("nic0", "p1", 1);
       net.dvUp("nic0", "p2", 2);
       net.dvUp("nic0", "p3", 3);
       net.skip();
       net.driver.pass(2s);
     },
     {counts("net.recovery.connected", "nic0", "active uplinks of \"dvs/p1\": 1, connectivity is back"),
      counts("net.recovery.redundant", "nic0", "active uplinks of \"dvs/p2\": 2, redundancy is back"),
      counts("net.recovery.redundant", "nic0", "active uplinks of \"dvs/p3\": 3, redundancy is back"),
      holds("net.connectivity.still-lost", "nic0",
            "losses of connectivity on record: 1; none is reported restored while there is one"),
      holds("net.redundancy.still-lost", "nic0",
            "losses of redundancy on record: 1; recoveries that wait until there is none: 2")}},
    {"aRecoveryTakesLossesOffTheRecord",
     [](NetScene& net) {
       net.pgDown("nic0", "A", 0);
       net.pgDown("nic0", "B", 1);
       net.dvDown("nic0", "p1", 0);
       net.driver.pass(2s);
       net.pgUp("nic0", "A", 2);
       net.skip();
       net.driver.pass(2s);
     },
     {counts("net.recovery.redundant", "nic0", "active uplinks of \"A\": 2, redundancy is back"),
      forgets("net.losses.cleared", "nic0", "losses taken off the record: 3"),
      concludes("net.redundancy.restored", "nic0", "no loss of redundancy is on record: reported restored, 1 named")}},
    {"aLinkUpTakesTheLossesOfItsNicOffTheRecordOnly",
     [](NetScene& net) {
       net.pgDown("nic0", "A", 0);
       net.dvDown("nic0", "p1", 1);
       net.pgDown("nic1", "B", 0);
       net.pgDown("nic1", "C", 1);
       net.driver.pass(2s);
       net.linkUp("nic0");
       net.skip();
       net.driver.pass(1s);
     },
     {concludes("net.link.reported", "nic0", "link up is due and nothing else speaks for the link: reported"),
      forgets("net.losses.cleared", "nic0", "losses taken off the record: 2"),
      holds("net.connectivity.still-lost", "nic0",
            "losses of connectivity on record: 1; none is reported restored while there is one"),
      holds("net.redundancy.still-lost", "nic0",
            "losses of redundancy on record: 1; recoveries that wait until there is none: 0")}},
    {"linkDownsAreCountedUpToTheThreshold",
     [](NetScene& net) {
       net.threshold("2");
       net.linkDown("nic0");
       net.driver.pass(60s);
       net.skip();
       net.linkDown("nic0");  // the one at second 0 is still in the window
       net.driver.pass(1s);
       net.linkDown("nic0");  // now it is not
       net.linkDown("nic0");
       net.linkDown("nic0");
     },
     {counts("net.flapping.below", "nic0", "link-downs within 60 s: 2; the NIC is taken down above 2", 60),
      waits("net.link.waits", "nic0", "put on record as link down, to be settled in 1 s", 1),
      concludes("net.link.reported", "nic0", "link down is due and nothing else speaks for the link: reported"),
      counts("net.flapping.below", "nic0", "link-downs within 60 s: 2; the NIC is taken down above 2", 60),
      waits("net.link.waits", "nic0", "put on record as link down, to be settled in 1 s", 1),
      acts("net.flapping.taken-down", "nic0",
           "link-downs within 60 s: 3, above 2; the NIC is taken down, and counting starts afresh"),
      waits("net.link.waits", "nic0", "put on record as link down, to be settled in 1 s", 1),
      counts("net.flapping.below", "nic0", "link-downs within 60 s: 1; the NIC is taken down above 2", 60),
      waits("net.link.waits", "nic0", "put on record as link down, to be settled in 1 s", 1)}},
    {"aNicThatIsNotTakenDownIsCountedAfresh",
     [](NetScene& net) {
       net.threshold("0", R"({"nic.down":5})");
       net.linkDown("nic0");
       net.threshold("1", R"({"nic.down":5})");
       net.skip();
       net.linkDown("nic0");
     },
     {acts("net.flapping.refused", "nic0",
           "link-downs within 60 s: 2, above 1; the host did not take the NIC down: no event, and counting starts "
           "afresh"),
      waits("net.link.waits", "nic0", "put on record as link down, to be settled in 1 s", 1)}},
    {"anUnreadableThresholdIsSaid",
     [](NetScene& net) {
       net.threshold("1", R"({"option.read:Net/LinkFlappingThreshold":5})");
       net.linkDown("nic0");
     },
     {holds("net.flapping.unread", "nic0",
            "link-downs within 60 s: 1; option Net/LinkFlappingThreshold cannot be read, nothing is done"),
      waits("net.link.waits", "nic0", "put on record as link down, to be settled in 1 s", 1)}},
    {"aVmIsLookedUpByItsGroup",
     [](NetScene& net) {
       net.tso();
       net.host.write(R"({"vms":[{"worldId":1,"groupId":12,"name":"web01"}]})");
       net.tso();
     },
     {holds("net.tso.vm-unknown", "12", "no event: no VM of this group can be looked up"),
      concludes("net.tso.named", "12", "the VM of this group is \"web01\"")}},
};

class NetDecisions : public testing::TestWithParam<NetCase> {};

TEST_P(NetDecisions, isTold) {
  scenario::expectTold(GetParam());
}
INSTANTIATE_TEST_SUITE_P(Cases, NetDecisions, testing::ValuesIn(kCases), scenario::kCaseName);

TEST(NetDecisionsList, leavesNoneOut) {
  scenario::expectAllInCases(keld::kNetCorrelator, "net", kCases);
}

}  // namespace
