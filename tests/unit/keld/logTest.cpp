#include "keldLog.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <thread>

#include "observation.h"
#include "platform/vthread.h"
#include "recordingPost.h"

namespace {

using namespace std::chrono_literals;

/// Sets the process's time zone for one test.
class TimeZone {
 public:
  explicit TimeZone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
  }
  TimeZone(const TimeZone&) = delete;
  TimeZone& operator=(const TimeZone&) = delete;
  ~TimeZone() {
    unsetenv("TZ");
    tzset();
  }
};

// 2026-03-01 14:05:09.0427 UTC
constexpr WallTime kMoment{1'772'373'909'042'700'000ns};

std::string timestamp(bool milliseconds) {
  char buffer[32];
  const std::size_t length = keld::makeTimestamp(kMoment, milliseconds, buffer, sizeof buffer);
  return {buffer, length};
}

TEST(TimestampTest, hasMillisecondsTruncatedBeforeTheLetterZ) {
  const TimeZone zone("UTC0");
  EXPECT_EQ(timestamp(true), "2026-03-01T14:05:09.042Z: ");
  EXPECT_EQ(timestamp(false), "2026-03-01T14:05:09Z: ");
}

TEST(TimestampTest, isLocalTimeAlthoughItCarriesTheLetterZ) {
  const TimeZone zone("XYZ-2");
  EXPECT_EQ(timestamp(true), "2026-03-01T16:05:09.042Z: ");
}

TEST(TimestampTest, isEmptyWhereItDoesNotFit) {
  char small[10];
  EXPECT_EQ(keld::makeTimestamp(kMoment, false, small, sizeof small), 0U);
  char tight[24];
  EXPECT_EQ(keld::makeTimestamp(kMoment, true, tight, sizeof tight), 0U);
}

TEST(LogObservationTest, carriesThreadTimeStampIdentifierAndMessage) {
  support::RecordingLog log;
  std::thread([] {
    VThreadBase_SetName("UserLevelCorrelator");
    keld::logObservation(support::observation("kel.user.x", {support::s("one")}, "the %s message").get());
  }).join();
  EXPECT_EQ(log.take(),
            std::vector<std::string>{"[UserLevelCorrelator] 1767225600000000us: [kel.user.x] the one message\n"});
}

TEST(LogObservationTest, fromPartsWritesTheSameLine) {
  support::RecordingLog log;
  std::thread([] {
    VThreadBase_SetName("netCorrelator");
    keld::logObservation("orn.problem.x", "text", 42);
  }).join();
  EXPECT_EQ(log.take(), std::vector<std::string>{"[netCorrelator] 42us: [orn.problem.x] text\n"});
}

/// Writes log lines to standard error, where a death test sees them.
class StandardErrorLog final : public keld::LogSink {
 public:
  void line(const char* text) override { std::fprintf(stderr, "<log:%s>", text); }
};

TEST(PanicDeathTest, valuesGoToStandardErrorAndTheBareFormatToTheLog) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_DEATH(
      {
        StandardErrorLog log;
        keld::setLogSink(&log);
        keld::Panic("x=%d", 5);
      },
      "Keld - Panic: x=5<log:Keld - Panic: ><log:x=%d>");
}

}  // namespace
