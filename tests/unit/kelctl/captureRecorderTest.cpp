#include "captureRecorder.h"

#include <gtest/gtest.h>

#include "clockSteps.h"

namespace {

using kelctl::CaptureRecorder;
using kelctl::ClockReadings;
using kelctl::ClockSteps;
using Json = nlohmann::json;

constexpr std::int64_t kSecond = 1'000'000'000;
constexpr std::int64_t kBegin = 1'767'225'600 * kSecond;

/// A trace line of `seconds` after the begin.
std::string line(double seconds, const std::string& rest = "") {
  const auto time = kBegin + static_cast<std::int64_t>(seconds * 1e9);
  return kelctl::captureTimeText(time) + ",IN,1,kel.x," + rest + "\n";
}

std::string at(double seconds) {
  return kelctl::captureTimeText(kBegin + static_cast<std::int64_t>(seconds * 1e9));
}

TEST(ClockStepsTest, AreWhatTheRealClockDoesAndTheOtherDoesNot) {
  ClockSteps steps({kBegin, 5 * kSecond});
  EXPECT_FALSE(steps.look({kBegin + 100 * kSecond, 105 * kSecond})) << "time passed";
  const auto forwards = steps.look({kBegin + 161 * kSecond, 106 * kSecond});
  ASSERT_TRUE(forwards);
  EXPECT_EQ(forwards->from, kBegin + 101 * kSecond);
  EXPECT_EQ(forwards->to, kBegin + 161 * kSecond);
  const auto backwards = steps.look({kBegin, 107 * kSecond});
  ASSERT_TRUE(backwards);
  EXPECT_EQ(backwards->from, kBegin + 162 * kSecond);
  EXPECT_EQ(backwards->to, kBegin);
  EXPECT_FALSE(steps.look({kBegin + kSecond, 108 * kSecond})) << "told once";
}

TEST(ClockStepsTest, LessThanASecondIsKeptUntilItIsMore) {
  ClockSteps steps({kBegin, 0});
  EXPECT_FALSE(steps.look({kBegin + kSecond * 6 / 10, 0}));
  const auto step = steps.look({kBegin + kSecond * 12 / 10, 0});
  ASSERT_TRUE(step);
  EXPECT_EQ(step->from, kBegin);
  EXPECT_EQ(step->to, kBegin + kSecond * 12 / 10);
}

class CaptureRecorderTest : public testing::Test {
 protected:
  CaptureRecorder recorder(bool history) {
    return {{[this] { return clocks_; }, [this] { return facts_; }}, history, kSecond, [this](std::string_view text) {
              written_ += text;
            }};
  }
  /// Both clocks go on.
  void pass(double seconds) {
    clocks_.real += static_cast<std::int64_t>(seconds * 1e9);
    clocks_.monotonic += static_cast<std::int64_t>(seconds * 1e9);
  }
  void setClock(double seconds) { clocks_.real = kBegin + static_cast<std::int64_t>(seconds * 1e9); }
  std::string written() { return std::exchange(written_, {}); }

  ClockReadings clocks_{kBegin, 5 * kSecond};
  Json facts_ = Json::parse(R"({"a": 1, "options": {}})");
  std::string written_;
};

TEST_F(CaptureRecorderTest, FromNowOnLeavesTheHistoryOut) {
  auto recorder = this->recorder(false);
  recorder.connected();
  pass(10);
  recorder.take(line(1) + line(2) + "\n" + line(9) + "\n" + line(9.5));
  EXPECT_EQ(written(), line(9) + "\n" + line(9.5)) << "an empty line behind the history is of the trace";
}

TEST_F(CaptureRecorderTest, TheHistoryIsTakenOnDemandWithoutTheMarkBehindIt) {
  auto recorder = this->recorder(true);
  recorder.connected();
  pass(0.5);
  const std::string stream = line(0.1) + line(0.2, ",\"a\n\nb\"") + "\n" + line(0.3);
  for (const char byte : stream) recorder.take(std::string_view(&byte, 1));
  EXPECT_EQ(written(), line(0.1) + line(0.2, ",\"a\n\nb\"") + line(0.3));
}

TEST_F(CaptureRecorderTest, AChangeOfTheFactsStandsBeforeTheLinesThatWereReadWithIt) {
  auto recorder = this->recorder(false);
  recorder.connected();
  recorder.take("\n");
  facts_["a"] = 2;
  pass(0.5);
  recorder.take(line(0.4));
  EXPECT_EQ(written(), line(0.4)) << "looked at a second ago at the earliest";
  pass(0.5);
  recorder.idle();
  EXPECT_EQ(written(), "") << "no line came";
  recorder.take(line(0.9).substr(0, 10));
  EXPECT_EQ(written(), "") << "no whole line came";
  recorder.take(line(0.9).substr(10) + line(0.95));
  EXPECT_EQ(written(), "#facts " + at(0.9) + " {\"a\":2}\n" + line(0.9) + line(0.95));
  EXPECT_EQ(recorder.facts(), facts_);
  pass(2);
  recorder.take(line(2));
  EXPECT_EQ(written(), line(2)) << "nothing changed";
}

TEST_F(CaptureRecorderTest, ALineThatNoReaderWouldTakeForOneGoesBehindBad) {
  auto recorder = this->recorder(false);
  recorder.connected();
  recorder.take("\n" + line(0) + "#end 1.000000000\n1.0,IN,1,kel.a,b,,\"\n" + line(0));
  EXPECT_EQ(written(), line(0) + "#bad #end 1.000000000\n");
  EXPECT_EQ(recorder.disconnected(), 0U);
  EXPECT_EQ(written(), "#bad 1.0,IN,1,kel.a,b,,\"\n" + line(0));
}

TEST_F(CaptureRecorderTest, WhatIsCutOffAtTheEndOfAConnectionIsCounted) {
  auto recorder = this->recorder(false);
  recorder.connected();
  recorder.take("\n" + line(0) + "12345");
  EXPECT_EQ(recorder.disconnected(), 5U);
  EXPECT_EQ(written(), line(0));
}

TEST_F(CaptureRecorderTest, ADaemonStartedAnewIsToldAndItsHistoryTakenWhole) {
  auto recorder = this->recorder(false);
  recorder.connected();
  recorder.take("\n" + line(0));
  recorder.disconnected();
  EXPECT_EQ(written(), line(0));
  facts_["a"] = 2;
  pass(0.7);
  recorder.connected();
  recorder.take(line(0.5) + line(0.6));
  EXPECT_EQ(written(), "") << "whether the daemon is a new one shows at the end of its history";
  recorder.take("\n" + line(0.7));
  EXPECT_EQ(written(),
            "#facts " + at(0.5) + " {\"a\":2}\n#restart " + at(0.5) + "\n" + line(0.5) + line(0.6) + line(0.7));
}

TEST_F(CaptureRecorderTest, ADaemonWithoutHistoryIsToldAtOnce) {
  auto recorder = this->recorder(true);
  recorder.connected();
  recorder.take(line(0) + "\n");
  recorder.disconnected();
  (void)written();
  pass(3);
  recorder.connected();
  recorder.take("\n");
  EXPECT_EQ(written(), "#restart " + at(3) + "\n");
}

TEST_F(CaptureRecorderTest, ADaemonThatOnlyClosedTheConnectionGoesOnWhereItWas) {
  auto recorder = this->recorder(false);
  recorder.connected();
  recorder.take(line(-1) + "\n" + line(0) + line(0.1));
  recorder.disconnected();
  (void)written();
  recorder.connected();
  recorder.take(line(-1));
  recorder.disconnected();
  recorder.connected();
  recorder.take(line(-1) + line(0) + line(0.1) + line(0.2) + "\n" + line(0.3));
  EXPECT_EQ(written(), line(0.2) + line(0.3));
}

TEST_F(CaptureRecorderTest, TheClocksSettingStandsBetweenTheLinesItCameBetween) {
  auto recorder = this->recorder(false);
  recorder.connected();
  recorder.take("\n" + line(0));
  pass(1);
  setClock(3600);
  recorder.take(line(0.9) + line(3600) + line(3600.1));
  EXPECT_EQ(written(), line(0) + line(0.9) + "#step " + at(1) + " " + at(3600) + "\n" + line(3600) + line(3600.1));
  pass(1);
  setClock(100);
  recorder.take(line(3600.9) + line(100) + line(100.1));
  EXPECT_EQ(written(), line(3600.9) + "#step " + at(3601) + " " + at(100) + "\n" + line(100) + line(100.1));
}

TEST_F(CaptureRecorderTest, AClocksSettingThatIsNoticedLateIsToldAsOfTheLineThatShowsIt) {
  auto recorder = this->recorder(false);
  recorder.connected();
  recorder.take("\n" + line(0));
  pass(1);
  setClock(3600);
  pass(5);
  recorder.take(line(3602));
  EXPECT_EQ(written(), line(0) + "#step " + at(3) + " " + at(3602) + "\n" + line(3602));
  setClock(100);
  pass(2);
  recorder.take(line(3604.5) + line(101));
  EXPECT_EQ(written(), line(3604.5) + "#step " + at(3606) + " " + at(101) + "\n" + line(101));
}

TEST_F(CaptureRecorderTest, TheClocksSettingIsToldWithoutALineOnceAllIsTaken) {
  auto recorder = this->recorder(false);
  recorder.connected();
  recorder.take("\n" + line(0));
  pass(1);
  setClock(3600);
  recorder.take(line(0.9));
  EXPECT_EQ(written(), line(0) + line(0.9));
  recorder.idle();
  EXPECT_EQ(written(), "#step " + at(1) + " " + at(3600) + "\n");
  recorder.idle();
  EXPECT_EQ(written(), "");
}

}  // namespace
