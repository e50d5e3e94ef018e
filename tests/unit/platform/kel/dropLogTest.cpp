#include "kel/dropLog.h"

#include <gtest/gtest.h>

namespace {

using platform::BatchSender;
using platform::DropLog;
using std::chrono::seconds;

BatchSender sender(int process) {
  return {process, 1000};
}

TEST(DropLog, aSenderIsMentionedAtOnceAndThenOnceAMinute) {
  DropLog log;
  EXPECT_EQ(log.claim(sender(1), seconds(5)), 0U);
  EXPECT_EQ(log.claim(sender(1), seconds(5)), std::nullopt);
  EXPECT_EQ(log.claim(sender(1), seconds(64)), std::nullopt);
  EXPECT_EQ(log.claim(sender(1), seconds(65)), 2U);
  EXPECT_EQ(log.claim(sender(1), seconds(66)), std::nullopt);
  EXPECT_EQ(log.claim(sender(1), seconds(1000)), 1U);
}

TEST(DropLog, eachSenderHasALineOfItsOwn) {
  DropLog log;
  EXPECT_EQ(log.claim(sender(1), seconds(0)), 0U);
  EXPECT_EQ(log.claim(sender(2), seconds(0)), 0U);
  EXPECT_EQ(log.claim({1, 1001}, seconds(0)), 0U);
  EXPECT_EQ(log.claim(sender(1), seconds(59)), std::nullopt);
}

TEST(DropLog, aFloodOfSendersIsBounded) {
  DropLog log;
  int lines = 0;
  for (int process = 1; process <= 10000; ++process) lines += log.claim(sender(process), seconds(0)) ? 1 : 0;
  EXPECT_EQ(lines, static_cast<int>(DropLog::kSenders) + 1);
  // A minute later there is room again, and the shared line tells what nobody else's did.
  for (int process = 1; process <= static_cast<int>(DropLog::kSenders); ++process) {
    EXPECT_EQ(log.claim(sender(20000 + process), seconds(60)), 0U);
  }
  EXPECT_EQ(log.claim(sender(30000), seconds(60)), 10000U - DropLog::kSenders - 1);
}

TEST(DropLog, aSenderThatComesBackInAFullTableKeepsItsLine) {
  DropLog log;
  for (int process = 1; process <= static_cast<int>(DropLog::kSenders); ++process) {
    EXPECT_EQ(log.claim(sender(process), seconds(process)), 0U);
  }
  EXPECT_EQ(log.claim(sender(7), seconds(66)), std::nullopt);
  EXPECT_EQ(log.claim(sender(7), seconds(67)), 1U);
}

}  // namespace
