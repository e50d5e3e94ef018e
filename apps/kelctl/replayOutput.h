// What a replay says, as lines: of the trace, for reading, or as JSON (docs/replay.md).
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "eventTexts.h"
#include "replayEngine.h"

namespace kelctl {

enum class ReplayForm { trace, text, json };

/// Microseconds since the epoch.
std::uint64_t microsecondsOf(WallTime time);

/// What became of an event besides being posted: "queued" and "" say, or "resent" and "after 2 failures".
struct Fate {
  std::string kind;
  std::string event;
  std::optional<std::int64_t> failures;  ///< where there were some
};
/// Nothing for a decision that is not about an event's fate.
std::optional<Fate> fateOf(const keld::Decision& decision, std::string_view subject,
                           std::span<const keld::DecisionValue> values);
/// " after 1 failure", " after 2 failures", or nothing.
std::string failuresText(const Fate& fate);

/// One line for each thing that leaves the daemon.
class ReplayLines final : public ReplayWatcher {
 public:
  using Write = std::function<void(std::string_view)>;

  /// Names are shown where they match one of `globs`, or where there are none; nothing is shown before `from`.
  ReplayLines(ReplayForm form, std::vector<std::string> globs, std::optional<WallTime> from, Write write)
      : form_(form), globs_(std::move(globs)), from_(from), write_(std::move(write)) {}

  void begins(const ReplayStep& step) override { now_ = step.time; }
  void decided(const keld::Decision& decision, std::string_view subject,
               std::span<const keld::DecisionValue> values) override;
  void posted(std::string_view record, std::string_view line) override;
  void acted(const std::string& action) override;
  void stopped(const std::string& why) override;

 private:
  [[nodiscard]] bool wants(std::string_view name) const;
  void text(std::string_view kind, std::string_view rest);
  void json(std::string_view kind, const Json& rest);

  ReplayForm form_;
  std::vector<std::string> globs_;
  std::optional<WallTime> from_;
  Write write_;
  const EventTexts& texts_ = knownEventTexts();
  WallTime now_;
};

}  // namespace kelctl
