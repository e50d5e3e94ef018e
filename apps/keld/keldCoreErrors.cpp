#include "keldCoreErrors.h"

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
  const std::int64_t then = times_[(next_ - number) % kPlaces];
  return then != 0 && now - then < kDaySeconds;
}

}  // namespace keld
