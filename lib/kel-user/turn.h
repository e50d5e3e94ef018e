// Whose turn it is among threads.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace kelUser {

/// A lock that is waited for until a time. std::timed_mutex is one, too, but its way of locking is
/// unknown to the thread sanitizer.
class Turn {
 public:
  /// False where another thread still has its turn when `due` passes.
  bool take(std::chrono::steady_clock::time_point due) {
    std::unique_lock lock(mutex_);
    if (!over_.wait_until(lock, due, [this] { return !taken_; })) return false;
    taken_ = true;
    return true;
  }
  void end() {
    const std::lock_guard lock(mutex_);
    taken_ = false;
    over_.notify_one();
  }

 private:
  std::mutex mutex_;
  std::condition_variable over_;
  bool taken_ = false;
};

/// Ends a turn that was taken, however its time is left.
class TurnTaken {
 public:
  explicit TurnTaken(Turn& turn) : turn_(turn) {}
  TurnTaken(const TurnTaken&) = delete;
  TurnTaken& operator=(const TurnTaken&) = delete;
  ~TurnTaken() { turn_.end(); }

 private:
  Turn& turn_;
};

}  // namespace kelUser
