// Which rows, handlers and decisions of the correlators a set of captures has exercised.
#pragma once

#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "replayEngine.h"

namespace kelctl {

/// Counts over any number of replays.
class Coverage final : public ReplayWatcher {
 public:
  /// One kind of what can be exercised.
  struct Part {
    std::string_view name;
    std::set<std::string_view> known;
    std::set<std::string_view> seen;
  };

  Coverage();
  void begins(const ReplayStep& step) override;
  void taken(const keld::CorrelatorInfo& by, bool handler) override;
  void decided(const keld::Decision& decision, std::string_view subject,
               std::span<const keld::DecisionValue> values) override;
  void posted(std::string_view record, std::string_view line) override;

  /// Rows, handlers of what is judged, and decisions, posting's among them.
  [[nodiscard]] std::vector<const Part*> parts() const { return {&rows_, &handlers_, &decisions_}; }

 private:
  void see(Part& part, std::string_view name);

  Part rows_{"rows", {}, {}};
  Part handlers_{"handlers", {}, {}};
  Part decisions_{"decisions", {}, {}};
  const keld::CorrelatorInfo* by_ = nullptr;
  std::string id_;
};

/// Replays every capture that `places` (files, or directories with files NAME.capture) hold, and prints what was
/// exercised and what not. What matches one of `except` is told, and not missed. Returns the exit status: failed where
/// something was not. Throws Failure.
int reportCoverage(const std::vector<std::string>& places, const std::vector<std::string>& except);

}  // namespace kelctl
