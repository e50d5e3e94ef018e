#include "keldVprob.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "keldVprobRecord.h"
#include "manualTime.h"
#include "modelHost.h"
#include "recordingPost.h"
#include "socketReceiver.h"

namespace {

using namespace std::chrono_literals;
using keld::record::load;

constexpr char kUuid[] =
    "000102030405060708090a0b0c0d0e0f"
    "101112131415161718191a1b1c1d1e1f202122232425262728292a2b2c2d2e2f3031323334353637";

class VProbTest : public testing::Test {
 protected:
  void SetUp() override { vprob.VProb_Init(); }

  /// A text without placeholders that is not known when this is compiled; the argument has no part in it.
  void postAudit(const std::string& markedText) { vprob.VProb_PostAudit(markedText.c_str(), 0); }
  /// The name in a record.
  static std::string name(const std::string& record) { return record.c_str() + keld::record::kName; }
  /// The only record received since the last call; empty where there was none.
  std::string received() {
    const auto records = receiver.take();
    EXPECT_LE(records.size(), 1U);
    return records.empty() ? "" : records.front();
  }
  std::size_t droppedLines() {
    std::size_t count = 0;
    for (const auto& line : log.take()) count += line == "Event rate limit reached. Dropping vprob: orn.audit.x\n";
    return count;
  }

  support::ModelHost host{std::string(R"({"system":{"uuid":")") + kUuid + R"("}})"};
  std::string path = host.runDirectory() + "/hagd-vprob.sock";
  support::SocketReceiver receiver{path, 2000};
  support::ManualClock clock;
  support::ManualTimers timers{clock};
  support::RecordingLog log;
  keld::TraceServer trace{clock};
  keld::Delivery delivery{path, timers};
  keld::VProb vprob{clock, trace, delivery};
};

TEST_F(VProbTest, aRecordHasEveryFieldInItsPlace) {
  vprob.VProb_PostProblem("@&!*@*@(orn.problem.t.x)%s and %d", "one", 2);
  const std::string record = received();
  const std::string expectedName = "orn.problem.t.x";
  EXPECT_EQ(load<std::uint64_t>(record.data(), 0), 1'767'225'600'000'000U);
  EXPECT_EQ(load<std::uint64_t>(record.data(), 8), 0U);
  for (int n = 0; n < 38; ++n) EXPECT_EQ(record[static_cast<std::size_t>(16 + n)], 16 + n);
  EXPECT_EQ(load<std::uint16_t>(record.data(), 54), 0U);
  EXPECT_EQ(load<std::uint32_t>(record.data(), 56), record.size());
  EXPECT_EQ(load<std::uint32_t>(record.data(), 60), 2U);
  EXPECT_EQ(load<std::uint32_t>(record.data(), 64), expectedName.size() + 1);
  EXPECT_EQ(name(record), expectedName);
  const char* area = record.data() + 68 + expectedName.size() + 1;
  EXPECT_EQ(load<std::uint32_t>(area, 0), 6U);
  EXPECT_STREQ(area + load<std::uint64_t>(area, 8), "one");
  EXPECT_EQ(load<std::uint32_t>(area, 32), 1U);
  EXPECT_EQ(load<std::int32_t>(area, 40), 2);
  // Two entries, the string with its NUL, and the tail.
  EXPECT_EQ(record.size(), 72 + expectedName.size() + 1 + 64 + 4);
  EXPECT_EQ(record.substr(record.size() - 4), std::string(4, '\0'));
}

TEST_F(VProbTest, theEventIsLoggedWithItsText) {
  vprob.VProb_PostClear("@&!*@*@(orn.clear.t.x)%s (%d) %ss", "Three", 3, "arg");
  const auto lines = log.take();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_TRUE(lines[0].ends_with(" 1767225600000000us: [orn.clear.t.x] Three (3) args\n")) << lines[0];
}

TEST_F(VProbTest, aTemplateWithoutArgumentsHasAnEmptyArea) {
  vprob.VProb_PostAudit("@&!*@*@(orn.audit.x)No args");
  const std::string record = received();
  EXPECT_EQ(load<std::uint32_t>(record.data(), 60), 0U);
  EXPECT_EQ(record.size(), 72 + std::strlen("orn.audit.x") + 1);
}

TEST_F(VProbTest, theSplitIsByKindAndBlind) {
  vprob.VProb_PostProblem("@&!*@*@(orn.audit.abcdef)text");
  EXPECT_EQ(name(received()), "orn.problem.cdef");
  vprob.VProb_PostAudit("@&!*@*@(orn.audit.abcdef)text");
  EXPECT_EQ(name(received()), "orn.audit.abcdef");
}

TEST_F(VProbTest, aNameOf128IsPostedAndOneOf129IsDroppedSilently) {
  const std::string longest = std::string("orn.audit.") + std::string(118, 'n');
  postAudit("@&!*@*@(" + longest + ")t");
  EXPECT_EQ(name(received()), longest);
  log.take();
  postAudit("@&!*@*@(" + longest + "n)t");
  EXPECT_EQ(received(), "");
  EXPECT_TRUE(log.take().empty());
}

TEST_F(VProbTest, theThousandAndFirstPostOfAPeriodIsDroppedUntilSixtySecondsAfterItsFirst) {
  for (int n = 0; n < 1000; ++n) vprob.VProb_PostAudit("@&!*@*@(orn.audit.x)t");
  EXPECT_EQ(droppedLines(), 0U);
  EXPECT_EQ(receiver.take().size(), 1000U);
  vprob.VProb_PostAudit("@&!*@*@(orn.audit.x)t");
  EXPECT_EQ(droppedLines(), 1U);
  clock.pass(59s);
  vprob.VProb_PostAudit("@&!*@*@(orn.audit.x)t");
  EXPECT_EQ(droppedLines(), 1U);
  EXPECT_EQ(receiver.take().size(), 0U);
  clock.pass(1s);
  vprob.VProb_PostAudit("@&!*@*@(orn.audit.x)t");
  EXPECT_EQ(droppedLines(), 0U);
  EXPECT_EQ(receiver.take().size(), 1U);
}

TEST_F(VProbTest, anOverlongNameStillCountsAgainstTheRateLimit) {
  const std::string overlong = "@&!*@*@(orn.audit." + std::string(119, 'n') + ")t";
  for (int n = 0; n < 1000; ++n) postAudit(overlong);
  vprob.VProb_PostAudit("@&!*@*@(orn.audit.x)t");
  EXPECT_EQ(droppedLines(), 1U);
}

TEST_F(VProbTest, queueOnlyLogsTheMessageAndMakesNoConnection) {
  vprob.VProb_Post(true, keld::VProbKind::audit, "@&!*@*@(orn.audit.x)t");
  EXPECT_TRUE(receiver.take().empty());
  EXPECT_TRUE(log.has("An event (orn.audit.x) could not be sent immediately to hagd; queueing for retry."));
  timers.advance(180s);
  EXPECT_TRUE(log.has("Successfully sent event (orn.audit.x) after 1 failure.\n"));
  EXPECT_EQ(name(received()), "orn.audit.x");
}

TEST_F(VProbTest, aGrownRecordIsSentWholeWithAZeroTail) {
  const std::string text(5000, 'y');
  vprob.VProb_PostAudit("@&!*@*@(orn.audit.x)%s", text.c_str());
  const std::string record = received();
  EXPECT_EQ(load<std::uint32_t>(record.data(), 56), record.size());
  EXPECT_EQ(record.size(), 72 + 12 + 32 + text.size() + 1);
  EXPECT_EQ(record.substr(record.size() - 4), std::string(4, '\0'));
}

TEST_F(VProbTest, argumentsThatFitTheFifthBufferExactlyPassAndOneByteMoreIsDroppedSilently) {
  // 18736 bytes hold the header of 72, the name of 12, one entry of 32, and the text with its NUL.
  const std::string fits(18736 - 72 - 12 - 32 - 1, 'y');
  vprob.VProb_PostAudit("@&!*@*@(orn.audit.x)%s", fits.c_str());
  EXPECT_EQ(received().size(), 18736U);
  log.take();
  vprob.VProb_PostAudit("@&!*@*@(orn.audit.x)%s", (fits + "y").c_str());
  EXPECT_EQ(received(), "");
  EXPECT_TRUE(log.take().empty());
}

TEST_F(VProbTest, theDiscouragedInterfaceSaysSoAndPostsAProblem) {
  vprob.Keld_PostProblem("old.style", "number %d", 7);
  EXPECT_EQ(log.take().front(), "Using discouraged \"Keld_PostProblem\" interface for vprob: old.style");
  EXPECT_EQ(name(received()), "orn.problem.old.style");
}

using VProbDeathTest = VProbTest;

TEST_F(VProbDeathTest, anUnknownKindPanics) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_DEATH(vprob.VProb_Post(false, static_cast<keld::VProbKind>(3), "@&!*@*@(orn.audit.x)t"),
               "Keld - Panic: NOT_REACHED keldVprob:[0-9]+");
}

TEST(RateLimitTest, aClockSteppedBackKeepsThePeriod) {
  keld::RateLimit limit;
  for (int n = 0; n < 1000; ++n) EXPECT_TRUE(limit.allow(1000));
  EXPECT_FALSE(limit.allow(10));
  EXPECT_FALSE(limit.allow(1059));
  EXPECT_TRUE(limit.allow(1060));
}

}  // namespace
