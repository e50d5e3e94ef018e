#include "replayTime.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

namespace {

using kelctl::ReplayClock;
using kelctl::ReplayTimers;
using keld::TimerMode;
using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr hours kYear{365 * 24};

class ReplayTimersTest : public testing::Test {
 protected:
  ReplayTimersTest() { clock_.set(kBegin + milliseconds(250)); }

  /// A timer that notes when it fires, in seconds from the beginning.
  int armed(TimerMode mode, std::uint32_t period) {
    const int id = timers_.create([this] { fired_.push_back(now()); });
    timers_.set(id, mode, period, nullptr);
    return id;
  }
  [[nodiscard]] std::int64_t now() const { return (clock_.wallSeconds() - kBegin).count(); }
  void advance(nanoseconds time) { timers_.advanceTo(clock_.wall() + time); }

  static constexpr WallSeconds kBegin{seconds(1'767'225'600)};
  ReplayClock clock_;
  int calls_ = 0;
  ReplayTimers timers_{clock_, [this](const keld::TimerCallback& callback) {
                         ++calls_;
                         callback();
                       }};
  std::vector<std::int64_t> fired_;
};

TEST_F(ReplayTimersTest, FireAtTheirOwnSeconds) {
  armed(TimerMode::periodic, 3);
  armed(TimerMode::oneShot, 5);
  advance(seconds(10));
  EXPECT_THAT(fired_, ElementsAre(3, 5, 6, 9));
  EXPECT_EQ(clock_.wall(), kBegin + milliseconds(10'250));
}

TEST_F(ReplayTimersTest, FireAtTheVeryEndAndNotBehindIt) {
  armed(TimerMode::oneShot, 5);
  armed(TimerMode::oneShot, 6);
  timers_.advanceTo(kBegin + seconds(5));
  EXPECT_THAT(fired_, ElementsAre(5));
}

TEST_F(ReplayTimersTest, MayBeArmedAndDisarmedByOneThatFires) {
  const int other = armed(TimerMode::periodic, 4);
  const int first = timers_.create([&] {
    timers_.set(other, TimerMode::oneShot, 0, nullptr);
    armed(TimerMode::oneShot, 2);
  });
  timers_.set(first, TimerMode::oneShot, 5, nullptr);
  advance(seconds(20));
  EXPECT_THAT(fired_, ElementsAre(4, 7));
}

TEST_F(ReplayTimersTest, TellWhatWasLeft) {
  const int id = armed(TimerMode::oneShot, 10);
  advance(seconds(4));
  std::uint32_t left = 0;
  EXPECT_EQ(timers_.set(id, TimerMode::oneShot, 0, &left), 0);
  EXPECT_EQ(left, 6U);
  EXPECT_NE(timers_.set(id + 1, TimerMode::oneShot, 1, nullptr), 0);
}

TEST_F(ReplayTimersTest, WaitForTheirSecondAgainWhereTheClockIsSetBack) {
  armed(TimerMode::oneShot, 5);
  advance(seconds(4));
  clock_.set(kBegin - seconds(100));
  timers_.fireDue();
  EXPECT_THAT(fired_, IsEmpty());
  advance(seconds(200));
  EXPECT_THAT(fired_, ElementsAre(5));
}

TEST_F(ReplayTimersTest, FireOnceWhereTheClockIsSetForwardOverThem) {
  armed(TimerMode::oneShot, 5);
  armed(TimerMode::periodic, 7);
  clock_.set(kBegin + seconds(100));
  timers_.fireDue();
  EXPECT_THAT(fired_, ElementsAre(100, 100));
  advance(seconds(10));
  EXPECT_THAT(fired_, ElementsAre(100, 100, 107));
}

TEST_F(ReplayTimersTest, DoNotAllFireInAYearInWhichNothingHappens) {
  armed(TimerMode::periodic, 60);
  armed(TimerMode::periodic, 7);
  advance(kYear);
  EXPECT_EQ(clock_.wall(), kBegin + kYear + milliseconds(250));
  EXPECT_LT(calls_, 2000);
}

TEST_F(ReplayTimersTest, KeepTheirPhaseOverAYear) {
  armed(TimerMode::periodic, 60);
  armed(TimerMode::periodic, 7);
  advance(seconds(4));
  armed(TimerMode::periodic, 11);
  advance(kYear);
  const std::int64_t begin = now();
  fired_.clear();
  advance(seconds(120));
  std::vector<std::int64_t> expected;
  for (std::int64_t second = begin + 1; second <= now(); ++second) {
    if (second % 60 == 0) expected.push_back(second);
    if (second % 7 == 0) expected.push_back(second);
    if ((second - 4) % 11 == 0) expected.push_back(second);
  }
  EXPECT_EQ(fired_, expected);
}

TEST_F(ReplayTimersTest, AllFireWithinAnHour) {
  armed(TimerMode::periodic, 60);
  advance(hours(1));
  EXPECT_EQ(fired_.size(), 60U);
}

TEST_F(ReplayTimersTest, AllFireWhileOneIsToFireButOnce) {
  armed(TimerMode::periodic, 60);
  armed(TimerMode::oneShot, 4 * 3600);
  advance(hours(4));
  EXPECT_EQ(fired_.size(), 241U);
}

TEST_F(ReplayTimersTest, AreArmedAtTheRightTimeBehindAYear) {
  armed(TimerMode::periodic, 60);
  advance(kYear);
  const std::int64_t begin = now();
  fired_.clear();
  const int id = armed(TimerMode::oneShot, 5);
  advance(seconds(10));
  EXPECT_THAT(fired_, testing::Contains(begin + 5));
  std::uint32_t left = 7;
  timers_.set(id, TimerMode::oneShot, 0, &left);
  EXPECT_EQ(left, 0U);
}

TEST_F(ReplayTimersTest, MonotonicTimeIsThatWhichPassed) {
  const seconds before = clock_.monotonic();
  advance(seconds(90));
  clock_.set(kBegin);
  advance(seconds(10));
  EXPECT_EQ(clock_.monotonic() - before, seconds(100));
}

}  // namespace
