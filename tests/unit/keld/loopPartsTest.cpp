#include <gtest/gtest.h>

#include <vector>

#include "keldLoop.h"
#include "keldPollSet.h"

namespace {

using keld::PollSet;

class PollSetTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(set.allocateFixed()); }
  PollSet set;
};

TEST_F(PollSetTest, hasTwentySixSlotsAndRoomForEightConnections) {
  EXPECT_EQ(set.count(), 26U);
  set.allocateConnections();
  for (int n = 0; n < 8; ++n) EXPECT_TRUE(set.addConnection(100 + n));
  EXPECT_EQ(set.count(), 34U);
  EXPECT_FALSE(set.addConnection(108));
}

TEST_F(PollSetTest, withoutTheLargerArrayNoConnectionIsTaken) {
  EXPECT_FALSE(set.takesConnections());
  EXPECT_FALSE(set.addConnection(100));
  EXPECT_EQ(set.count(), 26U);
}

TEST_F(PollSetTest, removingSlot27Of30MovesSlot29ThereWithWhatItSawAndFrees29) {
  set.allocateConnections();
  for (int n = 0; n < 4; ++n) ASSERT_TRUE(set.addConnection(100 + n));
  ASSERT_EQ(set.count(), 30U);
  set[29].revents = POLLIN | POLLHUP;
  EXPECT_TRUE(set.removeConnection(27));
  EXPECT_EQ(set.count(), 29U);
  EXPECT_EQ(set[27].fd, 103);
  EXPECT_EQ(set[27].revents, POLLIN | POLLHUP);
  EXPECT_EQ(set[29].fd, -1);
  EXPECT_EQ(set[29].events, POLLIN);
  EXPECT_EQ(set[29].revents, 0);
}

TEST_F(PollSetTest, removingTheLastConnectionMovesNone) {
  set.allocateConnections();
  ASSERT_TRUE(set.addConnection(100));
  EXPECT_FALSE(set.removeConnection(26));
  EXPECT_EQ(set[26].fd, -1);
  EXPECT_EQ(set.count(), 26U);
}

TEST_F(PollSetTest, theFixedSlotsKeepTheirDescriptorsInTheLargerArray) {
  set.watch(0, 7);
  set.watch(25, 9);
  set.allocateConnections();
  EXPECT_EQ(set[0].fd, 7);
  EXPECT_EQ(set[25].fd, 9);
  EXPECT_EQ(set[33].fd, -1);
}

TEST(ObservationBufferTest, growsByHalfUpToItsCap) {
  keld::ObservationBuffer buffer;
  ASSERT_TRUE(buffer.allocate());
  std::vector<std::size_t> capacities{buffer.capacity()};
  while (buffer.grow()) capacities.push_back(buffer.capacity());
  EXPECT_EQ(capacities, (std::vector<std::size_t>{8192, 12288, 18432, 27648, 41472, 62208, 93312, 131072}));
}

}  // namespace
