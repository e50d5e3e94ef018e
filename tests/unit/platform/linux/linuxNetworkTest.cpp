// The Linux host on the running kernel, in network namespaces of the tests' own.
#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include "linux/linuxHost.h"
#include "netns.h"
#include "observations.h"

namespace linktest {
namespace {

using support::ip;
using testing::ElementsAre;
using testing::HasSubstr;

/// Skips the rest of a test where `refusal` says why this machine cannot run it.
#define SKIP_IF_REFUSED(refusal)                                              \
  if (const std::string why = (refusal); !why.empty()) {                      \
    std::cerr << "SKIPPED, not tested on this machine: " << why << std::endl; \
    GTEST_SKIP() << why;                                                      \
  }

/// A bridge with three NICs, whose other ends play the switch.
class LinuxNetworkTest : public testing::Test {
 protected:
  void SetUp() override {
    SKIP_IF_REFUSED(namespace_.refusal());
    std::string pattern = (std::filesystem::temp_directory_path() / "linuxNetwork-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp");
    directory_ = pattern;
    std::ofstream(directory_ + "/platform.conf") << "nics.exclude = peer*\nportGroup Production = br0\n";
    ::setenv("KORVEL_CONF_DIR", directory_.c_str(), 1);
    ::setenv("KORVEL_STATE_DIR", directory_.c_str(), 1);
    ip("link add br0 type bridge");
    ip("link set br0 up");
    for (const std::string number : {"0", "1", "2"}) addNic(number);
    host_ = platform::makeLinuxHost();
  }

  void TearDown() override {
    ::unsetenv("KORVEL_CONF_DIR");
    ::unsetenv("KORVEL_STATE_DIR");
    if (!directory_.empty()) std::filesystem::remove_all(directory_);
  }

  static void addNic(const std::string& number) {
    ip("link add nic" + number + " type veth peer name peer" + number);
    ip("link set nic" + number + " master br0");
    ip("link set nic" + number + " up");
    ip("link set peer" + number + " up");
  }

  std::unique_ptr<platform::Channel> openLinks() {
    auto channel = host_->openChannel(platform::kLinksContext);
    if (!channel.ok() || channel.value == nullptr) throw std::runtime_error("no channel");
    return std::move(channel.value);
  }

  /// Notifications that the kernel could not queue in this namespace; proc_pid_net(5) has the column.
  static long droppedNotifications() {
    std::ifstream sockets("/proc/thread-self/net/netlink");
    std::string line;
    std::getline(sockets, line);
    long drops = 0;
    while (std::getline(sockets, line)) {
      std::istringstream words(line);
      const std::vector<std::string> columns{std::istream_iterator<std::string>(words), {}};
      if (columns.size() > 8) drops += std::stol(columns[8]);
    }
    return drops;
  }

  support::NetNamespace namespace_;
  std::string directory_;
  std::unique_ptr<platform::Host> host_;
};

TEST_F(LinuxNetworkTest, ReportsUplinksThatLoseTheirCarrierAndGetItBack) {
  const auto channel = openLinks();
  for (const char* const number : {"0", "1", "2"}) ip(std::string("link set peer") + number + " down");
  EXPECT_THAT(readUntil(*channel, 6),
              ElementsAre("kel.net.qnic.linkstate.down nic0", "kel.net.pg.uplink.transition.down nic0 Production 2 3",
                          "kel.net.qnic.linkstate.down nic1", "kel.net.pg.uplink.transition.down nic1 Production 1 3",
                          "kel.net.qnic.linkstate.down nic2", "kel.net.pg.uplink.transition.down nic2 Production 0 3"));
  for (const char* const number : {"0", "1", "2"}) ip(std::string("link set peer") + number + " up");
  EXPECT_THAT(readUntil(*channel, 6),
              ElementsAre("kel.net.qnic.linkstate.up nic0", "kel.net.pg.uplink.transition.up nic0 Production 1",
                          "kel.net.qnic.linkstate.up nic1", "kel.net.pg.uplink.transition.up nic1 Production 2",
                          "kel.net.qnic.linkstate.up nic2", "kel.net.pg.uplink.transition.up nic2 Production 3"));
}

TEST_F(LinuxNetworkTest, ReportsANicThatIsDeleted) {
  const auto channel = openLinks();
  ip("link del nic1");
  EXPECT_THAT(readUntil(*channel, 2),
              ElementsAre("kel.net.qnic.linkstate.down nic1", "kel.net.pg.uplink.transition.down nic1 Production 2 3"));
}

TEST_F(LinuxNetworkTest, CatchesUpAfterMoreNotificationsThanTheKernelQueues) {
  const auto channel = openLinks();
  ip("link set peer0 down");
  // Each change of the alias is one notification; the batch is one run of the program.
  const std::string batch = directory_ + "/batch";
  {
    std::ofstream lines(batch);
    for (int change = 0; change < 8000; ++change) lines << "link set dev br0 alias number" << change << "\n";
  }
  ip("-batch " + batch);
  ip("link del nic1");
  EXPECT_GT(droppedNotifications(), 0);
  auto all = readUntil(*channel, 4);
  std::sort(all.begin(), all.end());
  ASSERT_EQ(all.size(), 4U);
  EXPECT_THAT(all[0], HasSubstr("kel.net.pg.uplink.transition.down nic0 Production"));
  EXPECT_THAT(all[1], HasSubstr("kel.net.pg.uplink.transition.down nic1 Production"));
  EXPECT_EQ(all[2], "kel.net.qnic.linkstate.down nic0");
  EXPECT_EQ(all[3], "kel.net.qnic.linkstate.down nic1");
}

TEST_F(LinuxNetworkTest, KnowsThePortGroupsAndTheirUplinks) {
  const auto group = host_->portGroup("Production");
  ASSERT_TRUE(group.ok());
  EXPECT_EQ(group.value.virtualSwitch, "br0");
  EXPECT_THAT(group.value.uplinks, ElementsAre("nic0", "nic1", "nic2"));
}

TEST_F(LinuxNetworkTest, TakesANicDownAndReportsIt) {
  const auto channel = openLinks();
  ASSERT_TRUE(support::isLinkAdminUp("nic1"));
  const auto outcome = host_->nicDown("nic1");
  EXPECT_TRUE(outcome.ok()) << outcome.text;
  EXPECT_FALSE(support::isLinkAdminUp("nic1"));
  EXPECT_TRUE(support::isLinkAdminUp("nic0"));
  EXPECT_THAT(readUntil(*channel, 2),
              ElementsAre("kel.net.qnic.linkstate.down nic1", "kel.net.pg.uplink.transition.down nic1 Production 2 3"));
}

TEST_F(LinuxNetworkTest, TakesNoTapAndNoBridgeDown) {
  SKIP_IF_REFUSED(support::tapRefusal());
  const support::Tap tap("tap0");
  ip("link set tap0 up");
  EXPECT_EQ(host_->nicDown("tap0").status, EINVAL);
  EXPECT_EQ(host_->nicDown("br0").status, EINVAL);
  EXPECT_EQ(host_->nicDown("lo").status, EINVAL);
  EXPECT_EQ(host_->nicDown("nic9").status, ENODEV);
  EXPECT_TRUE(support::isLinkAdminUp("tap0"));
  EXPECT_TRUE(support::isLinkAdminUp("br0"));
}

TEST_F(LinuxNetworkTest, ReportsNothingOfATap) {
  SKIP_IF_REFUSED(support::tapRefusal());
  const support::Tap tap("tap0");
  ip("link set tap0 master br0");
  ip("link set tap0 up");
  const auto channel = openLinks();
  tap.setCarrier(false);
  ip("link set peer0 down");
  EXPECT_THAT(readUntil(*channel, 2),
              ElementsAre("kel.net.qnic.linkstate.down nic0", "kel.net.pg.uplink.transition.down nic0 Production 2 3"));
}

}  // namespace
}  // namespace linktest
