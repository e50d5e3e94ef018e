// What a correlator registers and what the catalogue says of it are the same.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>

#include "correlatorHarness.h"
#include "keldNetCorrelator.h"
#include "modelHost.h"

namespace {

std::set<std::string> known(const keld::CorrelatorInfo& info) {
  std::set<std::string> ids;
  for (const keld::Row& row : info.rows) ids.emplace(row.observation);
  for (const keld::Judged& judged : info.judged) {
    if (!judged.observation.ends_with('*')) ids.emplace(judged.observation);
  }
  return ids;
}

std::set<std::string> registered(const keld::HandlerTable& handlers) {
  std::set<std::string> ids;
  for (const auto& [id, handler] : handlers) ids.insert(id);
  return ids;
}

class Handlers : public testing::Test {
 protected:
  support::ModelHost host;
  support::Scenario scenario;
};

TEST_F(Handlers, AreThoseThatTheCatalogueLists) {
  for (const keld::CorrelatorInfo* info : keld::correlators()) {
    if (info->make == nullptr) continue;
    const auto correlator = info->make(scenario.services);
    EXPECT_EQ(registered(correlator->handlers()), known(*info)) << info->nameWord;
  }
  keld::NetCorrelator net(scenario.services, [] {});
  EXPECT_EQ(registered(net.handlers()), known(keld::kNetCorrelator));
}

TEST_F(Handlers, LieInTheirCorrelatorsGroup) {
  for (const keld::CorrelatorInfo* info : keld::correlators()) {
    for (const std::string& id : known(*info)) {
      EXPECT_TRUE(std::any_of(info->groups.begin(), info->groups.end(), [&](const char* group) {
        return id.starts_with(std::string("kel.") + group + ".");
      })) << id;
    }
  }
}

TEST_F(Handlers, ReportingDefaultHandlersReportAnObservationWithoutIdentifier) {
  const auto nameless = support::observation("", {});
  for (const keld::CorrelatorInfo* info : {&keld::kClockCorrelator, &keld::kVmCorrelator}) {
    info->make(scenario.services)->fallback()(nameless.get());
    EXPECT_EQ(scenario.log.take(), std::vector<std::string>{"FAIL: Received NULL kelID\n"}) << info->nameWord;
  }
}

}  // namespace
