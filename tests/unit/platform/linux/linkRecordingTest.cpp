// The channel on what a real kernel said; README.md tells how each recording was made.
#include <gmock/gmock.h>

#include <string>

#include "fakeNetlink.h"
#include "host/paths.h"
#include "linkRecording.h"
#include "linux/linksChannel.h"
#include "observations.h"

namespace linktest {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// The other ends of the recorded veth pairs stand for the switch, not for NICs.
constexpr const char* kConf = "nics.exclude = peer*\n";

std::vector<std::string> replay(const std::string& recording, const std::string& conf = kConf) {
  const auto netlink =
      std::make_shared<FakeNetlink>(readRecording(std::string(LINUX_TEST_DATA) + "/" + recording + ".bin"));
  const auto policy = platform::LinkPolicy::of(platform::PlatformConf::parse(conf, "platform.conf"));
  auto channel = platform::LinksChannel::open(netlink, policy);
  if (!channel.ok()) throw std::runtime_error("no channel");
  return readAll(*channel.value);
}

TEST(RecordedLinks, YieldOneObservationWhereADeviceIsSetUpInTwoMessages) {
  EXPECT_THAT(replay("set-up"), ElementsAre("kel.net.qnic.linkstate.up nic0"));
}

TEST(RecordedLinks, CountThreeUplinksDownAndUp) {
  EXPECT_THAT(replay("three-uplinks"),
              ElementsAre("kel.net.qnic.linkstate.down nic0", "kel.net.pg.uplink.transition.down nic0 br0 2 3",
                          "kel.net.qnic.linkstate.down nic1", "kel.net.pg.uplink.transition.down nic1 br0 1 3",
                          "kel.net.qnic.linkstate.down nic2", "kel.net.pg.uplink.transition.down nic2 br0 0 3",
                          "kel.net.qnic.linkstate.up nic0", "kel.net.pg.uplink.transition.up nic0 br0 1",
                          "kel.net.qnic.linkstate.up nic1", "kel.net.pg.uplink.transition.up nic1 br0 2",
                          "kel.net.qnic.linkstate.up nic2", "kel.net.pg.uplink.transition.up nic2 br0 3"));
}

TEST(RecordedLinks, YieldNothingWhereAPortJoinsAndLeavesABridge) {
  EXPECT_THAT(replay("bridge-port"), IsEmpty());
}

TEST(RecordedLinks, YieldNothingOfATap) {
  EXPECT_THAT(replay("tap"), IsEmpty());
}

TEST(RecordedLinks, FollowARename) {
  EXPECT_THAT(replay("rename"),
              ElementsAre("kel.net.qnic.linkstate.down nic1", "kel.net.pg.uplink.transition.down nic1 br0 2 3",
                          "kel.net.qnic.linkstate.up uplink1", "kel.net.pg.uplink.transition.up uplink1 br0 3",
                          "kel.net.qnic.linkstate.down uplink1", "kel.net.pg.uplink.transition.down uplink1 br0 2 3"));
}

TEST(RecordedLinks, CountADeletedNicAsDownOnce) {
  EXPECT_THAT(replay("vanish"),
              ElementsAre("kel.net.qnic.linkstate.down nic1", "kel.net.pg.uplink.transition.down nic1 br0 2 3"));
}

TEST(RecordedLinks, ServeTwoPortGroupsOnOneBridge) {
  EXPECT_THAT(replay("vanish", "nics.exclude = peer* nic0\nportGroup A = br0\nportGroup B = br0\n"),
              ElementsAre("kel.net.qnic.linkstate.down nic1", "kel.net.pg.uplink.transition.down nic1 A 1 2",
                          "kel.net.pg.uplink.transition.down nic1 B 1 2"));
}

}  // namespace
}  // namespace linktest
