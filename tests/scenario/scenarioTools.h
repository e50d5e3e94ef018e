// What several scenarios need beside the driver: the log without the framework's own lines, handlers
// called directly, tables of one-to-one rows.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "correlatorHarness.h"

namespace scenario {

using Events = std::vector<support::PostedEvent>;
using Lines = std::vector<std::string>;
using Arguments = std::vector<KelEmit::Argument>;

/// What was logged since the last call, without the line that precedes each handler.
inline Lines diagnostics(support::Scenario& scenario) {
  Lines lines;
  for (std::string& line : scenario.log.take()) {
    if (line.find("us: [kel.") == std::string::npos) lines.push_back(std::move(line));
  }
  return lines;
}

/// Calls the handler that a fresh correlator registers for `registered` with an observation of another
/// identifier, which dispatch never does; an empty `id` is an observation without one.
inline void callHandler(support::Scenario& scenario, const keld::CorrelatorInfo& info, const std::string& registered,
                        const std::string& id, const Arguments& arguments = {}) {
  const std::unique_ptr<keld::Correlator> correlator = info.make(scenario.services);
  const keld::HandlerTable handlers = correlator->handlers();
  const auto handler = handlers.find(registered);
  ASSERT_NE(handler, handlers.end()) << registered;
  const support::KelPtr kel = support::observation(id, arguments);
  handler->second(kel.get());
}

/// Leaves room for `free` timers of the sixteen.
inline void useUpTimers(support::Scenario& scenario, int free) {
  for (int n = free; n < static_cast<int>(keld::kMaxTimers); ++n) scenario.timers.create([] {});
}

/// An observation and the event that it becomes.
struct RowCase {
  const char* id;
  Arguments arguments;
  support::PostedEvent event;
};

/// Every row gives its event and logs nothing beside; twice, since rows keep no state.
inline void expectRows(support::Scenario& scenario, support::Driver& driver, const std::vector<RowCase>& rows) {
  for (const RowCase& row : rows) {
    for (int n = 0; n < 2; ++n) {
      driver.observe(row.id, row.arguments);
      EXPECT_EQ(driver.events(), Events{row.event}) << row.id;
      EXPECT_EQ(diagnostics(scenario), Lines{}) << row.id;
    }
  }
}

/// An observation that cannot be read, and what is logged of it.
struct UnreadableCase {
  const char* id;
  Arguments arguments;
  Lines log;
};

/// None of them becomes an event.
inline void expectUnreadable(support::Scenario& scenario, support::Driver& driver,
                             const std::vector<UnreadableCase>& cases) {
  for (const UnreadableCase& unreadable : cases) {
    driver.observe(unreadable.id, unreadable.arguments);
    EXPECT_EQ(driver.events(), Events{}) << unreadable.id;
    EXPECT_EQ(diagnostics(scenario), unreadable.log) << unreadable.id;
  }
}

}  // namespace scenario
