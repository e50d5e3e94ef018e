#include "keldStream.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <cstring>
#include <thread>

#include "manualTime.h"
#include "observation.h"

namespace {

using keld::StreamFilter;
using support::rawRecord;

StreamFilter group(const char* word) {
  StreamFilter filter;
  EXPECT_EQ(filter.addGroup(word), 0);
  return filter;
}

TEST(StreamFilterTest, prefixMatchesBelowItsDotOnly) {
  const StreamFilter filter = group("net");
  EXPECT_TRUE(filter.matches("kel.net.qnic.linkstate.down"));
  EXPECT_TRUE(filter.matches("kel.net."));
  EXPECT_FALSE(filter.matches("kel.netx.something"));
  EXPECT_FALSE(filter.matches("kel.net"));
  EXPECT_FALSE(filter.matches("kel.ne"));
  EXPECT_FALSE(filter.matches(""));
}

TEST(StreamFilterTest, exactIdentifierMatchesItselfOnly) {
  StreamFilter filter;
  ASSERT_EQ(filter.addIdentifier("kel.a.b"), 0);
  EXPECT_TRUE(filter.matches("kel.a.b"));
  EXPECT_FALSE(filter.matches("kel.a.b.c"));
  EXPECT_FALSE(filter.matches("kel.a"));
}

TEST(StreamFilterTest, holdsTenGroupsAndTenIdentifiers) {
  StreamFilter filter;
  for (int n = 0; n < 10; ++n) {
    EXPECT_EQ(filter.addGroup("g"), 0);
    EXPECT_EQ(filter.addIdentifier("kel.i"), 0);
  }
  EXPECT_EQ(filter.addGroup("g"), 1);
  EXPECT_EQ(filter.addIdentifier("kel.i"), 1);
}

class StreamTest : public testing::Test {
 protected:
  using Stream = std::unique_ptr<keld::ObservationStream>;

  void SetUp() override { ASSERT_EQ(list.initialise(), 0); }

  Stream open(const StreamFilter& filter) {
    Stream stream;
    EXPECT_EQ(list.open("test", filter, &stream), 0);
    return stream;
  }

  static bool readable(const Stream& stream) {
    pollfd set{stream->readFd(), POLLIN, 0};
    return poll(&set, 1, 0) == 1;
  }

  /// The identifier of the next whole observation; empty where the stream has none.
  static std::string next(const Stream& stream) {
    while (readable(stream)) {
      Kel* kel = nullptr;
      bool complete = false;
      EXPECT_EQ(stream->read(&kel, &complete), 0);
      if (!complete) continue;
      const support::KelPtr owned(kel);
      const char* id = nullptr;
      Kel_GetID(kel, &id);
      return id;
    }
    return "";
  }

  int fanOut(const std::vector<char>& batch) { return list.fanOut(batch.data(), batch.size()); }

  static std::vector<char> join(std::initializer_list<std::vector<char>> parts) {
    std::vector<char> batch;
    for (const auto& part : parts) batch.insert(batch.end(), part.begin(), part.end());
    return batch;
  }

  support::ManualClock clock;
  keld::TraceServer trace{clock};
  keld::StreamList list{trace};
};

TEST_F(StreamTest, everyMatchingStreamGetsTheWholeRecord) {
  const Stream older = open(group("net"));
  const Stream newer = open(group("net"));
  const Stream other = open(group("scsi"));
  EXPECT_EQ(fanOut(join({rawRecord("kel.net.a"), rawRecord("kel.scsi.b"), rawRecord("kel.vm.c")})), 0);
  EXPECT_EQ(next(older), "kel.net.a");
  EXPECT_EQ(next(newer), "kel.net.a");
  EXPECT_EQ(next(other), "kel.scsi.b");
  for (const Stream* stream : {&older, &newer, &other}) EXPECT_EQ(next(*stream), "");
}

TEST_F(StreamTest, theOlderStreamIsServedFirst) {
  const Stream older = open(group("net"));
  const Stream newer = open(group("net"));
  // More than a pipe holds, so that the writer is in the middle of it as long as nobody reads.
  const auto record = rawRecord("kel.net.a", {support::s(std::string(200'000, 'x'))});
  std::thread writer([&] { EXPECT_EQ(fanOut(record), 0); });
  pollfd first{older->readFd(), POLLIN, 0};
  EXPECT_EQ(poll(&first, 1, 30'000), 1);
  EXPECT_FALSE(readable(newer));
  for (const Stream* stream : {&older, &newer}) {
    Kel* kel = nullptr;
    for (bool complete = false; !complete;) ASSERT_EQ((*stream)->read(&kel, &complete), 0);
    Kel_Free(kel);
  }
  writer.join();
}

TEST_F(StreamTest, aClosedStreamGetsNothingMore) {
  Stream gone = open(group("net"));
  const Stream stays = open(group("net"));
  EXPECT_EQ(list.close(std::move(gone)), 0);
  EXPECT_EQ(fanOut(rawRecord("kel.net.a")), 0);
  EXPECT_EQ(next(stays), "kel.net.a");
}

TEST_F(StreamTest, aRecordThatArrivesInPiecesIsCompletedOverSeveralReads) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const Stream stream = open(group("net"));
  // The stream's own read end shows what the pipe of the test hands it, a few bytes at a time.
  ASSERT_EQ(dup2(ends[0], stream->readFd()), stream->readFd());
  const std::vector<char> record = rawRecord("kel.net.pieces", {support::s("text")});
  bool complete = false;
  Kel* kel = nullptr;
  for (std::size_t at = 0; at < record.size(); at += 7) {
    ASSERT_FALSE(complete);
    const std::size_t size = std::min<std::size_t>(7, record.size() - at);
    ASSERT_EQ(write(ends[1], record.data() + at, size), static_cast<ssize_t>(size));
    while (readable(stream) && !complete) ASSERT_EQ(stream->read(&kel, &complete), 0);
  }
  ASSERT_TRUE(complete);
  const support::KelPtr owned(kel);
  const char* id = nullptr;
  Kel_GetID(kel, &id);
  EXPECT_STREQ(id, "kel.net.pieces");
  close(ends[0]);
  close(ends[1]);
}

TEST_F(StreamTest, restOfABatchIsDroppedFromAnInconsistentRecordOn) {
  const Stream stream = open(group("net"));
  const auto good = rawRecord("kel.net.good");
  const auto withLength = [&](std::uint32_t length) {
    auto bad = rawRecord("kel.net.bad");
    std::memcpy(bad.data() + 16, &length, sizeof length);
    return bad;
  };
  auto unterminated = rawRecord("kel.net.bad");
  for (std::size_t at = 32; at < unterminated.size(); ++at) unterminated[at] = 'x';
  const std::vector<std::vector<char>> bads = {withLength(0), withLength(32), withLength(1'000'000), unterminated,
                                               std::vector<char>(32, '\0')};
  for (const auto& bad : bads) {
    EXPECT_EQ(fanOut(join({good, bad, good})), 0);
    EXPECT_EQ(next(stream), "kel.net.good");
    EXPECT_EQ(next(stream), "");
  }
}

TEST_F(StreamTest, aStreamThatEndsWhileTheWriterIsBlockedInItDoesNotDeadlock) {
  Stream stream = open(group("net"));
  const std::vector<char> big = rawRecord("kel.net.big", {support::s(std::string(100'000, 'x'))});
  std::thread writer([&] { EXPECT_EQ(fanOut(join({big, big, big})), 0); });
  pollfd set{stream->readFd(), POLLIN, 0};
  ASSERT_EQ(poll(&set, 1, 30'000), 1);
  EXPECT_EQ(list.close(std::move(stream)), 0);
  writer.join();
}

using StreamDeathTest = StreamTest;

TEST_F(StreamDeathTest, endOfFileAndARecordOfExactlyTheHeaderPanic) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_DEATH(
      {
        const Stream stream = open(group("net"));
        int ends[2];
        if (pipe(ends) != 0 || dup2(ends[0], stream->readFd()) < 0) _exit(1);
        std::vector<char> header(32, '\0');
        header[16] = 32;
        if (write(ends[1], header.data(), header.size()) != 32) _exit(1);
        Kel* kel = nullptr;
        bool complete = false;
        close(ends[1]);
        stream->read(&kel, &complete);
        stream->read(&kel, &complete);
      },
      "Keld - Panic: EOF trying to read 0 bytes from stream");
}

}  // namespace
