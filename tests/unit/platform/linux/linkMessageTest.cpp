#include "linux/linkMessage.h"

#include <gmock/gmock.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <string>

#include "linkMessages.h"
#include "linkRecording.h"

namespace linktest {
namespace {

using platform::LinkDatagram;
using platform::LinkMessage;
using platform::parseLinkDatagram;
using testing::IsEmpty;
using testing::SizeIs;

std::vector<LinkMessage> linksOf(const std::string& recording, char kind) {
  std::vector<LinkMessage> links;
  for (const Frame& frame : readRecording(std::string(LINUX_TEST_DATA) + "/" + recording)) {
    if (frame.kind != kind) continue;
    for (LinkMessage& link : parseLinkDatagram(frame.bytes).links) links.push_back(std::move(link));
  }
  return links;
}

std::vector<char> rawLink(const std::vector<char>& attributes, std::int32_t index = 4) {
  const auto number = static_cast<char>(index);
  const std::vector<char> header{0, 0, 1, 0, number, 0, 0, 0, 1, 0, 1, 0, 0, 0, 0, 0};
  return message(RTM_NEWLINK, 0, header + attributes);
}

TEST(LinkMessages, ReadAPortOfABridgeAsTheKernelDescribesIt) {
  const auto links = linksOf("three-uplinks.bin", Frame::kDump);
  ASSERT_THAT(links, SizeIs(9));
  const LinkMessage& nic = links[4];
  EXPECT_EQ(nic.name, "nic0");
  EXPECT_EQ(nic.index, 5);
  EXPECT_EQ(nic.type, ARPHRD_ETHER);
  EXPECT_EQ(nic.family, AF_UNSPEC);
  EXPECT_EQ(nic.flags & (kAdminUp | kLowerUp), kAdminUp | kLowerUp);
  EXPECT_EQ(nic.master, 3);
  EXPECT_EQ(nic.kind, "veth");
  EXPECT_EQ(nic.slaveKind, "bridge");
  EXPECT_EQ(nic.operstate, 6);
  EXPECT_EQ(nic.carrier, true);
  EXPECT_EQ(nic.carrierUpCount, 1U);
  EXPECT_EQ(nic.carrierDownCount, 1U);
  EXPECT_FALSE(nic.removed);
  EXPECT_FALSE(nic.partial);
  EXPECT_EQ(links[2].name, "br0");
  EXPECT_EQ(links[2].kind, "bridge");
  EXPECT_EQ(links[2].master, 0);
  EXPECT_EQ(links[1].kind, "tun");
}

TEST(LinkMessages, TellTheBridgesCopiesByTheirFamily) {
  int copies = 0;
  for (const LinkMessage& link : linksOf("bridge-port.bin", Frame::kNotification)) {
    if (link.family != AF_BRIDGE) continue;
    ++copies;
    EXPECT_EQ(link.name, "nic0");
  }
  EXPECT_EQ(copies, 5);
}

TEST(LinkMessages, TellARemoval) {
  const auto links = linksOf("vanish.bin", Frame::kNotification);
  ASSERT_FALSE(links.empty());
  EXPECT_TRUE(links.back().removed);
  EXPECT_EQ(links.back().name, "peer1");
}

TEST(LinkMessages, TellTheEndOfADumpAndItsStatus) {
  EXPECT_EQ(parseLinkDatagram(dumpEnd()).end, 0);
  EXPECT_EQ(parseLinkDatagram(dumpEnd(ENOMEM)).end, ENOMEM);
  EXPECT_EQ(parseLinkDatagram(message(NLMSG_DONE, 0, {})).end, 0);
  EXPECT_EQ(parseLinkDatagram(message(NLMSG_DONE, 0, {1, 0})).end, EBADMSG);
  EXPECT_EQ(parseLinkDatagram(acknowledgement(0)).end, 0);
  EXPECT_EQ(parseLinkDatagram(acknowledgement(EPERM)).end, EPERM);
  EXPECT_EQ(parseLinkDatagram(message(NLMSG_ERROR, 0, {})).end, EBADMSG);
  EXPECT_FALSE(parseLinkDatagram(dumpPart({{.index = 2, .name = "nic0"}})).end.has_value());
}

TEST(LinkMessages, TellAnInterruptedDumpAndAnOverrun) {
  EXPECT_TRUE(parseLinkDatagram(dumpPart({{.index = 2, .name = "nic0"}}, true)).interrupted);
  EXPECT_FALSE(parseLinkDatagram(dumpPart({{.index = 2, .name = "nic0"}})).interrupted);
  EXPECT_TRUE(parseLinkDatagram(overrun()).overrun);
}

TEST(LinkMessages, ReadABondPortAndItsBond) {
  const LinkMessage port = parsed({.index = 2, .name = "nic0", .master = 9, .slaveKind = "bond"});
  EXPECT_EQ(port.master, 9);
  EXPECT_EQ(port.slaveKind, "bond");
  EXPECT_EQ(port.kind, "");
  EXPECT_EQ(parsed({.index = 9, .name = "bond0", .kind = "bond"}).kind, "bond");
}

TEST(LinkMessages, MarkAWirelessEventAsPartial) {
  EXPECT_TRUE(parsed({.index = 2, .name = "wlan0", .wireless = true}).partial);
}

TEST(LinkMessages, PassOverOtherTypes) {
  const LinkDatagram datagram =
      parseLinkDatagram(message(RTM_NEWADDR, 0, std::vector<char>(8)) + newLink({.index = 2, .name = "nic0"}));
  ASSERT_THAT(datagram.links, SizeIs(1));
  EXPECT_EQ(datagram.links[0].name, "nic0");
  EXPECT_FALSE(datagram.malformed);
}

struct Garbage {
  const char* what;
  std::vector<char> bytes;
};

std::vector<Garbage> garbage() {
  std::vector<char> lengthBeyond = newLink({.index = 2, .name = "nic0"});
  lengthBeyond[0] = static_cast<char>(lengthBeyond[0] + 4);
  return {
      {"a header that is cut off", {16, 0, 0, 0, 16, 0}},
      {"a length shorter than the header", {15, 0, 0, 0, 16, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
      {"a length of zero", std::vector<char>(64)},
      {"a length beyond the datagram", lengthBeyond},
      {"a length of 4 GiB", std::vector<char>(64, static_cast<char>(0xff))},
      {"a link message without its header", message(RTM_NEWLINK, 0, std::vector<char>(15))},
      {"an index of zero", rawLink(attribute(IFLA_IFNAME, {'n', 0}), 0)},
      {"a negative index",
       rawLink(attribute(IFLA_IFNAME, {'n', 0})) + message(RTM_NEWLINK, 0, std::vector<char>(16, -1))},
      {"an attribute shorter than its header", rawLink({3, 0, 3, 0})},
      {"an attribute of length zero", rawLink({0, 0, 0, 0})},
      {"an attribute beyond the message", rawLink({9, 0, 3, 0, 'n', 0, 0, 0})},
      {"half an attribute header", rawLink({4, 0})},
      {"a name as long as the kernel's buffer", rawLink(attribute(IFLA_IFNAME, std::vector<char>(16, 'n')))},
      {"a kind without end", rawLink(attribute(IFLA_LINKINFO, attribute(IFLA_INFO_KIND, std::vector<char>(65, 'k'))))},
      {"a nested attribute beyond its parent", rawLink(attribute(IFLA_LINKINFO, {9, 0, 1, 0, 'b', 0, 0, 0}))},
      {"a master of two bytes", rawLink(attribute(IFLA_MASTER, {1, 0}))},
      {"a counter of one byte", rawLink(attribute(IFLA_CARRIER_DOWN_COUNT, {1}))},
      {"a carrier of no byte", rawLink(attribute(IFLA_CARRIER, {}))},
  };
}

TEST(LinkMessages, LeaveOutWhatIsMalformedAndSaySo) {
  for (const Garbage& row : garbage()) {
    const LinkDatagram datagram = parseLinkDatagram(row.bytes);
    EXPECT_TRUE(datagram.malformed) << row.what;
    for (const LinkMessage& link : datagram.links) EXPECT_EQ(link.index, 4) << row.what;
  }
}

TEST(LinkMessages, KeepWhatStandsBesideAMalformedMessage) {
  const auto bad = rawLink({0, 0, 0, 0});
  const LinkDatagram datagram =
      parseLinkDatagram(newLink({.index = 2, .name = "nic0"}) + bad + newLink({.index = 3, .name = "nic1"}));
  EXPECT_TRUE(datagram.malformed);
  ASSERT_THAT(datagram.links, SizeIs(2));
  EXPECT_EQ(datagram.links[1].name, "nic1");
}

TEST(LinkMessages, SurviveEveryTruncationOfRealTraffic) {
  for (const Frame& frame : readRecording(std::string(LINUX_TEST_DATA) + "/bridge-port.bin")) {
    const LinkDatagram whole = parseLinkDatagram(frame.bytes);
    EXPECT_FALSE(whole.malformed);
    for (std::size_t length = 1; length < frame.bytes.size(); ++length) {
      // A copy of just that size, so that a sanitizer sees a step too far.
      const std::vector<char> cut(frame.bytes.begin(), frame.bytes.begin() + static_cast<std::ptrdiff_t>(length));
      EXPECT_LE(parseLinkDatagram(cut).links.size(), whole.links.size());
    }
  }
}

TEST(LinkMessages, FindNothingInAnEmptyDatagram) {
  const LinkDatagram datagram = parseLinkDatagram({});
  EXPECT_THAT(datagram.links, IsEmpty());
  EXPECT_FALSE(datagram.malformed);
  EXPECT_FALSE(datagram.end.has_value());
}

}  // namespace
}  // namespace linktest
