#include "manualTime.h"

namespace support {

void ManualTimers::advance(std::chrono::seconds time) {
  const WallTime end = clock_.wall() + time;
  while (true) {
    fireDue();
    const auto next = table_.nextDeadline();
    if (!next || *next > end) break;
    clock_.pass(*next - clock_.wall());
  }
  clock_.pass(end - clock_.wall());
}

void ManualTimers::fireDue() {
  while (const keld::TimerCallback* callback = table_.takeDue(clock_.wallSeconds())) (*callback)();
}

std::int64_t ManualTimers::secondsToNext() const {
  const auto next = table_.nextDeadline();
  return next ? (*next - clock_.wallSeconds()).count() : -1;
}

}  // namespace support
