#include "emitBatcher.h"

#include <gtest/gtest.h>

#include "platform/kel.h"

namespace {

using kelctl::EmitBatcher;
using kelctl::EmitTarget;

constexpr EmitTarget kFirst{false, 0};
constexpr EmitTarget kSecond{false, 1};
constexpr EmitTarget kUser{true, 0};

struct Sent {
  EmitTarget target;
  std::vector<char> batch;
};

class EmitBatcherTest : public testing::Test {
 protected:
  static KelEmit::Observation observation(const std::string& id, std::size_t textBytes = 0) {
    return {id, std::nullopt, {std::string(textBytes, 'x')}, 1};
  }
  static std::size_t lengthOf(const KelEmit::Observation& one) {
    std::vector<char> record;
    EXPECT_EQ(KelEmit::appendRecord(one, record), 0);
    return record.size();
  }
  [[nodiscard]] std::vector<std::size_t> lengths() const {
    std::vector<std::size_t> all;
    for (const Sent& one : sent_) all.push_back(one.batch.size());
    return all;
  }

  std::vector<Sent> sent_;
  std::vector<std::vector<KelEmit::Observation>> sentToUser_;
  EmitBatcher batcher_{[this](const EmitTarget& target, const std::vector<char>& batch) {
                         sent_.push_back({target, batch});
                       },
                       [this](std::span<const KelEmit::Observation> observations) {
                         sentToUser_.emplace_back(observations.begin(), observations.end());
                       }};
};

TEST_F(EmitBatcherTest, SendsEachRecordAtOnceWhereOneMakesABatch) {
  batcher_.add(observation("kel.a"), kFirst, 1);
  EXPECT_EQ(sent_.size(), 1U);
  batcher_.add(observation("kel.b"), kFirst, 1);
  EXPECT_EQ(sent_.size(), 2U);
  batcher_.flush();
  EXPECT_EQ(sent_.size(), 2U);
}

TEST_F(EmitBatcherTest, GathersRecordsInOrder) {
  const std::size_t length = lengthOf(observation("kel.a"));
  for (const char* id : {"kel.a", "kel.b", "kel.c"}) batcher_.add(observation(id), kFirst, 2);
  ASSERT_EQ(sent_.size(), 1U);
  batcher_.flush();
  EXPECT_EQ(lengths(), (std::vector<std::size_t>{2 * length, length}));
  Kel_RecordView view;
  ASSERT_TRUE(Kel_ViewRecord(sent_[0].batch.data() + length, length, &view));
  EXPECT_STREQ(view.id, "kel.b");
}

TEST_F(EmitBatcherTest, SendsWhatIsGatheredBeforeAnotherContextsRecord) {
  batcher_.add(observation("kel.a"), kFirst, 10);
  batcher_.add(observation("kel.b"), kSecond, 10);
  ASSERT_EQ(sent_.size(), 1U);
  EXPECT_EQ(sent_[0].target, kFirst);
  batcher_.flush();
  ASSERT_EQ(sent_.size(), 2U);
  EXPECT_EQ(sent_[1].target, kSecond);
}

TEST_F(EmitBatcherTest, KeepsBatchesBelowTheLimit) {
  for (int n = 0; n < 5; ++n) batcher_.add(observation("kel.a", 60000), kFirst, 100);
  batcher_.flush();
  const std::size_t length = lengthOf(observation("kel.a", 60000));
  EXPECT_EQ(lengths(), (std::vector<std::size_t>{2 * length, 2 * length, length}));
}

TEST_F(EmitBatcherTest, NeverReachesTheLimit) {
  const std::size_t overhead = lengthOf(observation("kel.a"));
  const auto half = observation("kel.a", 65536 - overhead);
  ASSERT_EQ(lengthOf(half), 65536U);
  batcher_.add(half, kFirst, 2);
  batcher_.add(half, kFirst, 2);
  batcher_.flush();
  EXPECT_EQ(lengths(), (std::vector<std::size_t>{65536, 65536}));
}

TEST_F(EmitBatcherTest, HandsWhatIsForTheUserContextToItsLibraryUnwritten) {
  batcher_.add(observation("kel.a"), kFirst, 10);
  for (const char* id : {"kel.user.a", "kel.user.b", "kel.user.c"}) batcher_.add(observation(id), kUser, 2);
  EXPECT_EQ(sent_.size(), 1U);
  ASSERT_EQ(sentToUser_.size(), 1U);
  batcher_.flush();
  EXPECT_EQ(sent_.size(), 1U);
  ASSERT_EQ(sentToUser_.size(), 2U);
  ASSERT_EQ(sentToUser_[0].size(), 2U);
  EXPECT_EQ(sentToUser_[0][1].id, "kel.user.b");
  EXPECT_EQ(sentToUser_[0][1].timestamp, 1U);
  EXPECT_EQ(sentToUser_[1].at(0).id, "kel.user.c");
}

TEST_F(EmitBatcherTest, StampsAnObservationForTheUserContextWhenItIsAdded) {
  KelEmit::Observation unstamped = observation("kel.user.a");
  unstamped.timestamp.reset();
  batcher_.add(unstamped, kUser, 1);
  constexpr std::uint64_t kYear2020Us = 1'577'836'800'000'000;
  EXPECT_GT(sentToUser_.at(0).at(0).timestamp.value_or(0), kYear2020Us);
}

TEST_F(EmitBatcherTest, KeepsBatchesForTheUserContextBelowTheLimitToo) {
  for (int n = 0; n < 3; ++n) batcher_.add(observation("kel.user.a", 60000), kUser, 100);
  batcher_.flush();
  ASSERT_EQ(sentToUser_.size(), 2U);
  EXPECT_EQ(sentToUser_[0].size(), 2U);
}

TEST_F(EmitBatcherTest, TellsWhatNoBatchCanTake) {
  const std::size_t overhead = lengthOf(observation("kel.a"));
  EXPECT_FALSE(EmitBatcher::check(observation("kel.a", 131071 - overhead)));
  const auto error = EmitBatcher::check(observation("kel.a", 131072 - overhead));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->reason, "the observation is too long: 131072 bytes, a record has at most 131071");
  EXPECT_TRUE(EmitBatcher::check(observation("kel.a", 1000000)));
}

TEST_F(EmitBatcherTest, TellsWhatCannotBeARecord) {
  EXPECT_TRUE(EmitBatcher::check({"kel.a", std::string("a\0b", 3), {}, 1}));
}

}  // namespace
