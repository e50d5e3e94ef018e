// Counting of observations that are harmless one by one and a failing fabric when they are many.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "keldDecision.h"

namespace keld {

namespace frequencyWhy {

inline constexpr Decides<std::int64_t, std::int64_t, std::int64_t> kReset{
    DecisionKind::forgets, "scsi.frequency.reset",
    "its count of {} is dropped, as all are: last done {} s ago, limit {} s"};
inline constexpr Decides<std::int64_t, std::int64_t, std::int64_t, std::int64_t> kAged{
    DecisionKind::forgets, "scsi.frequency.aged",
    "its count of {} is set to 0, as all below {} are: last done {} s ago, limit {} s"};
inline constexpr Decides<std::int64_t, std::int64_t> kFirstAged{
    DecisionKind::forgets, "scsi.frequency.first-aged",
    "its count of {} is set to 0, as all below {} are: never done before"};
inline constexpr Decides<std::int64_t> kRemoved{DecisionKind::forgets, "scsi.frequency.removed",
                                                "removed: its count of {} is dropped"};
inline constexpr Decides<> kNotCounted{DecisionKind::forgets, "scsi.frequency.not-counted", "removed: it had no count"};
inline constexpr Decides<std::int64_t, std::int64_t, std::string_view> kBelow{
    DecisionKind::counts, "scsi.frequency.below", "counted: {} of {} {}"};
inline constexpr Decides<std::int64_t, std::int64_t, std::string_view> kReached{
    DecisionKind::counts, "scsi.frequency.reached", "counted: {} of {} {}, which are worth a report"};
inline constexpr Decides<std::int64_t, std::int64_t, std::string_view> kAbove{
    DecisionKind::holds, "scsi.frequency.above", "no event: counted {}, more than the {} {} that are reported once"};

}  // namespace frequencyWhy

/// Counts what happens to each name, without a timer: all ageing is done when the next observation
/// arrives. A name is worth a report when its count is exactly ten, so at most once between two full
/// resets. Moments are seconds of the host's clock. Used by one thread.
class PathFrequency {
 public:
  static constexpr std::int64_t kResetSeconds = 600;  ///< after more than this all counts are dropped
  static constexpr std::int64_t kAgeSeconds = 60;     ///< after more than this counts below the trigger are 0
  static constexpr std::uint32_t kTrigger = 10;

  enum class Change { happened, added, removed };

  /// `what` is counted, as decisions name it.
  explicit PathFrequency(std::string_view what = "changes") : what_(what) {}

  /// Counts one observation of `name`; a name that is added starts from 0, one that is removed is
  /// forgotten. True where it is worth a report.
  bool track(const std::string& name, Change change, std::int64_t now, DecisionListener* decisions = nullptr);

 private:
  void reset(std::int64_t now, DecisionListener* decisions);
  void count(const std::string& name, Change change, DecisionListener* decisions);
  void age(std::int64_t now, DecisionListener* decisions);
  void reportAged(const std::string& name, std::uint32_t number, std::int64_t now, DecisionListener* decisions) const;

  std::string_view what_;
  std::map<std::string, std::uint32_t> counts_;
  std::int64_t lastReset_ = 0;
  std::int64_t lastCheck_ = 0;
};

}  // namespace keld
