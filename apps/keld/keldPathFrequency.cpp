#include "keldPathFrequency.h"

namespace keld {

bool PathFrequency::track(const std::string& name, Change change, std::int64_t now) {
  if (now - lastReset_ > kResetSeconds) {
    counts_.clear();
    lastReset_ = now;
  }
  count(name, change);
  // Kept after the counting: a late observation may have its own count taken away at once.
  if (now - lastCheck_ > kAgeSeconds) {
    for (auto& [other, number] : counts_) {
      if (number < kTrigger) number = 0;
    }
    lastCheck_ = now;
  }
  const auto found = counts_.find(name);
  return found != counts_.end() && found->second == kTrigger;
}

void PathFrequency::count(const std::string& name, Change change) {
  const auto known = counts_.find(name);
  if (known == counts_.end()) {
    if (change != Change::removed) counts_.emplace(name, change == Change::added ? 0 : 1);
  } else if (change == Change::removed) {
    counts_.erase(known);
  } else {
    ++known->second;
  }
}

}  // namespace keld
