// Counting of observations that are harmless one by one and a failing fabric when they are many.
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace keld {

/// Counts what happens to each name, without a timer: all ageing is done when the next observation
/// arrives. A name is worth a report when its count is exactly ten, so at most once between two full
/// resets. Moments are seconds of the host's clock. Used by one thread.
class PathFrequency {
 public:
  static constexpr std::int64_t kResetSeconds = 600;  ///< after more than this all counts are dropped
  static constexpr std::int64_t kAgeSeconds = 60;     ///< after more than this counts below the trigger are 0
  static constexpr std::uint32_t kTrigger = 10;

  enum class Change { happened, added, removed };

  /// Counts one observation of `name`; a name that is added starts from 0, one that is removed is
  /// forgotten. True where it is worth a report.
  bool track(const std::string& name, Change change, std::int64_t now);

 private:
  void count(const std::string& name, Change change);

  std::map<std::string, std::uint32_t> counts_;
  std::int64_t lastReset_ = 0;
  std::int64_t lastCheck_ = 0;
};

}  // namespace keld
