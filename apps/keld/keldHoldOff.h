// The hold-offs of repeated reports. They differ on purpose, and are not to be merged: each answers
// another question about a repetition.
//
// All count in seconds of the host's clock and take the moment as an argument. Used by one thread at a
// time.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "keldDecision.h"

namespace keld {

/// What is decided by how long something is ago, and a limit; each begins with a name for what is held off. What
/// never happened counts as done when the clock began, in 1970: early in that year it is held off as well.
struct HoldOffDecisions {
  const Decides<std::string_view, std::int64_t>& never;
  const Decides<std::string_view, std::int64_t, std::int64_t>& over;
  const Decides<std::string_view, std::int64_t, std::int64_t>& held;
  const Decides<std::string_view, std::int64_t, std::int64_t>& ahead;  ///< held since the clock was set back

  void report(DecisionListener* decisions, std::string_view subject, std::string_view what, bool passes,
              std::optional<std::int64_t> age, std::int64_t limit, std::int64_t now) const {
    if (decisions == nullptr) return;
    if (passes && !age) {
      never.report(decisions, subject, what, limit);
    } else if (passes) {
      over.report(decisions, subject, what, *age, limit);
    } else if (const std::int64_t ago = age.value_or(now); ago < 0) {
      ahead.report(decisions, subject, what, -ago, limit);
    } else {
      held.report(decisions, subject, what, ago, limit);
    }
  }
};

/// At most one report an hour, counted from the last one, for each identifier. While a clock that was
/// set back makes up the time, nothing is reported.
class HourlyHoldOff {
 public:
  static constexpr std::int64_t kPeriodSeconds = 3600;

  /// True where `id` may be reported at second `now`; changes nothing that a later call would notice.
  [[nodiscard]] bool allows(const std::string& id, std::int64_t now) { return now - lastPosted_[id] >= kPeriodSeconds; }
  /// Seconds from when `id` was last posted to `now`; nothing where it never was, or was re-armed since.
  [[nodiscard]] std::optional<std::int64_t> age(const std::string& id, std::int64_t now) const {
    const auto known = lastPosted_.find(id);
    if (known == lastPosted_.end() || known->second == 0) return std::nullopt;
    return now - known->second;
  }
  /// Begins the hour of `id`.
  void posted(const std::string& id, std::int64_t now) { lastPosted_[id] = now; }
  /// Lets the next report of `id` pass however soon it comes.
  void rearm(const std::string& id) { lastPosted_[id] = 0; }

 private:
  std::map<std::string, std::int64_t> lastPosted_;
};

/// What is said of a crash.
struct CrashDecisions {
  Decides<> first;
  /// The crash's number, seconds since the last report, seconds until a reminder.
  Decides<std::int64_t, std::int64_t, std::int64_t> held;
  Decides<std::int64_t, std::int64_t, std::int64_t> reminds;
};

/// Counts the crashes of each application and reminds of them: the first is reported at once, later
/// ones at most once in ten hours, with the count so far. Applications are never forgotten.
class CrashReminder {
 public:
  static constexpr std::int64_t kReminderSeconds = 36000;

  CrashReminder() = default;
  /// Says `said` of each application's crashes to `decisions`; both outlive it.
  CrashReminder(DecisionListener* decisions, const CrashDecisions& said) : decisions_(decisions), said_(&said) {}

  /// Counts a crash of `application` at second `now`. Returns the count where it is to be reported,
  /// else 0.
  std::uint32_t crashed(std::string_view application, std::int64_t now) {
    const auto known = crashes_.find(application);
    if (known == crashes_.end()) {
      crashes_.emplace(application, Crashes{now, 1});
      if (decisions_ != nullptr) said_->first.report(decisions_, application);
      return 1;
    }
    Crashes& crashes = known->second;
    ++crashes.count;
    const std::int64_t age = now - crashes.lastReported;
    const bool held = age < kReminderSeconds;
    if (decisions_ != nullptr) {
      (held ? said_->held : said_->reminds).report(decisions_, application, crashes.count, age, kReminderSeconds);
    }
    if (held) return 0;
    crashes.lastReported = now;
    return crashes.count;
  }

 private:
  struct Crashes {
    std::int64_t lastReported;
    std::uint32_t count;
  };
  DecisionListener* decisions_ = nullptr;
  const CrashDecisions* said_ = nullptr;
  std::map<std::string, Crashes, std::less<>> crashes_;
};

/// Reports again only after quiet: more than five minutes since the last observation, reported or not.
class QuietPeriod {
 public:
  static constexpr std::int64_t kQuietSeconds = 300;

  /// Notes an observation at second `now`; true where it is to be reported.
  bool observe(std::int64_t now) {
    const bool quiet = now - last_ > kQuietSeconds;
    last_ = now;
    return quiet;
  }
  /// Seconds of quiet up to `now`; nothing where nothing was observed.
  [[nodiscard]] std::optional<std::int64_t> quiet(std::int64_t now) const {
    if (last_ == 0) return std::nullopt;
    return now - last_;
  }

 private:
  std::int64_t last_ = 0;
};

/// The same for each key by itself; keys are never forgotten.
class QuietPeriods {
 public:
  bool observe(std::string_view key, std::int64_t now) { return periods_[std::string(key)].observe(now); }
  [[nodiscard]] std::optional<std::int64_t> quiet(std::string_view key, std::int64_t now) const {
    const auto known = periods_.find(key);
    if (known == periods_.end()) return std::nullopt;
    return known->second.quiet(now);
  }

 private:
  std::map<std::string, QuietPeriod, std::less<>> periods_;
};

/// One report an hour for each disk group or disk, whichever of its errors it tells of. The hour counts
/// from the last report, and a disk that is new is reported whatever the clock shows.
class DstorErrorHoldoff {
 public:
  static constexpr std::int64_t kPeriodSeconds = 3600;

  DstorErrorHoldoff() = default;
  /// Tells `decisions`, which outlives it and may be nullptr, of each disk.
  explicit DstorErrorHoldoff(DecisionListener* decisions) : decisions_(decisions) {}

  /// True, and the hour begins, where an error of `disk` is to be reported at second `now`.
  bool report(std::string_view disk, std::int64_t now) {
    const auto [known, isNew] = lastReported_.try_emplace(std::string(disk), now);
    if (isNew) {
      kFirst.report(decisions_, disk);
      return true;
    }
    const bool held = now < known->second + kPeriodSeconds;
    (held ? kHeld : kOver).report(decisions_, disk, now - known->second, kPeriodSeconds);
    if (!held) known->second = now;
    return !held;
  }
  /// No disk is held off any more.
  void forgetAll() {
    if (decisions_ != nullptr) {
      for (const auto& [disk, last] : lastReported_) kForgotten.report(decisions_, disk);
    }
    lastReported_.clear();
  }

  // What is said of a disk.
  static constexpr Decides<> kFirst{DecisionKind::concludes, "dstor.medium.first",
                                    "nothing was reported of it yet: reported", kPeriodSeconds};
  static constexpr Decides<std::int64_t, std::int64_t> kHeld{DecisionKind::holds, "dstor.medium.held",
                                                             "held off: last reported {} s ago, limit {} s"};
  static constexpr Decides<std::int64_t, std::int64_t> kOver{
      DecisionKind::concludes, "dstor.medium.over", "reported: last reported {} s ago, limit {} s", kPeriodSeconds};
  static constexpr Decides<> kForgotten{DecisionKind::forgets, "dstor.medium.forgotten",
                                        "the service was unloaded: held off no more"};

 private:
  DecisionListener* decisions_ = nullptr;
  std::map<std::string, std::int64_t> lastReported_;
};

/// Lets each key pass once in a while: again only when more than the period has gone by since it last
/// did. Keys are forgotten only where there are more than a host can have: first those whose period is
/// over, then all.
template <typename Key>
class RateTable {
 public:
  explicit RateTable(std::int64_t periodSeconds) : periodSeconds_(periodSeconds) {}

  /// Seconds from when `key` last passed to `now`; nothing where it did not, or was forgotten.
  [[nodiscard]] std::optional<std::int64_t> age(const Key& key, std::int64_t now) const {
    const auto known = lastPassed_.find(key);
    if (known == lastPassed_.end() || known->second == 0) return std::nullopt;
    return now - known->second;
  }
  /// True, and the period begins, where `key` passes at second `now`.
  bool passes(const Key& key, std::int64_t now) {
    std::int64_t& last = lastPassed_[key];
    if (now - last <= periodSeconds_) return false;
    last = now;
    if (lastPassed_.size() > kMostKeys) {
      forget(now);
      lastPassed_[key] = now;
    }
    return true;
  }

  [[nodiscard]] std::size_t size() const { return lastPassed_.size(); }

 private:
  static constexpr std::size_t kMostKeys = 65536;

  /// Leaves room for so many more that the work for it counts for nothing.
  void forget(std::int64_t now) {
    std::erase_if(lastPassed_, [&](const auto& entry) { return now - entry.second > periodSeconds_; });
    if (lastPassed_.size() > kMostKeys / 2) lastPassed_.clear();
  }

  std::int64_t periodSeconds_;
  std::map<Key, std::int64_t> lastPassed_;
};

}  // namespace keld
