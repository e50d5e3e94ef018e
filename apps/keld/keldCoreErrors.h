// Corrected cache and TLB errors of processor cores over the last day.
#pragma once

#include <array>
#include <cstdint>
#include <map>

namespace keld {

/// A machine-check bank's status word, in the architecture's layout.
class McStatus {
 public:
  explicit McStatus(std::uint64_t word) : word_(word) {}
  [[nodiscard]] bool addressValid() const { return (word_ >> 58U & 1U) != 0; }
  /// More errors were seen than logged.
  [[nodiscard]] bool overflow() const { return (word_ >> 62U & 1U) != 0; }
  /// A cache or TLB error of level 0 or 1, the kinds that a failing core makes.
  [[nodiscard]] bool isCoreError() const;
  /// What kind of error it is.
  [[nodiscard]] std::uint32_t code() const { return static_cast<std::uint32_t>(word_ & 0xffffU); }

 private:
  std::uint64_t word_;
};

/// The times of one core's last 64 errors, in seconds of a clock that never runs back. Used by one
/// thread.
class CoreErrors {
 public:
  static constexpr std::uint32_t kPlaces = 64;
  static constexpr std::int64_t kDaySeconds = 86400;

  [[nodiscard]] bool offlined() const { return offlined_; }
  /// The core is counted no more.
  void setOfflined() { offlined_ = true; }
  /// Notes `times` errors at second `now`.
  void add(std::int64_t now, unsigned times);
  /// True where the entry `number` places back is of the last day. Kept: a number beyond the places
  /// wraps around them.
  [[nodiscard]] bool reached(std::uint32_t number, std::int64_t now) const;
  /// How many errors of the last day are noted.
  [[nodiscard]] std::int64_t withinDay(std::int64_t now) const;
  /// How many errors of the last day it takes to reach `number`, which is not 0.
  [[nodiscard]] static std::uint32_t needed(std::uint32_t number) { return (number - 1) % kPlaces + 1; }

 private:
  static bool isOfDay(std::int64_t then, std::int64_t now) { return then != 0 && now - then < kDaySeconds; }

  std::array<std::int64_t, kPlaces> times_{};  // 0: empty
  std::uint32_t next_ = 0;
  bool offlined_ = false;
};

/// The errors of all cores by their keys; a core is never forgotten.
using CoreErrorHistory = std::map<std::uint64_t, CoreErrors>;

}  // namespace keld
