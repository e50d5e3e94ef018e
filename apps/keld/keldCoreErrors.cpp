#include "keldCoreErrors.h"

#include <algorithm>

namespace keld {

namespace {

/// What an error code must have set and must not have set; bit 12 says nothing of the kind.
struct CodePattern {
  std::uint32_t set;
  std::uint32_t clear;
};

constexpr CodePattern kCoreErrorPatterns[] = {
    {0x0100, 0xee00},  // memory hierarchy: caches
    {0x000c, 0xeff0},  // generic cache hierarchy
    {0x0010, 0xefe0},  // TLB
};

constexpr std::uint32_t kLevelMask = 3;
constexpr std::uint32_t kHighestCountedLevel = 1;

}  // namespace

bool McStatus::isCoreError() const {
  if ((code() & kLevelMask) > kHighestCountedLevel) return false;
  for (const CodePattern& pattern : kCoreErrorPatterns) {
    if ((code() & pattern.set) == pattern.set && (code() & pattern.clear) == 0) return true;
  }
  return false;
}

void CoreErrors::add(std::int64_t now, unsigned times) {
  for (unsigned n = 0; n < times; ++n) {
    times_[next_] = now;
    next_ = (next_ + 1) % kPlaces;
  }
}

bool CoreErrors::reached(std::uint32_t number, std::int64_t now) const {
  return isOfDay(times_[(next_ - number) % kPlaces], now);
}

std::int64_t CoreErrors::withinDay(std::int64_t now) const {
  return std::count_if(times_.begin(), times_.end(), [now](std::int64_t then) { return isOfDay(then, now); });
}

}  // namespace keld
