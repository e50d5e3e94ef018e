#include "keldPageErrors.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "manualTime.h"
#include "modelHost.h"

namespace {

using namespace std::chrono_literals;
using keld::PageErrors;

class PageErrorsTest : public testing::Test {
 protected:
  support::ModelHost host;
  support::ManualClock clock;
  support::ManualTimers timers{clock};
};

TEST_F(PageErrorsTest, MoreThanTheThresholdWithinOnePeriodIsTooMany) {
  const auto errors = PageErrors::start(timers);
  EXPECT_FALSE(errors->add(1, 1));
  EXPECT_FALSE(errors->add(1, 1));
  EXPECT_FALSE(errors->add(2, 1));
  EXPECT_TRUE(errors->add(1, 1));
}

TEST_F(PageErrorsTest, ThePeriodsEndClearsTheCounts) {
  const auto errors = PageErrors::start(timers);
  errors->add(1, 2);
  timers.advance(29s);
  EXPECT_TRUE(errors->add(1, 1));
  timers.advance(1s);
  EXPECT_FALSE(errors->add(1, 2));
}

TEST_F(PageErrorsTest, ACountThatWouldPass255StaysWhereItWas) {
  host.write(R"({"options": {"PageRetire/PageErrorCorrThreshold": 250}})");
  const auto errors = PageErrors::start(timers);
  EXPECT_FALSE(errors->add(1, 250));
  EXPECT_FALSE(errors->add(1, 10));
  EXPECT_TRUE(errors->add(1, 5));  // 255, which still fits
  EXPECT_TRUE(errors->add(1, 1));  // not 256
  EXPECT_TRUE(errors->add(1, 0));
}

TEST_F(PageErrorsTest, TheSumWrapsAndIsComparedAsASignedNumber) {
  host.write(R"({"options": {"PageRetire/PageErrorCorrThreshold": 4}})");
  const auto errors = PageErrors::start(timers);
  EXPECT_FALSE(errors->add(1, 0x80000000U));   // a negative sum is not above 255; its low byte is 0
  EXPECT_TRUE(errors->add(1, 0x80000005U));    // low byte 5
  EXPECT_TRUE(errors->add(2, 0xffffffffU));    // -1: low byte 255
  EXPECT_FALSE(errors->add(3, 0x100000000U));  // only the low 32 bits take part
  EXPECT_FALSE(errors->add(3, 0x7fffffffU));   // a large positive sum leaves the count alone
}

TEST_F(PageErrorsTest, OnlyTheLowEightBitsOfTheThresholdAreCompared) {
  host.write(R"({"options": {"PageRetire/PageErrorCorrThreshold": 258}})");
  const auto errors = PageErrors::start(timers);
  EXPECT_FALSE(errors->add(1, 2));
  EXPECT_TRUE(errors->add(1, 1));
}

TEST_F(PageErrorsTest, OptionsAreReadAgainEveryMinute) {
  const auto errors = PageErrors::start(timers);
  host.write(R"({"options": {"PageRetire/PageErrorCorrThreshold": 0}})");
  timers.advance(59s);
  EXPECT_FALSE(errors->add(1, 1));
  timers.advance(1s);
  EXPECT_TRUE(errors->add(2, 1));
}

TEST_F(PageErrorsTest, ItsTimersKeepItAliveForTheirCallbacks) {
  const std::weak_ptr<PageErrors> errors = PageErrors::start(timers);
  timers.advance(120s);
  EXPECT_FALSE(errors.expired());
}

TEST_F(PageErrorsTest, APeriodOfZeroNeverClears) {
  host.write(R"({"options": {"PageRetire/PageErrorCorrPeriod": 0}})");
  const auto errors = PageErrors::start(timers);
  errors->add(1, 2);
  timers.advance(3600s);
  EXPECT_TRUE(errors->add(1, 1));
}

TEST_F(PageErrorsTest, CountingAndClearingMayMeet) {
  const auto errors = PageErrors::start(timers);
  std::atomic<bool> ended{false};
  std::thread counting([&] {
    for (std::uint64_t n = 0; n < 20000; ++n) errors->add(n % 7, 1);
    ended = true;
  });
  while (!ended) timers.advance(30s);
  counting.join();
  timers.advance(30s);
  EXPECT_FALSE(errors->add(1, 1));
}

}  // namespace
