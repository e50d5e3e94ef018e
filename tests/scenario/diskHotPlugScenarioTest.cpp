#include <gtest/gtest.h>

#include <string>

#include "scenarioTools.h"

namespace {

using scenario::Arguments;
using scenario::callHandler;
using scenario::Events;
using support::audit;
using support::i;
using support::null;
using support::problem;
using support::s;

constexpr const char* kInserted = "kel.hcm.event.disk.insertion";
constexpr const char* kRemoved = "kel.hcm.event.disk.removal";
constexpr const char* kPredicted = "kel.hcm.event.disk.predictive.failure";

class DiskHotPlugScenario : public testing::Test {
 protected:
  Events observed(const char* id, const Arguments& arguments) {
    driver.observe(id, arguments);
    return driver.events();
  }
  static support::PostedEvent inserted(const std::string& disk) {
    return audit("orn.audit.hcm.event.disk.insertion", "A physical disk has been inserted (" + disk + ").");
  }
  static support::PostedEvent removed(const std::string& disk) {
    return audit("orn.audit.hcm.event.disk.removal", "A physical disk has been removed (" + disk + ").");
  }
  static support::PostedEvent predicted(const std::string& disk) {
    return problem("orn.problem.hcm.event.disk.predictive.failure",
                   "A physical disk has a predictive failure (" + disk + ").");
  }

  support::Scenario scenario;
  support::Driver driver{scenario, keld::kHcmCorrelator};
};

TEST_F(DiskHotPlugScenario, itWatchesItsOneGroupWithThreeHandlers) {
  EXPECT_STREQ(keld::kHcmCorrelator.nameWord, "HCM");
  ASSERT_EQ(keld::kHcmCorrelator.groups.size(), 1U);
  EXPECT_STREQ(keld::kHcmCorrelator.groups[0], "hcm");
  EXPECT_TRUE(keld::kHcmCorrelator.identifiers.empty());
  EXPECT_EQ(keld::kHcmCorrelator.make(scenario.services)->handlers().size(), 3U);
}

TEST_F(DiskHotPlugScenario, eachReportIsOneEventHoweverOftenItComes) {
  scenario::expectRows(scenario, driver,
                       {{kInserted, {s("disk 1")}, inserted("disk 1")},
                        {kRemoved, {s("disk 1")}, removed("disk 1")},
                        {kPredicted, {s("disk 1")}, predicted("disk 1")},
                        {kInserted, {s("disk 1"), s("surplus"), i(1)}, inserted("disk 1")},
                        {kInserted, {s("")}, inserted("")},
                        {kRemoved, {s("%s%n")}, removed("%s%n")}});
}

TEST_F(DiskHotPlugScenario, aPredictedFailureIsNeverCleared) {
  EXPECT_EQ(observed(kPredicted, {s("disk 1")}), Events{predicted("disk 1")});
  EXPECT_EQ(observed(kRemoved, {s("disk 1")}), Events{removed("disk 1")});
  EXPECT_EQ(observed(kInserted, {s("disk 1")}), Events{inserted("disk 1")});
}

TEST_F(DiskHotPlugScenario, aReportWithoutADiskPostsNothing) {
  for (const char* id : {kInserted, kRemoved, kPredicted}) {
    EXPECT_EQ(observed(id, {}), Events{}) << id;
    EXPECT_EQ(observed(id, {i(1)}), Events{}) << id;
    EXPECT_EQ(observed(id, {i(1), s("disk 1")}), Events{}) << id;
  }
}

TEST_F(DiskHotPlugScenario, aDiskWithoutANameIsShownAsSuch) {
  EXPECT_EQ(observed(kInserted, {null()}), Events{inserted("(null)")});
  EXPECT_EQ(observed(kRemoved, {null()}), Events{removed("(null)")});
  EXPECT_EQ(observed(kPredicted, {null()}), Events{predicted("(null)")});
}

TEST_F(DiskHotPlugScenario, aHandlerThatMeetsAnUnknownIdentifierPostsNothing) {
  for (const char* registered : {kInserted, kRemoved, kPredicted}) {
    callHandler(scenario, keld::kHcmCorrelator, registered, registered, {s("d")});
    EXPECT_EQ(driver.events().size(), 1U) << registered;
    callHandler(scenario, keld::kHcmCorrelator, registered, "kel.hcm.event.disk.other", {s("d")});
    callHandler(scenario, keld::kHcmCorrelator, registered, "", {s("d")});
    EXPECT_EQ(driver.events(), Events{}) << registered;
  }
}

TEST_F(DiskHotPlugScenario, anUnknownReportPostsNothing) {
  for (const char* id : {"kel.hcm.event.disk.other", "kel.hcm.event.disk", "kel.hcm.event.disk.insertion2", ""}) {
    EXPECT_EQ(observed(id, {s("disk 1")}), Events{}) << id;
  }
}

}  // namespace
