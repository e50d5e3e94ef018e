#include "linux/linkTable.h"

#include <gmock/gmock.h>
#include <sys/socket.h>

#include "host/paths.h"
#include "linkMessages.h"

namespace platform {
// Found by GoogleTest when an expectation fails.
void PrintTo(const LinkChange& change, std::ostream* out) {
  *out << change.nic << (change.up ? " up" : " down");
  for (const UplinkTransition& to : change.transitions)
    *out << " " << to.portGroup << " " << to.active << "/" << to.total;
}
}  // namespace platform

namespace linktest {
namespace {

using platform::LinkChange;
using platform::LinkPolicy;
using platform::LinkTable;
using platform::PlatformConf;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::int32_t kBridge = 100;
constexpr std::int32_t kBond = 101;

LinkPolicy policyOf(const std::string& conf) {
  return LinkPolicy::of(PlatformConf::parse(conf, "platform.conf"));
}

Device bridge(const std::string& name = "br0") {
  return {.index = kBridge, .name = name, .kind = "bridge"};
}
Device bond() {
  return {.index = kBond, .name = "bond0", .master = kBridge, .kind = "bond"};
}

Device port(std::int32_t index, const std::string& name, std::int32_t master = kBridge) {
  return {.index = index, .name = name, .master = master, .slaveKind = master == kBond ? "bond" : "bridge"};
}

Device lost(Device device) {
  device.carrier = false;
  ++device.downs;
  return device;
}

Device found(Device device) {
  device.carrier = true;
  ++device.ups;
  return device;
}

LinkTable tableOf(const std::vector<Device>& devices, const std::string& conf = {}) {
  LinkTable table(policyOf(conf));
  std::vector<platform::LinkMessage> dump;
  for (const Device& device : devices) dump.push_back(parsed(device));
  EXPECT_THAT(table.resync(dump), IsEmpty());
  return table;
}

std::vector<platform::LinkMessage> dumpOf(const std::vector<Device>& devices) {
  std::vector<platform::LinkMessage> dump;
  for (const Device& device : devices) dump.push_back(parsed(device));
  return dump;
}

LinkChange down(const std::string& nic, std::vector<platform::UplinkTransition> transitions = {}) {
  return {nic, false, std::move(transitions)};
}
LinkChange up(const std::string& nic, std::vector<platform::UplinkTransition> transitions = {}) {
  return {nic, true, std::move(transitions)};
}

TEST(LinkTable, CountsTheUplinksThatRemainAndReturn) {
  const Device a = port(1, "nic0");
  const Device b = port(2, "nic1");
  const Device c = port(3, "nic2");
  LinkTable table = tableOf({a, b, c, bridge()});
  EXPECT_THAT(table.apply(parsed(lost(a))), ElementsAre(down("nic0", {{"br0", 2, 3}})));
  EXPECT_THAT(table.apply(parsed(lost(b))), ElementsAre(down("nic1", {{"br0", 1, 3}})));
  EXPECT_THAT(table.apply(parsed(lost(c))), ElementsAre(down("nic2", {{"br0", 0, 3}})));
  EXPECT_THAT(table.apply(parsed(found(lost(a)))), ElementsAre(up("nic0", {{"br0", 1, 3}})));
  EXPECT_THAT(table.apply(parsed(found(lost(b)))), ElementsAre(up("nic1", {{"br0", 2, 3}})));
  EXPECT_THAT(table.apply(parsed(found(lost(c)))), ElementsAre(up("nic2", {{"br0", 3, 3}})));
}

TEST(LinkTable, ReportsANicThatServesNoPortGroupByItsLinkAlone) {
  const Device nic{.index = 1, .name = "nic0"};
  LinkTable table = tableOf({nic});
  EXPECT_THAT(table.apply(parsed(lost(nic))), ElementsAre(down("nic0")));
}

TEST(LinkTable, ReportsARepeatedMessageOnce) {
  const Device nic = port(1, "nic0");
  LinkTable table = tableOf({nic, bridge()});
  EXPECT_THAT(table.apply(parsed(lost(nic))), ElementsAre(down("nic0", {{"br0", 0, 1}})));
  EXPECT_THAT(table.apply(parsed(lost(nic))), IsEmpty());
}

TEST(LinkTable, IgnoresCopiesForTheBridgeFamily) {
  const Device nic = port(1, "nic0");
  LinkTable table = tableOf({nic, bridge()});
  Device copy = lost(nic);
  copy.family = AF_BRIDGE;
  EXPECT_THAT(table.apply(parsed(copy)), IsEmpty());
  EXPECT_THAT(table.apply(parsedRemoval(copy)), IsEmpty());
  EXPECT_THAT(table.apply(parsed(lost(nic))), ElementsAre(down("nic0", {{"br0", 0, 1}})));
}

TEST(LinkTable, IgnoresWirelessEvents) {
  const Device nic = port(1, "nic0");
  LinkTable table = tableOf({nic, bridge()});
  Device event = nic;
  event.wireless = true;
  EXPECT_THAT(table.apply(parsed(event)), IsEmpty());
  EXPECT_THAT(table.apply(parsed(lost(nic))), ElementsAre(down("nic0", {{"br0", 0, 1}})));
}

TEST(LinkTable, TakesALinkForUpOnlyWhereTheDeviceIsSetUpAndHasCarrier) {
  Device nic = port(1, "nic0");
  LinkTable table = tableOf({nic, bridge()});
  Device administrativelyDown = nic;
  administrativelyDown.adminUp = false;
  EXPECT_THAT(table.apply(parsed(administrativelyDown)), ElementsAre(down("nic0", {{"br0", 0, 1}})));
  Device upWithoutCarrier = lost(nic);
  EXPECT_THAT(table.apply(parsed(upWithoutCarrier)), IsEmpty());
  EXPECT_THAT(table.apply(parsed(found(upWithoutCarrier))), ElementsAre(up("nic0", {{"br0", 1, 1}})));
}

TEST(LinkTable, TakesAnUnknownOperationalStateForUsable) {
  platform::LinkMessage nic = parsed(lost({.index = 1, .name = "nic0"}));
  LinkTable table({});
  EXPECT_THAT(table.apply(nic), IsEmpty());
  nic = parsed(found(lost({.index = 1, .name = "nic0"})));
  nic.operstate = 0;
  EXPECT_THAT(table.apply(nic), ElementsAre(up("nic0")));
}

TEST(LinkTable, ServesEveryPortGroupThatIsMappedOnTheBridge) {
  const Device a = port(1, "nic0");
  const Device b = port(2, "nic1");
  LinkTable table = tableOf({a, b, bridge()}, "portGroup VM Network = br0\nportGroup Backup = br0\n");
  EXPECT_THAT(table.apply(parsed(lost(a))), ElementsAre(down("nic0", {{"Backup", 1, 2}, {"VM Network", 1, 2}})));
}

TEST(LinkTable, MapsOneBridgeAndLeavesAnotherItsOwnName) {
  const Device a = port(1, "nic0");
  Device b = port(2, "nic1");
  b.master = kBridge + 50;
  const Device other{.index = kBridge + 50, .name = "br1", .kind = "bridge"};
  LinkTable table = tableOf({a, b, bridge(), other}, "portGroup Production = br0\n");
  EXPECT_THAT(table.apply(parsed(lost(a))), ElementsAre(down("nic0", {{"Production", 0, 1}})));
  EXPECT_THAT(table.apply(parsed(lost(b))), ElementsAre(down("nic1", {{"br1", 0, 1}})));
}

TEST(LinkTable, CountsThePortsOfABondUnderABridgeByTheirOwnCarrier) {
  const Device a = port(1, "nic0", kBond);
  const Device b = port(2, "nic1", kBond);
  LinkTable table = tableOf({a, b, bond(), bridge()});
  EXPECT_THAT(table.apply(parsed(lost(a))), ElementsAre(down("nic0", {{"br0", 1, 2}})));
  EXPECT_THAT(table.apply(parsed(lost(b))), ElementsAre(down("nic1", {{"br0", 0, 2}})));
  EXPECT_THAT(table.apply(parsed(lost(bond()))), IsEmpty());
  EXPECT_THAT(table.apply(parsed(found(lost(b)))), ElementsAre(up("nic1", {{"br0", 1, 2}})));
}

TEST(LinkTable, TakesATeamForABond) {
  const Device a = port(1, "nic0", kBond);
  Device team = bond();
  team.kind = "team";
  LinkTable table = tableOf({a, team, bridge()});
  EXPECT_THAT(table.apply(parsed(lost(a))), ElementsAre(down("nic0", {{"br0", 0, 1}})));
  EXPECT_THAT(table.apply(parsed(lost(team))), IsEmpty());
}

TEST(LinkTable, ReportsNothingOfABondThatIsNoPortOfABridgeButItsNics) {
  const Device a = port(1, "nic0", kBond);
  Device alone = bond();
  alone.master = 0;
  LinkTable table = tableOf({a, alone, bridge()});
  EXPECT_THAT(table.apply(parsed(lost(a))), ElementsAre(down("nic0")));
}

TEST(LinkTable, TakesOnlyEthernetHardwareForNics) {
  const std::vector<Device> others{
      bridge(),
      bond(),
      {.index = 3, .name = "team0", .kind = "team"},
      {.index = 4, .name = "nic0.7", .kind = "vlan"},
      {.index = 5, .name = "tap0", .kind = "tun"},
      {.index = 6, .name = "lo", .type = ARPHRD_LOOPBACK},
      {.index = 7, .name = "ib0", .type = ARPHRD_INFINIBAND},
  };
  LinkTable table = tableOf(others);
  for (const Device& device : others) {
    EXPECT_TRUE(table.whyNoNic(parsed(device)).has_value()) << device.name;
    EXPECT_THAT(table.apply(parsed(lost(device))), IsEmpty()) << device.name;
  }
  EXPECT_FALSE(table.whyNoNic(parsed({.index = 1, .name = "nic0"})).has_value());
}

TEST(LinkTable, LeavesOutExcludedNicsAndDoesNotCountThem) {
  const Device a = port(1, "nic0");
  const Device guest = port(2, "vnet3");
  const Device other = port(3, "wan0");
  LinkTable table = tableOf({a, guest, other, bridge()}, "nics.exclude = vnet* tap?\nnics.exclude = wan0\n");
  EXPECT_THAT(table.apply(parsed(lost(guest))), IsEmpty());
  EXPECT_THAT(table.apply(parsed(lost(other))), IsEmpty());
  EXPECT_THAT(table.apply(parsed(lost(a))), ElementsAre(down("nic0", {{"br0", 0, 1}})));
}

TEST(LinkTable, LearnsADeviceThatAppearsAndReportsItFromThenOn) {
  LinkTable table = tableOf({bridge()});
  const Device nic = port(1, "nic0");
  EXPECT_THAT(table.apply(parsed(nic)), IsEmpty());
  EXPECT_THAT(table.apply(parsed(lost(nic))), ElementsAre(down("nic0", {{"br0", 0, 1}})));
}

TEST(LinkTable, ReportsTheLinkOfADeviceThatAppearedWithoutOne) {
  LinkTable table = tableOf({bridge()});
  const Device nic = port(1, "nic0");
  EXPECT_THAT(table.apply(parsed(lost(nic))), IsEmpty());
  EXPECT_THAT(table.apply(parsed(found(lost(nic)))), ElementsAre(up("nic0", {{"br0", 1, 1}})));
}

TEST(LinkTable, CountsANicThatVanishesAsDown) {
  const Device a = port(1, "nic0");
  const Device b = port(2, "nic1");
  LinkTable table = tableOf({a, b, bridge()});
  EXPECT_THAT(table.apply(parsedRemoval(a)), ElementsAre(down("nic0", {{"br0", 1, 2}})));
  EXPECT_THAT(table.apply(parsedRemoval(a)), IsEmpty());
  EXPECT_THAT(table.apply(parsed(lost(b))), ElementsAre(down("nic1", {{"br0", 0, 1}})));
}

TEST(LinkTable, ReportsNothingWhereANicVanishesWhoseLinkWasDown) {
  const Device nic = lost(port(1, "nic0"));
  LinkTable table = tableOf({nic, bridge()});
  EXPECT_THAT(table.apply(parsedRemoval(nic)), IsEmpty());
}

TEST(LinkTable, KnowsARenamedNicByItsIndex) {
  Device nic = port(1, "nic0");
  LinkTable table = tableOf({nic, bridge()});
  nic.name = "uplink0";
  EXPECT_THAT(table.apply(parsed(nic)), IsEmpty());
  EXPECT_EQ(table.find("nic0"), nullptr);
  ASSERT_NE(table.find("uplink0"), nullptr);
  EXPECT_THAT(table.apply(parsed(lost(nic))), ElementsAre(down("uplink0", {{"br0", 0, 1}})));
}

TEST(LinkTable, StopsAndBeginsReportingWithANameThatIsExcluded) {
  Device nic = port(1, "nic0");
  LinkTable table = tableOf({nic, bridge()}, "nics.exclude = spare*\n");
  nic.name = "spare0";
  EXPECT_THAT(table.apply(parsed(lost(nic))), IsEmpty());
  nic.name = "nic0";
  EXPECT_THAT(table.apply(parsed(found(lost(nic)))), IsEmpty());
  EXPECT_THAT(table.apply(parsed(lost(found(lost(nic))))), ElementsAre(down("nic0", {{"br0", 0, 1}})));
}

TEST(LinkTable, ReportsNoTransitionWhereAPortLeavesOrJoinsABridgeWithItsCarrier) {
  Device a = port(1, "nic0");
  const Device b = port(2, "nic1");
  LinkTable table = tableOf({a, b, bridge()});
  a.master = 0;
  EXPECT_THAT(table.apply(parsed(a)), IsEmpty());
  EXPECT_THAT(table.apply(parsed(lost(b))), ElementsAre(down("nic1", {{"br0", 0, 1}})));
  a.master = kBridge;
  EXPECT_THAT(table.apply(parsed(a)), IsEmpty());
  EXPECT_THAT(table.apply(parsed(found(lost(b)))), ElementsAre(up("nic1", {{"br0", 2, 2}})));
}

TEST(LinkTable, ChargesALossToThePortGroupServedBefore) {
  Device nic = port(1, "nic0");
  LinkTable table = tableOf({nic, bridge()});
  nic = lost(nic);
  nic.master = 0;
  EXPECT_THAT(table.apply(parsed(nic)), ElementsAre(down("nic0", {{"br0", 0, 1}})));
}

TEST(LinkTable, FollowsABridgeThatIsRenamed) {
  const Device nic = port(1, "nic0");
  LinkTable table = tableOf({nic, bridge()});
  EXPECT_THAT(table.apply(parsed(bridge("lan"))), IsEmpty());
  EXPECT_THAT(table.apply(parsed(lost(nic))), ElementsAre(down("nic0", {{"lan", 0, 1}})));
}

TEST(LinkTable, ReportsALossThatTheKernelMergedAway) {
  const Device a = port(1, "nic0");
  const Device b = port(2, "nic1");
  LinkTable table = tableOf({a, b, bridge()});
  EXPECT_THAT(table.apply(parsed(found(lost(a)))),
              ElementsAre(down("nic0", {{"br0", 1, 2}}), up("nic0", {{"br0", 2, 2}})));
  EXPECT_THAT(table.apply(parsed(found(lost(a)))), IsEmpty());
}

TEST(LinkTable, ReportsEveryMergedLossBesideTheVisibleOne) {
  const Device nic{.index = 1, .name = "nic0"};
  LinkTable table = tableOf({nic});
  EXPECT_THAT(table.apply(parsed(lost(found(lost(nic))))), ElementsAre(down("nic0"), up("nic0"), down("nic0")));
  EXPECT_THAT(table.apply(parsed(lost(found(lost(found(lost(nic))))))), ElementsAre(up("nic0"), down("nic0")));
}

TEST(LinkTable, BoundsTheLossesThatItMakesUpFor) {
  Device nic{.index = 1, .name = "nic0"};
  LinkTable table = tableOf({nic});
  nic.ups += 1000;
  nic.downs += 1000;
  EXPECT_EQ(table.apply(parsed(nic)).size(), 32U);
}

TEST(LinkTable, CountsAcrossTheWrapOfTheCounters) {
  Device nic{.index = 1, .name = "nic0", .ups = 0xffffffff, .downs = 0xffffffff};
  LinkTable table = tableOf({nic});
  nic.ups = 0;
  nic.downs = 0;
  EXPECT_THAT(table.apply(parsed(nic)), ElementsAre(down("nic0"), up("nic0")));
}

TEST(LinkTable, TakesCarrierThatComesAndGoesWithAdministrationForNoFlap) {
  Device nic{.index = 1, .name = "nic0"};
  LinkTable table = tableOf({nic});
  nic = lost(nic);
  nic.adminUp = false;
  EXPECT_THAT(table.apply(parsed(nic)), ElementsAre(down("nic0")));
  nic.downs += 2;
  nic.ups += 2;
  EXPECT_THAT(table.apply(parsed(nic)), IsEmpty());
  nic = found(nic);
  nic.adminUp = true;
  nic.ups += 2;
  EXPECT_THAT(table.apply(parsed(nic)), ElementsAre(up("nic0")));
}

TEST(LinkTable, IgnoresAMessageThatIsOlderThanWhatADumpShowed) {
  const Device nic{.index = 1, .name = "nic0"};
  LinkTable table = tableOf({found(lost(nic))});
  EXPECT_THAT(table.apply(parsed(lost(nic))), IsEmpty());
  EXPECT_THAT(table.apply(parsed(found(lost(nic)))), IsEmpty());
}

TEST(LinkTable, ReportsWhatADumpShowsToHaveChanged) {
  const Device a = port(1, "nic0");
  const Device b = port(2, "nic1");
  const Device c = port(3, "nic2");
  LinkTable table = tableOf({a, b, c, bridge()});
  // nic1 has vanished, nic0 lost its link, nic2 flapped, nic3 is new.
  const auto changes = table.resync(dumpOf({lost(a), found(lost(c)), port(4, "nic3"), bridge()}));
  EXPECT_THAT(changes, ElementsAre(down("nic1", {{"br0", 2, 3}}), down("nic0", {{"br0", 2, 3}}),
                                   down("nic2", {{"br0", 1, 3}}), up("nic2", {{"br0", 2, 3}})));
}

TEST(LinkTable, SeesInADumpThatANicServesABridgeWhichIsNew) {
  const Device nic = lost({.index = 1, .name = "nic0"});
  LinkTable table = tableOf({nic});
  Device joined = found(nic);
  joined.master = kBridge;
  EXPECT_THAT(table.resync(dumpOf({joined, bridge()})), ElementsAre(up("nic0", {{"br0", 1, 1}})));
}

TEST(LinkTable, TakesADeviceWhoseCountersRanBackForAnother) {
  Device nic{.index = 1, .name = "nic0", .ups = 7, .downs = 7};
  LinkTable table = tableOf({nic});
  nic.ups = 0;
  nic.downs = 0;
  EXPECT_THAT(table.resync(dumpOf({nic})), ElementsAre(down("nic0")));
  EXPECT_THAT(table.apply(parsed(lost(nic))), ElementsAre(down("nic0")));
}

TEST(LinkTable, ListsPortGroupsWithTheirUplinks) {
  const Device b = port(2, "nic1", kBond);
  const Device a = port(1, "nic0");
  const Device guest = port(3, "tap0");
  Device tap = guest;
  tap.kind = "tun";
  const Device other{.index = 50, .name = "br1", .kind = "bridge"};
  const LinkTable table = tableOf({b, a, tap, bond(), bridge(), other},
                                  "portGroup VM Network = br0\nportGroup Lab = br7\nportGroup Backup = br0\n");
  const auto groups = table.portGroups();
  ASSERT_EQ(groups.size(), 4U);
  EXPECT_EQ(groups[0].name, "Backup");
  EXPECT_EQ(groups[0].virtualSwitch, "br0");
  EXPECT_THAT(groups[0].uplinks, ElementsAre("nic0", "nic1"));
  EXPECT_EQ(groups[1].name, "Lab");
  EXPECT_EQ(groups[1].virtualSwitch, "br7");
  EXPECT_THAT(groups[1].uplinks, IsEmpty());
  EXPECT_EQ(groups[2].name, "VM Network");
  EXPECT_THAT(groups[2].uplinks, ElementsAre("nic0", "nic1"));
  EXPECT_EQ(groups[3].name, "br1");
  EXPECT_EQ(groups[3].virtualSwitch, "br1");
  EXPECT_THAT(groups[3].uplinks, IsEmpty());
}

}  // namespace
}  // namespace linktest
