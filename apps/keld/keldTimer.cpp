#include "keldTimer.h"

#include <pthread.h>

#include <algorithm>

#include "platform/vthread.h"

namespace keld {

int TimerTable::create(TimerCallback callback) {
  if (timers_.size() >= kMaxTimers) return kNoTimer;
  const int id = static_cast<int>(timers_.size());
  timers_[id].callback = std::move(callback);
  return id;
}

int TimerTable::set(int id, TimerMode mode, std::uint32_t seconds, WallSeconds now, std::uint32_t* remaining) {
  const auto found = timers_.find(id);
  if (mode > TimerMode::periodic || found == timers_.end()) return 1;
  Entry& timer = found->second;
  if (remaining != nullptr) {
    *remaining =
        timer.deadline && *timer.deadline > now ? static_cast<std::uint32_t>((*timer.deadline - now).count()) : 0;
  }
  timer.mode = mode;
  timer.intervalSeconds = seconds;
  timer.deadline.reset();
  if (seconds != 0) timer.deadline = now + std::chrono::seconds(seconds);
  return 0;
}

const TimerCallback* TimerTable::takeDue(WallSeconds now) {
  const auto due = std::ranges::find_if(
      timers_, [now](const auto& timer) { return timer.second.deadline && *timer.second.deadline <= now; });
  if (due == timers_.end()) return nullptr;
  Entry& timer = due->second;
  if (timer.mode == TimerMode::oneShot) {
    timer.intervalSeconds = 0;
    timer.deadline.reset();
  } else {
    timer.deadline = now + std::chrono::seconds(timer.intervalSeconds);
  }
  return &timer.callback;
}

std::optional<WallSeconds> TimerTable::nextDeadline() const {
  std::optional<WallSeconds> earliest;
  for (const auto& [id, timer] : timers_) {
    if (timer.deadline && (!earliest || *timer.deadline < *earliest)) earliest = timer.deadline;
  }
  return earliest;
}

int TimerService::start() {
  pthread_t thread{};
  const int error = pthread_create(
      &thread, nullptr,
      [](void* self) -> void* {
        VThreadBase_SetName("timer");
        static_cast<TimerService*>(self)->run();
      },
      this);
  return error != 0 ? error : pthread_detach(thread);
}

int TimerService::create(TimerCallback callback) {
  const std::lock_guard lock(mutex_);
  return table_.create(std::move(callback));
}

int TimerService::set(int id, TimerMode mode, std::uint32_t seconds, std::uint32_t* remaining) {
  const std::lock_guard lock(mutex_);
  const int status = table_.set(id, mode, seconds, clock_.wallSeconds(), remaining);
  if (status == 0) changed_.notify_all();
  return status;
}

void TimerService::run() {
  std::unique_lock lock(mutex_);
  while (true) {
    if (const TimerCallback* due = table_.takeDue(clock_.wallSeconds()); due != nullptr) {
      lock.unlock();
      (*due)();
      lock.lock();
    } else if (const auto next = table_.nextDeadline(); next) {
      clock_.waitUntil(lock, changed_, *next);
    } else {
      changed_.wait(lock);
    }
  }
}

}  // namespace keld
