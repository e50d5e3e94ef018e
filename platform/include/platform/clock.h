// Time: all that the daemon knows of it, waiting included.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

/// A moment of the host's clock, to be shown or held against another moment of the same clock.
using WallTime = std::chrono::sys_time<std::chrono::nanoseconds>;
/// The same in whole seconds, truncated: what hold-offs, the rate limit and timers count in.
using WallSeconds = std::chrono::sys_seconds;

/// The source of time. Every method may be called from any thread.
class Clock {
 public:
  Clock() = default;
  Clock(const Clock&) = delete;
  Clock& operator=(const Clock&) = delete;
  virtual ~Clock() = default;

  /// The host's clock; jumps when it is corrected.
  [[nodiscard]] virtual WallTime wall() const = 0;
  /// Seconds of a clock that never runs back, from an arbitrary start.
  [[nodiscard]] virtual std::chrono::seconds monotonic() const = 0;
  /// Waits with `lock` released until notified or until the host's clock shows `due`, whichever is
  /// first; returns early without reason, too. A corrected clock moves the end of the wait.
  virtual void waitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& changed, WallSeconds due) = 0;

  /// wall() in whole seconds.
  [[nodiscard]] WallSeconds wallSeconds() const { return std::chrono::floor<std::chrono::seconds>(wall()); }
};

/// The clock of this host.
Clock& systemClock();
