#include "platform/clock.h"

namespace {

class SystemClock final : public Clock {
 public:
  [[nodiscard]] WallTime wall() const override { return std::chrono::system_clock::now(); }

  [[nodiscard]] std::chrono::seconds monotonic() const override {
    return std::chrono::floor<std::chrono::seconds>(std::chrono::steady_clock::now().time_since_epoch());
  }

  // Waits on the system clock itself, so that the wait follows the clock when it is stepped.
  void waitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& changed, WallSeconds due) override {
    changed.wait_until(lock, due);
  }
};

}  // namespace

Clock& systemClock() {
  // Never destroyed: threads that outlive main's statics read it.
  static auto& clock = *new SystemClock;
  return clock;
}
