#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "modelHost.h"
#include "scenarioTools.h"

namespace {

using namespace std::chrono_literals;
using scenario::diagnostics;
using scenario::Events;
using scenario::Lines;
using support::i;
using support::L;
using support::problem;
using support::s;

constexpr const char* kExceeded = "kel.pageretire.selectedmpnthreshold.host.exceeded";
constexpr const char* kNotRetired = "kel.pageretire.selectedbutnotretired.high";
constexpr const char* kRequest = "kel.pageretire.platform.retire.request";

class PageRetire : public testing::Test {
 protected:
  void model(const std::string& threshold, std::int64_t interval, const std::string& rest = "") const {
    host.write(R"({"pageRetire":{"threshold":)" + threshold + R"(},"options":{"PageRetire/ThresholdInterval":)" +
               std::to_string(interval) + "}" + rest + "}");
  }
  void start() { driver = std::make_unique<support::Driver>(scenario, keld::kPageRetireCorrelator); }
  void logging(const std::string& value) const {
    host.write(R"({"options":{"PageRetire/ApeiLoggingEnabled":)" + value + "}}");
  }
  /// Which of the counts are posted, observed in their order.
  std::vector<std::uint64_t> posted(const std::vector<std::uint64_t>& counts) {
    std::vector<std::uint64_t> posted;
    for (const std::uint64_t count : counts) {
      driver->observe(kExceeded, {L(count)});
      if (!driver->events().empty()) posted.push_back(count);
    }
    return posted;
  }
  Events request() {
    driver->observe(kRequest, {s("fru 1"), s("log 2")});
    return driver->events();
  }
  static support::PostedEvent requested(const std::string& fru = "fru 1", const std::string& log = "log 2") {
    return problem("orn.problem.pageretire.platform.retire.request",
                   "Memory page retirement requested by platform firmware. FRU ID: " + fru +
                       ". Refer to System Hardware Log: " + log);
  }

  support::ModelHost host;
  support::Scenario scenario;
  std::unique_ptr<support::Driver> driver;
};
using PageRetireDeathTest = PageRetire;
using Counts = std::vector<std::uint64_t>;

TEST_F(PageRetire, aCountAboveTheThresholdIsPostedWithBoth) {
  model("100", 10);
  start();
  driver->observe(kExceeded, {L(101)});
  EXPECT_EQ(driver->events(), Events{problem("orn.problem.pageretire.selectedmpnthreshold.host.exceeded",
                                             "Number of host physical memory pages that have been selected for "
                                             "retirement (101) exceeds threshold (100).")});
  EXPECT_EQ(diagnostics(scenario), Lines{});
}

TEST_F(PageRetire, aCountIsPostedWhenItHasGrownByTheIntervalSinceTheLastPost) {
  model("100", 10);
  start();
  EXPECT_EQ(posted({101, 105, 110, 111, 121}), (Counts{101, 111, 121}));
}

TEST_F(PageRetire, aCountNotAboveTheThresholdIsNot) {
  model("100", 10);
  start();
  EXPECT_EQ(posted({0, 50, 99, 100}), Counts{});
}

TEST_F(PageRetire, theCountReportedLastIsNeverLowered) {
  model("100", 10);
  start();
  EXPECT_EQ(posted({150, 50, 101, 120, 159}), Counts{150});
  EXPECT_EQ(posted({160}), Counts{160});
}

TEST_F(PageRetire, anIntervalAboveTheCountWrapsAroundSoThatEveryCountIsPosted) {
  model("100", 200);
  start();
  EXPECT_EQ(posted({101, 101, 102, 150, 199, 100}), (Counts{101, 101, 102, 150, 199}));
}

TEST_F(PageRetire, theIntervalIsAWholeNumberOfPages) {
  model("109", 10);  // ten
  start();
  EXPECT_EQ(posted({110, 119, 120}), (Counts{110, 120}));
}

TEST_F(PageRetire, anIntervalOfZeroPostsEveryCountThatHasNotFallen) {
  model("100", 0);
  start();
  EXPECT_EQ(posted({101, 101, 102, 101}), (Counts{101, 101, 102}));
}

TEST_F(PageRetire, theProductOfThresholdAndIntervalWrapsAt64Bits) {
  model("9223372036854775808", 2);  // the product is 0, and so is the step
  start();
  EXPECT_EQ(posted({9223372036854775809U, 9223372036854775809U}), (Counts{9223372036854775809U, 9223372036854775809U}));
}

TEST_F(PageRetire, thresholdAndIntervalAreReadOnce) {
  model("100", 10);
  start();
  model("10", 1);
  EXPECT_EQ(posted({50, 101, 105, 111}), (Counts{101, 111}));
}

TEST_F(PageRetire, withoutAnyOptionThresholdAndIntervalAre100And10) {
  start();
  EXPECT_EQ(posted({100, 101, 110, 111}), (Counts{101, 111}));
}

TEST_F(PageRetireDeathTest, aThresholdThatCannotBeReadAtTheStartIsFatal) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  model("100", 10, R"(,"failures":{"pageRetire.threshold":5})");
  EXPECT_DEATH(start(), "NOT_REACHED apps/keld/keldPageRetireCorrelator:178");
}

TEST_F(PageRetireDeathTest, anIntervalThatCannotBeReadAtTheStartIsFatal) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  model("100", 10, R"(,"failures":{"option.read:PageRetire/ThresholdInterval":5})");
  EXPECT_DEATH(start(), "NOT_REACHED apps/keld/keldPageRetireCorrelator:189");
}

TEST_F(PageRetire, aCountThatCannotBeReadIsZero) {
  start();
  driver->observe(kExceeded);
  driver->observe(kExceeded, {s("101")});
  EXPECT_EQ(driver->events(), Events{});
  EXPECT_EQ(diagnostics(scenario), Lines{});
}

TEST_F(PageRetire, pagesSelectedButNotRetiredArePostedOnce) {
  start();
  driver->observe(kNotRetired, {L(12345678901)});
  EXPECT_EQ(driver->events(), Events{problem("orn.problem.pageretire.selectedbutnotretired.high",
                                             "Number of host physical memory pages that have been selected for "
                                             "retirement but could not yet be retired is high: 12345678901")});
  driver->observe(kNotRetired, {L(2)});
  driver->pass(86400s);
  driver->observe(kNotRetired, {L(3)});
  EXPECT_EQ(driver->events(), Events{});
}

TEST_F(PageRetire, pagesSelectedButNotRetiredWithoutACountArePostedAsZeroAllTheSame) {
  start();
  driver->observe(kNotRetired);
  EXPECT_EQ(driver->events(), Events{problem("orn.problem.pageretire.selectedbutnotretired.high",
                                             "Number of host physical memory pages that have been selected for "
                                             "retirement but could not yet be retired is high: 0")});
  driver->observe(kNotRetired, {L(3)});
  EXPECT_EQ(driver->events(), Events{});
}

TEST_F(PageRetire, firmwareRequestsArePostedWhereLoggingIsEnabled) {
  start();
  EXPECT_EQ(request(), Events{});  // not enabled by default
  logging("1");
  EXPECT_EQ(request(), Events{requested()});
  EXPECT_EQ(request(), Events{requested()});
  logging("0");
  EXPECT_EQ(request(), Events{});
  logging("-1");
  EXPECT_EQ(request(), Events{requested()});
}

TEST_F(PageRetire, onlyTheLow32BitsOfTheLoggingOptionCount) {
  start();
  logging("4294967296");
  EXPECT_EQ(request(), Events{});
  logging("4294967297");
  EXPECT_EQ(request(), Events{requested()});
}

TEST_F(PageRetire, aFirmwareRequestWhoseTextsCannotBeReadIsPostedWithoutThem) {
  logging("1");
  start();
  driver->observe(kRequest, {s("fru 1")});
  EXPECT_EQ(driver->events(), Events{requested("(null)", "(null)")});
}

TEST_F(PageRetireDeathTest, aLoggingOptionThatCannotBeReadIsFatal) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  start();
  host.write(R"({"failures":{"option.read:PageRetire/ApeiLoggingEnabled":5}})");
  EXPECT_DEATH(request(), "NOT_REACHED apps/keld/keldPageRetireCorrelator:126");
}

TEST_F(PageRetireDeathTest, theLoggingOptionIsReadBeforeTheIdentifierIsLookedAt) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  host.write(R"({"failures":{"option.read:PageRetire/ApeiLoggingEnabled":5}})");
  EXPECT_DEATH(scenario::callHandler(scenario, keld::kPageRetireCorrelator, kRequest, "kel.pageretire.other"),
               "NOT_REACHED apps/keld/keldPageRetireCorrelator:126");
}

TEST_F(PageRetire, handlersDoNothingForAnotherIdentifier) {
  logging("1");
  for (const char* registered : {kExceeded, kNotRetired, kRequest}) {
    scenario::callHandler(scenario, keld::kPageRetireCorrelator, registered, "kel.pageretire.other", {L(101)});
    EXPECT_EQ(scenario.post.take(), Events{}) << registered;
  }
}

TEST_F(PageRetire, anUnknownObservationIsIgnoredSilently) {
  start();
  driver->observe("kel.pageretire.unheard.of", {L(101)});
  EXPECT_EQ(driver->events(), Events{});
  EXPECT_EQ(scenario.log.take(), Lines{});
}

}  // namespace
