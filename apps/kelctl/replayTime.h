// Time as a capture tells it, and the daemon's timers on it.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>

#include "keldTimer.h"
#include "platform/clock.h"

namespace kelctl {

/// A clock that shows what it was told. Used by one thread.
class ReplayClock final : public Clock {
 public:
  [[nodiscard]] WallTime wall() const override { return wall_; }
  [[nodiscard]] std::chrono::seconds monotonic() const override {
    return std::chrono::floor<std::chrono::seconds>(monotonic_);
  }
  /// Nobody waits: one thread does everything.
  void waitUntil(std::unique_lock<std::mutex>& /*lock*/, std::condition_variable& /*changed*/,
                 WallSeconds /*due*/) override {}

  /// Lets time pass on both clocks.
  void pass(std::chrono::nanoseconds time) {
    wall_ += time;
    monotonic_ += time;
  }
  /// Sets the host's clock; no time passes.
  void set(WallTime wall) { wall_ = wall; }

 private:
  WallTime wall_;
  // A host that has just started has run for a while.
  std::chrono::nanoseconds monotonic_{std::chrono::hours(1)};
};

/// The daemon's table of timers, fired as the clock moves. Used by one thread.
class ReplayTimers final : public keld::Timers {
 public:
  /// `fire` is called for each timer that is due, and calls what it is given.
  using Fire = std::function<void(const keld::TimerCallback& callback)>;

  ReplayTimers(ReplayClock& clock, Fire fire) : clock_(clock), fire_(std::move(fire)) {}

  int create(keld::TimerCallback callback) override;
  int set(int id, keld::TimerMode mode, std::uint32_t seconds, std::uint32_t* remaining) override;

  /// Fires what is due.
  void fireDue();
  /// Lets time pass until `end`: each timer that falls due before or at it fires at its own second. After an
  /// hour in which only periodic timers were armed, whole multiples of their common period are passed over:
  /// without observations the later ones find what the first have left.
  void advanceTo(WallTime end);

 private:
  [[nodiscard]] WallSeconds tableNow() const { return clock_.wallSeconds() - passedOver_; }
  /// The common period of all that is armed, in seconds; 0 where something is to fire but once.
  [[nodiscard]] std::int64_t commonPeriod() const;

  void run(int id, const keld::TimerCallback& callback);

  ReplayClock& clock_;
  Fire fire_;
  keld::TimerTable table_;
  std::map<int, std::uint32_t> periods_;  // of armed timers; 0: once
  std::chrono::seconds passedOver_{0};    // time that the table does not know of
};

}  // namespace kelctl
