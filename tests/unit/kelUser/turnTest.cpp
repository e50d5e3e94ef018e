#include "turn.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

using kelUser::Turn;
using kelUser::TurnTaken;
using std::chrono::steady_clock;

TEST(TurnTest, anothersTurnIsWaitedForUntilTheTimeOnly) {
  Turn turn;
  ASSERT_TRUE(turn.take(steady_clock::now()));
  std::thread([&] {
    EXPECT_FALSE(turn.take(steady_clock::now()));
    EXPECT_FALSE(turn.take(steady_clock::now() + std::chrono::milliseconds(20)));
  }).join();
  turn.end();
  std::thread([&] { EXPECT_TRUE(turn.take(steady_clock::now())); }).join();
}

TEST(TurnTest, whoeverWaitsGetsItWhenItEnds) {
  Turn turn;
  ASSERT_TRUE(turn.take(steady_clock::now()));
  bool taken = false;
  std::thread next([&] { taken = turn.take(steady_clock::now() + std::chrono::minutes(1)); });
  turn.end();
  next.join();
  EXPECT_TRUE(taken);
}

TEST(TurnTest, aTurnEndsThoughItsTimeIsLeftByAnException) {
  Turn turn;
  try {
    ASSERT_TRUE(turn.take(steady_clock::now()));
    const TurnTaken taken(turn);
    throw 1;
  } catch (int) {
  }
  EXPECT_TRUE(turn.take(steady_clock::now()));
}

}  // namespace
