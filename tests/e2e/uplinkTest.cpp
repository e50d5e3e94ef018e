// One NIC's failure and recovery as a host has them, in real time.
#include "endToEnd.h"

namespace e2e {
namespace {

using support::i, support::s;

class Uplink : public EndToEnd {};

TEST_F(Uplink, ANicThatFailsAndRecoversYieldsOneEventPerKindOfLossAndOfRestoring) {
  workspace().setModel(R"({"portGroups": {"Management": "vSwitch0", "Production": "vSwitch0", "Backup": "vSwitch0"}})");
  EventReceiver agent(workspace().eventSocket());
  Daemon daemon(workspace());
  daemon.startAndServe();
  const Emitter emitter = Emitter::toContext(workspace());

  emitter.send(
      joined(record("kel.net.qnic.linkstate.down", {s("qnic0")}),
             joined(record("kel.net.pg.uplink.transition.down", {s("qnic0"), s("Management"), i(2), i(3)}),
                    joined(record("kel.net.pg.uplink.transition.down", {s("qnic0"), s("Production"), i(1), i(3)}),
                           record("kel.net.pg.uplink.transition.down", {s("qnic0"), s("Backup"), i(0), i(3)})))));
  agent.waitForCount(3);
  emitter.send("kel.net.qnic.linkstate.up", {s("qnic0")});
  emitter.send("kel.net.pg.uplink.transition.up", {s("qnic0"), s("Management"), i(3)});
  emitter.send("kel.net.pg.uplink.transition.up", {s("qnic0"), s("Production"), i(2)});
  emitter.send("kel.net.pg.uplink.transition.up", {s("qnic0"), s("Backup"), i(1)});
  const std::vector<EventRecord> records = agent.waitForCount(5);
  ASSERT_TRUE(daemon.terminate().with(0));
  EXPECT_EQ(agent.count(), 5U);

  const std::vector<std::pair<std::string, std::string>> expected{
      {"orn.problem.net.connectivity.lost",
       R"(Lost network connectivity on virtual switch "vSwitch0". Physical NIC qnic0 is down. Affected port groups: "Backup")"},
      {"orn.problem.net.redundancy.lost",
       R"(Lost uplink redundancy on virtual switch "vSwitch0". Physical NIC qnic0 is down. Affected port groups: "Production")"},
      {"orn.problem.net.redundancy.degraded",
       R"(Uplink redundancy degraded on virtual switch "vSwitch0". Physical NIC qnic0 is down. Affected port groups: "Management")"},
      {"orn.clear.net.connectivity.restored",
       R"(Network connectivity restored on virtual switch "vSwitch0", portgroups: "Backup". Physical NIC qnic0 is up)"},
      {"orn.clear.net.redundancy.restored",
       R"(Uplink redundancy restored on virtual switch "vSwitch0", portgroups: "Management", "Production". Physical NIC qnic0 is up)"},
  };
  for (std::size_t n = 0; n < expected.size(); ++n) {
    const auto& [name, text] = expected[n];
    EXPECT_EQ(records[n].name, name);
    log().waitFor(observationLine("netCorrelator", records[n].timestampUs, name, text));
  }
}

TEST_F(Uplink, AFlappingNicIsTakenDownAfterMoreLossesThanTheThreshold) {
  workspace().setModel(R"({"options": {"Net/LinkFlappingThreshold": 3}})");
  EventReceiver agent(workspace().eventSocket());
  Daemon daemon(workspace());
  daemon.startAndServe();
  const Emitter emitter = Emitter::toContext(workspace());
  for (int n = 0; n < 3; ++n) emitter.send("kel.net.qnic.linkstate.down", {s("qnic0")});
  settle(daemon, emitter);
  EXPECT_TRUE(workspace().hostActions().empty());
  emitter.send("kel.net.qnic.linkstate.down", {s("qnic0")});
  const EventRecord record = agent.waitFor("orn.problem.net.qnic.linkstate.flapping");
  EXPECT_EQ(workspace().hostActions(), std::vector<std::string>{R"({"action":"nic.down","nic":"qnic0"})"});
  log().waitFor(observationLine("netCorrelator", record.timestampUs, record.name,
                                "Taking down physical NIC qnic0 because the link is flapping."));
}

}  // namespace
}  // namespace e2e
