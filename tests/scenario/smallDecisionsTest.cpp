#include <gtest/gtest.h>

#include <vector>

#include "decisionCases.h"
#include "scenarioTools.h"

namespace {

using support::concludes;
using support::holds;
using support::null;
using support::s;

template <const keld::CorrelatorInfo& kInfo>
class Scene {
 public:
  support::Scenario scenario;
  support::Driver driver{scenario, kInfo};
};

using External = Scene<keld::kGenericCorrelator>;
using Migrate = Scene<keld::kMigrateCorrelator>;

const std::vector<scenario::DecisionCase<External>>& externalCases() {
  static const std::vector<scenario::DecisionCase<External>> kCases = {
      {"aReportWithoutALinkIsNotPosted",
       [](External& scene) {
         scene.driver.observe("kel.external.error", {s("agent"), s("link"), s("message")});
         scene.driver.observe("kel.external.error", {s("agent"), null(), null()});
       },
       {holds("external.report.missing", "agent", "the report's link is missing: nothing is posted")}},
      {"aReportWithoutAMessageIsNotPosted",
       [](External& scene) {
         scene.driver.observe("kel.user.external.info", {s("agent"), s("link"), null()});
       },
       {holds("external.report.missing", "agent", "the report's message is missing: nothing is posted")}},
      {"aReportWithoutAComponentIsNotPosted",
       [](External& scene) {
         scene.driver.observe("kel.external.warning", {null(), s("link"), null()});
       },
       {holds("external.report.missing", "", "the report's component is missing: nothing is posted")}},
  };
  return kCases;
}

const std::vector<scenario::DecisionCase<Migrate>>& migrateCases() {
  static const std::vector<scenario::DecisionCase<Migrate>> kCases = {
      {"aStatusIsReportedOrUnknown",
       [](Migrate& scene) {
         constexpr const char* kShutdown = "kel.migrate.skyhop.server.pending.cnx.listen.socket.shutdown";
         scene.driver.observe(kShutdown, {s("Timeout")});
         scene.driver.observe(kShutdown, {null()});
       },
       {concludes("migrate.listener.status", "listener socket", "reported with status Timeout"),
        concludes("migrate.listener.unknown", "listener socket", "no status was given: reported as unknown")}},
  };
  return kCases;
}

class ExternalDecision : public testing::TestWithParam<scenario::DecisionCase<External>> {};
class MigrateDecision : public testing::TestWithParam<scenario::DecisionCase<Migrate>> {};

TEST_P(ExternalDecision, isToldWithItsNames) {
  scenario::expectTold(GetParam());
}
TEST_P(MigrateDecision, isToldWithItsNames) {
  scenario::expectTold(GetParam());
}

INSTANTIATE_TEST_SUITE_P(All, ExternalDecision, testing::ValuesIn(externalCases()), scenario::kCaseName);
INSTANTIATE_TEST_SUITE_P(All, MigrateDecision, testing::ValuesIn(migrateCases()), scenario::kCaseName);

TEST(ExternalDecisions, areAllInTheCases) {
  scenario::expectAllInCases(keld::kGenericCorrelator, "external", externalCases());
}
TEST(MigrateDecisions, areAllInTheCases) {
  scenario::expectAllInCases(keld::kMigrateCorrelator, "migrate", migrateCases());
}

}  // namespace
