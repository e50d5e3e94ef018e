#include "linux/linksChannel.h"

#include <gmock/gmock.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <cerrno>

#include "fakeNetlink.h"
#include "host/paths.h"
#include "linkMessages.h"
#include "linux/linkRequests.h"
#include "observations.h"
#include "platform/kellib.h"

namespace linktest {
namespace {

using platform::Channel;
using platform::LinkPolicy;
using platform::LinksChannel;
using platform::PlatformConf;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::SizeIs;

std::unique_ptr<Channel> openChannel(const std::shared_ptr<FakeNetlink>& netlink, const std::string& conf = {}) {
  auto channel = LinksChannel::open(netlink, LinkPolicy::of(PlatformConf::parse(conf, "platform.conf")));
  EXPECT_TRUE(channel.ok());
  return std::move(channel.value);
}

/// A bridge with two NICs.
const Device kBridge{.index = 9, .name = "br0", .kind = "bridge"};
const Device kNic0{.index = 1, .name = "nic0", .master = 9};
const Device kNic1{.index = 2, .name = "nic1", .master = 9};

Device lost(Device device) {
  device.carrier = false;
  ++device.downs;
  return device;
}

class LinksChannelTest : public testing::Test {
 protected:
  LinksChannelTest() { netlink_->answer({dumpPart({kNic0, kNic1, kBridge}), dumpEnd()}); }

  std::shared_ptr<FakeNetlink> netlink_ = std::make_shared<FakeNetlink>();
};

TEST_F(LinksChannelTest, LearnsHowTheLinksAreWithoutReportingIt) {
  const auto channel = openChannel(netlink_);
  EXPECT_THAT(readAll(*channel), IsEmpty());
  EXPECT_THAT(netlink_->requests, SizeIs(1));
  EXPECT_STREQ(channel->name(), "links");
}

TEST_F(LinksChannelTest, ReportsTheLinkFirstAndThenThePortGroupsByName) {
  const auto channel = openChannel(netlink_, "portGroup VM Network = br0\nportGroup Backup = br0\n");
  netlink_->notify(newLink(lost(kNic0)));
  EXPECT_THAT(readAll(*channel),
              ElementsAre("kel.net.qnic.linkstate.down nic0", "kel.net.pg.uplink.transition.down nic0 Backup 1 2",
                          "kel.net.pg.uplink.transition.down nic0 VM Network 1 2"));
  Device back = lost(kNic0);
  back.carrier = true;
  ++back.ups;
  netlink_->notify(newLink(back));
  EXPECT_THAT(readAll(*channel),
              ElementsAre("kel.net.qnic.linkstate.up nic0", "kel.net.pg.uplink.transition.up nic0 Backup 2",
                          "kel.net.pg.uplink.transition.up nic0 VM Network 2"));
}

TEST_F(LinksChannelTest, HandsOutNothingWhereNothingOfInterestHappened) {
  const auto channel = openChannel(netlink_);
  netlink_->notify(newLink(kNic0));
  EXPECT_TRUE(pollsReadable(*channel));
  std::vector<char> buffer(1024);
  std::size_t length = 99;
  EXPECT_EQ(channel->read(buffer.data(), buffer.size(), &length), 0);
  EXPECT_EQ(length, 0U);
  EXPECT_FALSE(pollsReadable(*channel));
}

TEST_F(LinksChannelTest, SplitsWhatDoesNotFitIntoBatchesOfWholeRecords) {
  const auto channel = openChannel(netlink_);
  std::vector<std::string> expected;
  Device nic = kNic0;
  for (int round = 0; round < 20; ++round) {
    nic.carrier = !nic.carrier;
    ++(nic.carrier ? nic.ups : nic.downs);
    netlink_->notify(newLink(nic));
    expected.push_back(nic.carrier ? "kel.net.qnic.linkstate.up nic0" : "kel.net.qnic.linkstate.down nic0");
    expected.push_back(nic.carrier ? "kel.net.pg.uplink.transition.up nic0 br0 2"
                                   : "kel.net.pg.uplink.transition.down nic0 br0 1 2");
  }
  // readAll() checks that each batch holds whole records and is smaller than the capacity.
  EXPECT_THAT(readAll(*channel, 512), ElementsAreArray(expected));
}

TEST_F(LinksChannelTest, RefusesABufferThatCannotHoldTheFirstRecordAndKeepsIt) {
  const auto channel = openChannel(netlink_);
  netlink_->notify(newLink(lost(kNic0)));
  std::vector<char> buffer(4096);
  std::size_t length = 99;
  EXPECT_EQ(channel->read(buffer.data(), 64, &length), KELLIB_ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(length, 0U);
  EXPECT_TRUE(pollsReadable(*channel));
  ASSERT_EQ(channel->read(buffer.data(), buffer.size(), &length), 0);
  buffer.resize(length);
  EXPECT_THAT(observationsOf(buffer), SizeIs(2));
}

TEST_F(LinksChannelTest, RefusesABufferOfJustTheFirstRecordsSize) {
  const auto channel = openChannel(netlink_);
  netlink_->notify(newLink(lost(kNic0)));
  std::deque<std::vector<char>> records;
  platform::appendLinkRecords({"nic0", false, {}}, records);
  ASSERT_THAT(records, SizeIs(1));
  std::vector<char> buffer(records[0].size() + 1);
  std::size_t length = 0;
  EXPECT_EQ(channel->read(buffer.data(), records[0].size(), &length), KELLIB_ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(channel->read(buffer.data(), records[0].size() + 1, &length), 0);
  EXPECT_EQ(length, records[0].size());
}

TEST_F(LinksChannelTest, AResetDropsTheRecordThatWaitsFirstAndNoneBehindIt) {
  const auto channel = openChannel(netlink_);
  netlink_->notify(newLink(lost(kNic0)));
  std::vector<char> buffer(64);
  std::size_t length = 0;
  ASSERT_EQ(channel->read(buffer.data(), buffer.size(), &length), KELLIB_ERR_BUFFER_TOO_SMALL);
  EXPECT_EQ(channel->reset(), 0);
  EXPECT_TRUE(pollsReadable(*channel));
  EXPECT_THAT(readAll(*channel), ElementsAre("kel.net.pg.uplink.transition.down nic0 br0 1 2"));
  EXPECT_FALSE(pollsReadable(*channel));
}

TEST_F(LinksChannelTest, LooksAtAllLinksAfterAnOverrun) {
  const auto channel = openChannel(netlink_);
  netlink_->answer({dumpPart({lost(kNic0), kBridge}), dumpEnd()});
  netlink_->notify(ENOBUFS);
  // Queued before the overrun and out of date by now: not looked at.
  netlink_->notify(delLink(kNic0));
  EXPECT_THAT(readAll(*channel),
              ElementsAre("kel.net.qnic.linkstate.down nic1", "kel.net.pg.uplink.transition.down nic1 br0 1 2",
                          "kel.net.qnic.linkstate.down nic0", "kel.net.pg.uplink.transition.down nic0 br0 0 1"));
  EXPECT_EQ(netlink_->notifications->size(), 0U);
  EXPECT_THAT(netlink_->requests, SizeIs(2));
}

TEST_F(LinksChannelTest, TakesADatagramThatIsTooLongAndAnOverrunMessageForAnOverrun) {
  const auto channel = openChannel(netlink_);
  for (const Delivery& delivery : {Delivery(std::vector<char>(70000)), Delivery(overrun())}) {
    netlink_->answer({dumpPart({kNic0, kNic1, kBridge}), dumpEnd()});
    netlink_->notify(delivery);
    EXPECT_THAT(readAll(*channel), IsEmpty());
  }
  EXPECT_THAT(netlink_->requests, SizeIs(3));
}

TEST_F(LinksChannelTest, RepeatsADumpThatAChangeInterrupted) {
  const auto channel = openChannel(netlink_);
  netlink_->answer({dumpPart({kNic0}, true), dumpEnd()});
  netlink_->answer({dumpPart({kNic0, kNic1, kBridge}), dumpEnd()});
  netlink_->notify(ENOBUFS);
  EXPECT_THAT(readAll(*channel), IsEmpty());
  EXPECT_THAT(netlink_->requests, SizeIs(3));
}

TEST_F(LinksChannelTest, LooksAgainAfterADumpThatFailed) {
  const auto channel = openChannel(netlink_);
  netlink_->answer({acknowledgement(ENOMEM)});
  netlink_->answer({dumpPart({lost(kNic0), kNic1, kBridge}), dumpEnd()});
  netlink_->notify(ENOBUFS);
  EXPECT_THAT(readUntil(*channel, 2),
              ElementsAre("kel.net.qnic.linkstate.down nic0", "kel.net.pg.uplink.transition.down nic0 br0 1 2"));
}

TEST_F(LinksChannelTest, IgnoresMalformedNotifications) {
  const auto channel = openChannel(netlink_);
  netlink_->notify(std::vector<char>(3, 'x'));
  netlink_->notify(newLink(lost(kNic0)));
  EXPECT_THAT(readAll(*channel), SizeIs(2));
}

TEST_F(LinksChannelTest, GivesUpASourceThatFailsAgainAndAgain) {
  const auto channel = openChannel(netlink_);
  for (int failure = 0; failure <= platform::kReceiveFailures; ++failure) {
    netlink_->answer({dumpPart({kNic0, kNic1, kBridge}), dumpEnd()});
    netlink_->notify(EIO);
    EXPECT_THAT(readAll(*channel), IsEmpty());
  }
  netlink_->notify(newLink(lost(kNic0)));
  EXPECT_THAT(readAll(*channel), IsEmpty());
}

TEST(LinksChannel, IsIdleWhereTheKernelHasNoNetlink) {
  const auto netlink = std::make_shared<FakeNetlink>();
  netlink->refusal = EAFNOSUPPORT;
  const auto channel = openChannel(netlink);
  ASSERT_NE(channel, nullptr);
  EXPECT_FALSE(pollsReadable(*channel));
  std::vector<char> buffer(1024);
  std::size_t length = 99;
  EXPECT_EQ(channel->read(buffer.data(), buffer.size(), &length), 0);
  EXPECT_EQ(length, 0U);
  EXPECT_EQ(channel->reset(), 0);
}

TEST(LinkRequests, GiveUpWhereChangesInterruptEveryDump) {
  FakeNetlink netlink;
  for (int attempt = 0; attempt < platform::kDumpAttempts; ++attempt) {
    netlink.answer({dumpPart({kNic0}, true), dumpEnd()});
  }
  EXPECT_EQ(platform::dumpLinks(netlink).outcome.status, EINTR);
}

TEST(LinkRequests, TellASilentKernelFromOneThatAnswersNonsense) {
  FakeNetlink netlink;
  EXPECT_EQ(platform::dumpLinks(netlink).outcome.status, ETIMEDOUT);
  netlink.answer({dumpPart({kNic0})});
  EXPECT_EQ(platform::dumpLinks(netlink).outcome.status, ETIMEDOUT);
  netlink.answer({std::vector<char>(7, 'x')});
  EXPECT_EQ(platform::dumpLinks(netlink).outcome.status, EBADMSG);
  netlink.answer({dumpPart({kNic0}), dumpEnd(ENOMEM)});
  EXPECT_EQ(platform::dumpLinks(netlink).outcome.status, ENOMEM);
}

TEST(LinkRequests, TakeALinkDownByItsIndex) {
  FakeNetlink netlink;
  netlink.answer({acknowledgement(0)});
  EXPECT_EQ(platform::takeLinkDown(netlink, 7), 0);
  ASSERT_THAT(netlink.requests, SizeIs(1));
  const std::vector<char> expected{
      40, 0, 0,  0, 16, 0, 5, 0, 1, 0, 0, 0, 0, 0, 0, 0,  // length 40, RTM_NEWLINK, NLM_F_REQUEST | NLM_F_ACK, 1
      0,  0, 0,  0, 7,  0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0,  // index 7, no flag set, IFF_UP changes
      8,  0, 29, 0, 8,  0, 0, 0};                         // IFLA_EXT_MASK: RTEXT_FILTER_SKIP_STATS
  EXPECT_EQ(netlink.requests[0], expected);
  netlink.answer({acknowledgement(EPERM)});
  EXPECT_EQ(platform::takeLinkDown(netlink, 7), EPERM);
  EXPECT_EQ(platform::takeLinkDown(netlink, 7), ETIMEDOUT);
}

}  // namespace
}  // namespace linktest
