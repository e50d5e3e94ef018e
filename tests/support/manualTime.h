// Time that stands still until a test moves it, and timers that fire as it moves.
#pragma once

#include <chrono>
#include <cstdint>

#include "keldTimer.h"
#include "platform/clock.h"

namespace support {

/// A clock that shows what it was told. Used by one thread.
class ManualClock final : public Clock {
 public:
  explicit ManualClock(WallSeconds start = WallSeconds(std::chrono::seconds(1'767'225'600))) : wall_(start) {}

  [[nodiscard]] WallTime wall() const override { return wall_; }
  [[nodiscard]] std::chrono::seconds monotonic() const override {
    return std::chrono::floor<std::chrono::seconds>(monotonic_);
  }
  void waitUntil(std::unique_lock<std::mutex>& /*lock*/, std::condition_variable& /*changed*/,
                 WallSeconds /*due*/) override {}

  /// Lets time pass on both clocks.
  void pass(std::chrono::nanoseconds time) {
    wall_ += time;
    monotonic_ += time;
  }
  /// Corrects the host's clock, to either side; no time passes.
  void correct(WallTime wall) { wall_ = wall; }

 private:
  WallTime wall_;
  std::chrono::nanoseconds monotonic_{std::chrono::hours(1)};
};

/// Timers on a ManualClock.
class ManualTimers final : public keld::Timers {
 public:
  explicit ManualTimers(ManualClock& clock) : clock_(clock) {}

  int create(keld::TimerCallback callback) override { return table_.create(std::move(callback)); }
  int set(int id, keld::TimerMode mode, std::uint32_t seconds, std::uint32_t* remaining) override {
    return table_.set(id, mode, seconds, clock_.wallSeconds(), remaining);
  }

  /// Lets `time` pass. What falls due on the way fires at its own instant, the lowest id first
  /// where several are due, and has run when this returns.
  void advance(std::chrono::seconds time);
  /// Fires what is due now.
  void fireDue();
  [[nodiscard]] bool armed() const { return table_.nextDeadline().has_value(); }
  /// Seconds until the next deadline; -1 when none.
  [[nodiscard]] std::int64_t secondsToNext() const;

 private:
  ManualClock& clock_;
  keld::TimerTable table_;
};

}  // namespace support
