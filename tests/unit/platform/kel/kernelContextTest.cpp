#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "contextFixture.h"
#include "model/modelHost.h"

namespace {

using platform::ContextCounters;
using records::Bytes;

std::size_t openDescriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

class KernelContext : public ContextTest {
 protected:
  Context context_ = openAsync();
};

TEST_F(KernelContext, aBatchIsReadAsItWasSent) {
  const Bytes batch = records::batchOf({records::twoStrings(), support::rawRecord("kel.net.a")});
  injector().send(batch);
  EXPECT_NE(pollOf(fdOf(context_)) & POLLIN, 0);
  const ReadResult result = read(context_);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.bytes, batch);
  EXPECT_EQ(platform::contextCounters(context_.get()), (ContextCounters{.delivered = 1}));
  EXPECT_TRUE(logged_.empty());
}

TEST_F(KernelContext, nothingWaitingIsSuccessWithLengthZero) {
  const ReadResult result = read(context_);
  EXPECT_EQ(result.status, 0);
  EXPECT_TRUE(result.bytes.empty());
}

TEST_F(KernelContext, batchesAreReadOneByOneInTheirOrder) {
  const Client client = injector();
  for (const char* id : {"kel.a", "kel.b", "kel.c"}) client.send(support::rawRecord(id));
  for (const char* id : {"kel.a", "kel.b", "kel.c"}) EXPECT_EQ(read(context_).bytes, support::rawRecord(id));
}

TEST_F(KernelContext, aBatchThatIsNotSmallerThanTheCapacityIsKept) {
  injector().send(records::ofLength(8192));
  EXPECT_EQ(read(context_, 8192).status, 27);
  EXPECT_EQ(read(context_, 100).status, 27);
  EXPECT_EQ(read(context_, 0).status, 27);
  const ReadResult result = read(context_, 8193);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.bytes, records::ofLength(8192));
  EXPECT_EQ(read(context_).bytes.size(), 0U) << "it waits no longer";
}

TEST_F(KernelContext, theLargestBatchHas131071Bytes) {
  const Client client = injector();
  client.send(records::ofLength(131071));
  EXPECT_EQ(read(context_).bytes.size(), 131071U);
  client.send(records::ofLength(131072));
  EXPECT_EQ(read(context_).status, 27);
  EXPECT_EQ(read(context_).status, 27) << "kept until the reset";
}

TEST_F(KernelContext, aResetDropsTheBatchThatWaitsFirstAndNoneBehindIt) {
  const Client client = injector();
  client.send(records::ofLength(131072));
  client.send(records::twoStrings());
  client.send(support::rawRecord("kel.last"));
  EXPECT_EQ(read(context_).status, 27);
  EXPECT_EQ(KelLib_Reset(context_.get()), 0);
  EXPECT_EQ(read(context_).bytes, records::twoStrings());
  EXPECT_EQ(read(context_).bytes, support::rawRecord("kel.last"));
  EXPECT_EQ(platform::contextCounters(context_.get()), (ContextCounters{.delivered = 2, .oversized = 1}));
}

TEST_F(KernelContext, aResetWithNothingWaitingIsSuccess) {
  EXPECT_EQ(KelLib_Reset(context_.get()), 0);
  EXPECT_EQ(platform::contextCounters(context_.get()), ContextCounters{});
}

TEST_F(KernelContext, aMalformedBatchIsDroppedAndTheNextOneRead) {
  const Client client = injector();
  std::uint64_t dropped = 0;
  for (const records::Malformed& bad : records::malformed()) {
    client.send(bad.bytes);
    client.send(records::batchOf({records::twoStrings(), bad.bytes}));
    client.send(records::twoStrings());
    const ReadResult result = read(context_);
    EXPECT_EQ(result.status, 0) << bad.what;
    EXPECT_EQ(result.bytes, records::twoStrings()) << bad.what;
    dropped += 2;
  }
  const ContextCounters counters = platform::contextCounters(context_.get());
  EXPECT_EQ(counters.malformed, dropped);
  EXPECT_EQ(counters.delivered, dropped / 2);
}

TEST_F(KernelContext, anEmptyBatchIsMalformed) {
  const Client client = injector();
  client.send({});
  client.send(records::twoStrings());
  EXPECT_EQ(read(context_).bytes, records::twoStrings());
  EXPECT_EQ(platform::contextCounters(context_.get()).malformed, 1U);
}

TEST_F(KernelContext, dropsOfOneSenderAreMentionedOnce) {
  const Client client = injector();
  client.send(Bytes(7, 'x'));
  client.send(Bytes(8, 'x'));
  EXPECT_TRUE(read(context_).bytes.empty());
  client.send(Bytes(9, 'x'));
  EXPECT_TRUE(read(context_).bytes.empty());
  EXPECT_EQ(platform::contextCounters(context_.get()).malformed, 3U);
  // This process may have had its line in an earlier test.
  ASSERT_LE(logged_.size(), 1U);
  if (!logged_.empty()) {
    EXPECT_EQ(logged_[0], "async-00: dropped a batch of 7 bytes from process " + std::to_string(::getpid()) +
                              " of user " + std::to_string(::getuid()) + ": malformed (0 earlier ones not mentioned)");
  }
}

TEST_F(KernelContext, whatASenderMayNotEmitIsDropped) {
  const Client client = injector();
  const Bytes mixed = records::batchOf({support::rawRecord("kel.user.a"), support::rawRecord("kel.net.a")});
  if (!client.sendAsForeigner({support::rawRecord("kel.net.a"), mixed, support::rawRecord("kel.external.a")})) {
    GTEST_SKIP() << "not root, so nobody else can send here";
  }
  EXPECT_EQ(read(context_).bytes, support::rawRecord("kel.external.a"));
  EXPECT_TRUE(read(context_).bytes.empty());
  EXPECT_EQ(platform::contextCounters(context_.get()), (ContextCounters{.delivered = 1, .forbidden = 2}));
  // The sender is a process of its own, so it has a line of its own.
  ASSERT_EQ(logged_.size(), 1U);
  EXPECT_NE(logged_[0].find(" of user 65534: forbidden"), std::string::npos) << logged_[0];
}

TEST_F(KernelContext, theDaemonsOwnUserMayEmitAnything) {
  injector().send(support::rawRecord("kel.net.a"));
  EXPECT_EQ(read(context_).bytes, support::rawRecord("kel.net.a"));
}

TEST_F(KernelContext, descriptorsThatAClientPassesAlongDoNotStay) {
  const Client client = injector();
  const std::size_t before = openDescriptors();
  const platform::UniqueFd passed(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  const std::vector<int> many(20, passed.get());
  client.send(records::twoStrings(), many);
  client.send(Bytes(5, 'x'), many);
  client.send(records::ofLength(131072), many);
  EXPECT_EQ(read(context_).bytes, records::twoStrings());
  EXPECT_EQ(read(context_).status, 27);
  EXPECT_EQ(KelLib_Reset(context_.get()), 0);
  EXPECT_EQ(openDescriptors(), before + 1);
}

// --- contexts that the host feeds

/// Hands out what the test put in, as a host's channel does.
class TestChannel final : public platform::Channel {
 public:
  struct State {
    std::vector<Bytes> waiting;
    int failure = 0;
    int resets = 0;
  };
  explicit TestChannel(std::shared_ptr<State> state) : state_(std::move(state)) {
    int ends[2];
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    readEnd_.reset(ends[0]);
    writeEnd_.reset(ends[1]);
  }
  [[nodiscard]] int fd() const override { return readEnd_.get(); }
  [[nodiscard]] const char* name() const override { return "test"; }
  int read(void* buffer, std::size_t capacity, std::size_t* length) override {
    *length = 0;
    if (state_->failure != 0 || state_->waiting.empty()) return state_->failure;
    const Bytes& first = state_->waiting.front();
    if (first.size() >= capacity) return KELLIB_ERR_BUFFER_TOO_SMALL;
    std::copy(first.begin(), first.end(), static_cast<char*>(buffer));
    *length = first.size();
    state_->waiting.erase(state_->waiting.begin());
    return 0;
  }
  int reset() override {
    ++state_->resets;
    return 0;
  }

 private:
  std::shared_ptr<State> state_;
  platform::UniqueFd readEnd_, writeEnd_;
};

/// A modelled host with a channel for context 3.
class ChannelHost : public platform::ModelHost {
 public:
  ChannelHost(const std::string& file, std::shared_ptr<TestChannel::State> state)
      : ModelHost(file), state_(std::move(state)) {}
  platform::Answer<std::unique_ptr<platform::Channel>> openChannel(std::uint32_t number) override {
    if (number != 3) return ModelHost::openChannel(number);
    return {{}, std::make_unique<TestChannel>(state_)};
  }

 private:
  std::shared_ptr<TestChannel::State> state_;
};

class HostFedContext : public ContextTest {
 protected:
  std::shared_ptr<TestChannel::State> channel_ = std::make_shared<TestChannel::State>();
  platform::ScopedHost fed_{std::make_unique<ChannelHost>(host_.directory() + "/host.json", channel_)};
  Context context_ = openAsync(3);
};

TEST_F(HostFedContext, readsFromTheChannelAndHasNoInjectionSocket) {
  channel_->waiting = {records::twoStrings()};
  EXPECT_EQ(read(context_, 122).status, 27);
  EXPECT_EQ(read(context_).bytes, records::twoStrings());
  EXPECT_TRUE(read(context_).bytes.empty());
  EXPECT_FALSE(std::filesystem::exists(socketPath("async-03")));
}

TEST_F(HostFedContext, aContextThatTheHostDoesNotFeedHasASocket) {
  const Context other = openAsync(4);
  EXPECT_TRUE(std::filesystem::exists(socketPath("async-04")));
}

TEST_F(HostFedContext, aResetIsTheChannels) {
  EXPECT_EQ(KelLib_Reset(context_.get()), 0);
  EXPECT_EQ(channel_->resets, 1);
}

TEST_F(HostFedContext, aFailureOfTheChannelIsTheReads) {
  channel_->failure = EIO;
  EXPECT_EQ(read(context_).status, EIO);
}

TEST_F(HostFedContext, aMalformedBatchOfTheChannelIsDropped) {
  channel_->waiting = {Bytes(40, 'x')};
  const ReadResult result = read(context_);
  EXPECT_EQ(result.status, 0);
  EXPECT_TRUE(result.bytes.empty());
  EXPECT_EQ(platform::contextCounters(context_.get()).malformed, 1U);
}

}  // namespace
