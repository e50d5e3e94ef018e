// The daemon on this machine's own kernel: NICs of a private network namespace lose their carrier for real.
#include "endToEnd.h"
#include "netns.h"

namespace e2e {
namespace {

using support::ip;

/// A bridge with three NICs, whose other ends play the physical switch.
class OnLinux : public EndToEnd {
 protected:
  void SetUp() override {
    if (!namespace_.refusal().empty()) GTEST_SKIP() << "no network namespace on this machine: " << namespace_.refusal();
    EndToEnd::SetUp();
    if (IsSkipped()) return;
    ip("link add br0 type bridge");
    ip("link set br0 up");
    for (const std::string number : {"0", "1", "2"}) {
      ip("link add nic" + number + " type veth peer name peer" + number);
      ip("link set nic" + number + " master br0");
      ip("link set nic" + number + " up");
      ip("link set peer" + number + " up");
    }
    workspace().setPlatformConf("nics.exclude = peer*\nportGroup Production = br0\nportGroup Backup = br0\n");
  }

  /// Has the switch at the other end drop or raise the link.
  static void setPeer(int number, const char* state) { ip("link set peer" + std::to_string(number) + " " + state); }

  void expectLogged(const EventRecord& record, const std::string& name, const std::string& text) {
    EXPECT_EQ(record.name, name);
    log().waitFor(observationLine("netCorrelator", record.timestampUs, name, text));
  }

  // First, so that everything that a test starts is inside.
  support::NetNamespace namespace_;
};

TEST_F(OnLinux, UplinksThatLoseTheirCarrierOneAfterTheOtherAndReturnAreReportedForTheirPortGroups) {
  EventReceiver agent(workspace().eventSocket());
  Daemon daemon(workspace());
  daemon.setEnvironment("KORVEL_HOST", "linux");
  daemon.startAndServe();

  struct Step {
    int nic;
    const char* state;
    const char* event;
    const char* text;
  };
  const Step steps[] = {
      {0, "down", "orn.problem.net.redundancy.degraded",
       R"(Uplink redundancy degraded on virtual switch "br0". Physical NIC nic0 is down. Affected port groups: "Backup", "Production")"},
      {1, "down", "orn.problem.net.redundancy.lost",
       R"(Lost uplink redundancy on virtual switch "br0". Physical NIC nic1 is down. Affected port groups: "Backup", "Production")"},
      {2, "down", "orn.problem.net.connectivity.lost",
       R"(Lost network connectivity on virtual switch "br0". Physical NIC nic2 is down. Affected port groups: "Backup", "Production")"},
      {0, "up", "orn.clear.net.connectivity.restored",
       R"(Network connectivity restored on virtual switch "br0", portgroups: "Backup", "Production". Physical NIC nic0 is up)"},
      {1, "up", "orn.clear.net.redundancy.restored",
       R"(Uplink redundancy restored on virtual switch "br0", portgroups: "Backup", "Production". Physical NIC nic1 is up)"},
      {2, "up", "orn.clear.net.redundancy.restored",
       R"(Uplink redundancy restored on virtual switch "br0", portgroups: "Backup", "Production". Physical NIC nic2 is up)"},
  };
  std::size_t count = 0;
  for (const Step& step : steps) {
    setPeer(step.nic, step.state);
    const std::vector<EventRecord> records = agent.waitForCount(++count);
    expectLogged(records[count - 1], step.event, step.text);
  }
  ASSERT_TRUE(daemon.terminate().with(0));
  EXPECT_EQ(agent.count(), count);
}

TEST_F(OnLinux, AFlappingNicIsReallyTakenDownAndTheAuditTrailHasIt) {
  replaceFile(workspace().confDirectory() + "/options.conf", "Net/LinkFlappingThreshold = 2\n");
  EventReceiver agent(workspace().eventSocket());
  Daemon daemon(workspace());
  daemon.setEnvironment("KORVEL_HOST", "linux");
  daemon.startAndServe();
  TraceClient& trace = daemon.trace();

  for (int loss = 1; loss <= 3; ++loss) {
    EXPECT_TRUE(support::isLinkAdminUp("nic1")) << loss;
    setPeer(1, "down");
    trace.waitFor("IN", "kel.net.qnic.linkstate.down");
    if (loss == 3) break;
    setPeer(1, "up");
    trace.waitFor("IN", "kel.net.qnic.linkstate.up");
  }
  const EventRecord record = agent.waitFor("orn.problem.net.qnic.linkstate.flapping");
  expectLogged(record, "orn.problem.net.qnic.linkstate.flapping",
               "Taking down physical NIC nic1 because the link is flapping.");
  EXPECT_FALSE(support::isLinkAdminUp("nic1"));
  EXPECT_TRUE(support::isLinkAdminUp("nic0"));
  const std::string audit = fileContent(workspace().stateDirectory() + "/audit.jsonl");
  EXPECT_NE(audit.find("\"record\":\"nic.down\""), std::string::npos) << audit;
  EXPECT_NE(audit.find("nic1"), std::string::npos) << audit;
}

}  // namespace
}  // namespace e2e
