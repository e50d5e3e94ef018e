#include "keldPathFrequency.h"

#include <iterator>

namespace keld {

bool PathFrequency::track(const std::string& name, Change change, std::int64_t now, DecisionListener* decisions) {
  if (now - lastReset_ > kResetSeconds) reset(now, decisions);
  count(name, change, decisions);
  // Kept after the counting: a late observation may have its own count taken away at once.
  if (now - lastCheck_ > kAgeSeconds) age(now, decisions);
  const auto found = counts_.find(name);
  if (found == counts_.end()) return false;
  const std::uint32_t number = found->second;
  if (number < kTrigger) frequencyWhy::kBelow.report(decisions, name, number, kTrigger, what_);
  if (number == kTrigger) frequencyWhy::kReached.report(decisions, name, number, kTrigger, what_);
  if (number > kTrigger) frequencyWhy::kAbove.report(decisions, name, number, kTrigger, what_);
  return number == kTrigger;
}

void PathFrequency::reset(std::int64_t now, DecisionListener* decisions) {
  if (decisions != nullptr) {
    for (const auto& [name, number] : counts_) {
      if (number > 0) frequencyWhy::kReset.report(decisions, name, number, now - lastReset_, kResetSeconds);
    }
  }
  counts_.clear();
  lastReset_ = now;
}

void PathFrequency::count(const std::string& name, Change change, DecisionListener* decisions) {
  const auto known = counts_.find(name);
  if (known == counts_.end()) {
    if (change != Change::removed) {
      counts_.emplace(name, change == Change::added ? 0 : 1);
    } else {
      frequencyWhy::kNotCounted.report(decisions, name);
    }
  } else if (change == Change::removed) {
    frequencyWhy::kRemoved.report(decisions, name, known->second);
    counts_.erase(known);
  } else {
    ++known->second;
  }
}

void PathFrequency::age(std::int64_t now, DecisionListener* decisions) {
  for (auto& [name, number] : counts_) {
    if (number >= kTrigger) continue;
    if (decisions != nullptr) reportAged(name, number, now, decisions);
    number = 0;
  }
  lastCheck_ = now;
}

void PathFrequency::reportAged(const std::string& name, std::uint32_t number, std::int64_t now,
                               DecisionListener* decisions) const {
  if (number == 0) return;
  if (lastCheck_ == 0) {
    frequencyWhy::kFirstAged.report(decisions, name, number, kTrigger);
  } else {
    frequencyWhy::kAged.report(decisions, name, number, kTrigger, now - lastCheck_, kAgeSeconds);
  }
}

}  // namespace keld
