#include "keldTimer.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>
#include <vector>

#include "manualTime.h"

namespace {

using namespace std::chrono_literals;
using keld::TimerMode;

class TimerTest : public testing::Test {
 protected:
  support::ManualClock clock;
  support::ManualTimers timers{clock};
  std::vector<int> fired;

  int create(int mark) {
    return timers.create([this, mark] { fired.push_back(mark); });
  }
};

TEST_F(TimerTest, idsCountFromZeroAndTheSeventeenthIsRefused) {
  for (int n = 0; n < 16; ++n) EXPECT_EQ(create(n), n);
  EXPECT_EQ(create(16), -1);
}

TEST_F(TimerTest, startsDisarmed) {
  create(1);
  timers.advance(3600s);
  EXPECT_TRUE(fired.empty());
}

TEST_F(TimerTest, oneShotFiresOnceAtItsSecond) {
  const int id = create(1);
  EXPECT_EQ(timers.set(id, TimerMode::oneShot, 5, nullptr), 0);
  timers.advance(4s);
  EXPECT_TRUE(fired.empty());
  timers.advance(1s);
  EXPECT_EQ(fired, std::vector{1});
  timers.advance(100s);
  EXPECT_EQ(fired, std::vector{1});
}

TEST_F(TimerTest, periodicOfFiveSecondsFiresEveryFiveUntilZeroDisarmsIt) {
  const int id = create(1);
  timers.set(id, TimerMode::periodic, 5, nullptr);
  timers.advance(15s);
  EXPECT_EQ(fired.size(), 3U);
  timers.advance(3s);
  std::uint32_t remaining = 99;
  EXPECT_EQ(timers.set(id, TimerMode::periodic, 0, &remaining), 0);
  EXPECT_EQ(remaining, 2U);
  timers.advance(60s);
  EXPECT_EQ(fired.size(), 3U);
}

TEST_F(TimerTest, dueAtTheSameSecondFireLowestIdFirst) {
  const int first = create(1);
  const int second = create(2);
  timers.set(second, TimerMode::oneShot, 7, nullptr);
  timers.set(first, TimerMode::oneShot, 7, nullptr);
  timers.advance(7s);
  EXPECT_EQ(fired, (std::vector{1, 2}));
}

TEST_F(TimerTest, remainingIsZeroWhenDisarmedOrPast) {
  const int id = create(1);
  std::uint32_t remaining = 99;
  timers.set(id, TimerMode::oneShot, 5, &remaining);
  EXPECT_EQ(remaining, 0U);
  clock.pass(6s);
  remaining = 99;
  timers.set(id, TimerMode::oneShot, 5, &remaining);
  EXPECT_EQ(remaining, 0U);
}

TEST_F(TimerTest, unknownIdAndModeAboveOneAreRefused) {
  const int id = create(1);
  EXPECT_EQ(timers.set(id + 1, TimerMode::oneShot, 1, nullptr), 1);
  EXPECT_EQ(timers.set(-1, TimerMode::oneShot, 1, nullptr), 1);
  EXPECT_EQ(timers.set(id, static_cast<TimerMode>(2), 1, nullptr), 1);
  EXPECT_FALSE(timers.armed());
}

TEST_F(TimerTest, aCorrectedClockMovesDeadlinesWithIt) {
  const int id = create(1);
  timers.set(id, TimerMode::oneShot, 10, nullptr);
  clock.correct(clock.wall() + 10s);
  timers.fireDue();
  EXPECT_EQ(fired, std::vector{1});
}

TEST_F(TimerTest, aCallbackMaySetItsOwnTimer) {
  int id = -1;
  id = timers.create([&] {
    fired.push_back(1);
    if (fired.size() < 3) timers.set(id, TimerMode::oneShot, 2, nullptr);
  });
  timers.set(id, TimerMode::oneShot, 2, nullptr);
  timers.advance(60s);
  EXPECT_EQ(fired.size(), 3U);
}

TEST(TimerServiceTest, runsCallbacksOnItsOwnThreadWithNoLockHeld) {
  // Never destroyed: its thread runs as long as the process.
  auto* service = new keld::TimerService(systemClock());
  ASSERT_EQ(service->start(), 0);
  std::promise<std::thread::id> ran;
  int id = -1;
  id = service->create([&] {
    service->set(id, TimerMode::oneShot, 0);
    ran.set_value(std::this_thread::get_id());
  });
  ASSERT_EQ(service->set(id, TimerMode::oneShot, 1), 0);
  auto result = ran.get_future();
  ASSERT_EQ(result.wait_for(30s), std::future_status::ready);
  EXPECT_NE(result.get(), std::this_thread::get_id());
}

}  // namespace
