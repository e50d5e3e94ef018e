#include "keldAside.h"

#include <gtest/gtest.h>

#include <latch>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using keld::AsideThread;

class AsideTest : public testing::Test {
 protected:
  // Never destroyed, as its thread demands.
  AsideThread& aside = *new AsideThread(systemClock());
};

TEST_F(AsideTest, workIsDoneOnAnotherThreadAndFinishWaitsForIt) {
  std::thread::id worker;
  aside.doLatest([&] { worker = std::this_thread::get_id(); });
  aside.finish();
  EXPECT_NE(worker, std::thread::id());
  EXPECT_NE(worker, std::this_thread::get_id());
}

TEST_F(AsideTest, ofWhatWaitsOnlyTheLatestIsDone) {
  std::vector<int> done;
  std::latch begun(1), go(1);
  aside.doLatest([&] {
    begun.count_down();
    go.wait();
    done.push_back(0);
  });
  begun.wait();
  for (int n = 1; n <= 5; ++n) aside.doLatest([&done, n] { done.push_back(n); });
  go.count_down();
  aside.finish();
  EXPECT_EQ(done, (std::vector<int>{0, 5}));
}

TEST_F(AsideTest, aFailureEndsNothing) {
  bool done = false;
  aside.doLatest([] { throw std::runtime_error("the disk is gone"); });
  aside.finish();
  aside.doLatest([&] { done = true; });
  aside.finish();
  EXPECT_TRUE(done);
}

TEST(AsideThreadTest, finishingWithoutWorkReturnsAtOnce) {
  AsideThread idle(systemClock());  // has no thread yet
  idle.finish();
}

}  // namespace
