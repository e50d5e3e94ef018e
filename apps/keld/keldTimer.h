// Timers in whole seconds of the host's clock, one-shot or periodic, at most 16.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>

#include "platform/clock.h"

namespace keld {

enum class TimerMode : std::uint32_t { oneShot = 0, periodic = 1 };
inline constexpr int kNoTimer = -1;
inline constexpr std::size_t kMaxTimers = 16;

using TimerCallback = std::function<void()>;

/// What correlators see of timers. Both calls may be made from any thread, from callbacks too.
class Timers {
 public:
  Timers() = default;
  Timers(const Timers&) = delete;
  Timers& operator=(const Timers&) = delete;
  virtual ~Timers() = default;

  /// A new, disarmed timer: ids count from 0 in order of creation. kNoTimer when 16 exist.
  virtual int create(TimerCallback callback) = 0;
  /// Arms timer `id` to fire in `seconds`, and every `seconds` where periodic; 0 disarms. Stores
  /// in `*remaining`, unless null, the seconds that were left before. Returns 0, or 1 for a mode
  /// above 1 or an id that was never created.
  virtual int set(int id, TimerMode mode, std::uint32_t seconds, std::uint32_t* remaining = nullptr) = 0;
};

/// The timers' bookkeeping, with time as an argument and no lock of its own.
class TimerTable {
 public:
  int create(TimerCallback callback);
  int set(int id, TimerMode mode, std::uint32_t seconds, WallSeconds now, std::uint32_t* remaining);
  /// Takes the due timer with the lowest id: disarms it, or moves a periodic one on from `now`.
  /// Returns its callback, to be called without any lock; nullptr when none is due. The pointer
  /// stays valid: timers are never destroyed.
  const TimerCallback* takeDue(WallSeconds now);
  /// The earliest deadline, nothing when all are disarmed.
  [[nodiscard]] std::optional<WallSeconds> nextDeadline() const;

 private:
  struct Entry {
    TimerMode mode = TimerMode::oneShot;
    std::uint32_t intervalSeconds = 0;
    std::optional<WallSeconds> deadline;
    TimerCallback callback;
  };
  std::map<int, Entry> timers_;
};

/// The daemon's timers: one thread that waits for the next deadline and runs callbacks, each with
/// no lock held. A callback must be short: while it runs no other timer fires.
class TimerService final : public Timers {
 public:
  explicit TimerService(Clock& clock) : clock_(clock) {}

  /// Starts the thread, which runs until the process ends and must find this object all that time.
  /// Returns 0 or the error of thread creation.
  int start();
  int create(TimerCallback callback) override;
  int set(int id, TimerMode mode, std::uint32_t seconds, std::uint32_t* remaining = nullptr) override;

 private:
  [[noreturn]] void run();

  Clock& clock_;
  std::mutex mutex_;
  std::condition_variable changed_;
  TimerTable table_;  // guarded by mutex_
};

}  // namespace keld
