#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "scenarioTools.h"

namespace {

using scenario::Arguments;
using scenario::Events;
using scenario::Lines;
using support::i;
using support::null;
using support::problem;
using support::s;

constexpr const char* kIdentifiers[] = {"kel.external.warning",    "kel.external.error",
                                        "kel.external.info",       "kel.user.external.warning",
                                        "kel.user.external.error", "kel.user.external.info"};

class ExternalScenario : public testing::Test {
 protected:
  Events observed(const char* id, const Arguments& arguments) {
    driver.observe(id, arguments);
    return driver.events();
  }
  static support::PostedEvent warning(const std::string& component, const std::string& link,
                                      const std::string& message) {
    return problem("orn.problem.3rdParty.warning",
                   "A 3rd party component, " + component +
                       ", running on ORNi has reported a warning related to a problem. Please follow the knowledge "
                       "base link (" +
                       link + ") to see the steps to remedy the problem as reported by " + component +
                       ". The message reported is: " + message + ".");
  }
  static support::PostedEvent error(const std::string& component, const std::string& link, const std::string& message) {
    return problem("orn.problem.3rdParty.error",
                   "A 3rd party component, " + component +
                       ", running on ORNi has reported an error. Please follow the knowledge base link (" + link +
                       ") to see the steps to remedy the problem as reported by " + component +
                       ". The message reported is: " + message + ".");
  }
  static support::PostedEvent information(const std::string& component, const std::string& link,
                                          const std::string& message) {
    return problem("orn.problem.3rdParty.information",
                   "A 3rd party component, " + component +
                       ", running on ORNi has reported an informational event. If needed, please follow the knowledge "
                       "base link (" +
                       link + ") to see the steps to remedythe problem as reported by " + component +
                       ". The message reported is: " + message + ".");
  }

  support::Scenario scenario;
  support::Driver driver{scenario, keld::kGenericCorrelator};
};

TEST_F(ExternalScenario, itWatchesTwoGroupsAndNoSingleIdentifier) {
  EXPECT_STREQ(keld::kGenericCorrelator.nameWord, "Generic");
  ASSERT_EQ(keld::kGenericCorrelator.groups.size(), 2U);
  EXPECT_STREQ(keld::kGenericCorrelator.groups[0], "user");
  EXPECT_STREQ(keld::kGenericCorrelator.groups[1], "external");
  EXPECT_TRUE(keld::kGenericCorrelator.identifiers.empty());
  const std::unique_ptr<keld::Correlator> correlator = keld::kGenericCorrelator.make(scenario.services);
  const keld::HandlerTable handlers = correlator->handlers();
  EXPECT_EQ(handlers.size(), 6U);
  for (const char* id : kIdentifiers) EXPECT_TRUE(handlers.contains(id)) << id;
}

TEST_F(ExternalScenario, reportsOfBothGroupsNameTheirComponentTwiceAndAreAllProblems) {
  const Arguments report = {s("raid driver"), s("http://kb/7"), s("fan 2 slow")};
  const support::PostedEvent warned = warning("raid driver", "http://kb/7", "fan 2 slow");
  const support::PostedEvent failed = error("raid driver", "http://kb/7", "fan 2 slow");
  const support::PostedEvent informed = information("raid driver", "http://kb/7", "fan 2 slow");
  scenario::expectRows(scenario, driver,
                       {{"kel.external.warning", report, warned},
                        {"kel.external.error", report, failed},
                        {"kel.external.info", report, informed},
                        {"kel.user.external.warning", report, warned},
                        {"kel.user.external.error", report, failed},
                        {"kel.user.external.info", report, informed}});
}

TEST_F(ExternalScenario, aReportThatMissesATextPostsNothing) {
  for (const char* id : kIdentifiers) {
    scenario::expectUnreadable(scenario, driver,
                               {{id, {}, {}},
                                {id, {s("c")}, {}},
                                {id, {s("c"), s("l")}, {}},
                                {id, {null(), s("l"), s("m")}, {}},
                                {id, {s("c"), null(), s("m")}, {}},
                                {id, {s("c"), s("l"), null()}, {}},
                                {id, {null(), null(), null()}, {}},
                                {id, {i(1), s("l"), s("m")}, {}},
                                {id, {s("c"), i(1), s("m")}, {}},
                                {id, {s("c"), s("l"), i(1)}, {}}});
  }
}

TEST_F(ExternalScenario, aReportThatCannotBeReadDoesNotStopTheNext) {
  EXPECT_EQ(observed("kel.external.error", {s("c"), null(), s("m")}), Events{});
  EXPECT_EQ(observed("kel.external.error", {s("c"), s("l"), s("m")}), Events{error("c", "l", "m")});
}

TEST_F(ExternalScenario, emptyTextsAndConversionsAreTextLikeAny) {
  EXPECT_EQ(observed("kel.external.warning", {s(""), s(""), s("")}), Events{warning("", "", "")});
  EXPECT_EQ(observed("kel.user.external.info", {s("%s"), s("%n"), s("100%")}), Events{information("%s", "%n", "100%")});
}

TEST_F(ExternalScenario, surplusArgumentsAreIgnored) {
  EXPECT_EQ(observed("kel.external.error", {s("c"), s("l"), s("m"), s("more"), i(1)}), Events{error("c", "l", "m")});
}

TEST_F(ExternalScenario, whatElseTheTwoGroupsReportIsIgnoredSilently) {
  for (const char* id : {"kel.user.host.boot", "kel.user.panl.reboot.host", "kel.external.unheard.of",
                         "kel.external.information", "kel.user.external.information", "kel.external", ""}) {
    EXPECT_EQ(observed(id, {s("c"), s("l"), s("m")}), Events{}) << id;
    EXPECT_EQ(observed(id, {s("c"), s("l"), s("m")}), Events{}) << id;
  }
  EXPECT_EQ(scenario.log.take(), Lines{});
}

}  // namespace
