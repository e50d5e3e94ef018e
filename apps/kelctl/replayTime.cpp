#include "replayTime.h"

#include <memory>
#include <numeric>
#include <utility>

namespace kelctl {

namespace {

constexpr std::chrono::hours kExact{1};
/// Timers of a longer common period all fire one by one.
constexpr std::int64_t kLongestCommonPeriod = 86'400;

}  // namespace

int ReplayTimers::create(keld::TimerCallback callback) {
  const auto id = std::make_shared<int>(keld::kNoTimer);
  *id = table_.create([this, id, callback = std::move(callback)] { run(*id, callback); });
  return *id;
}

void ReplayTimers::run(int id, const keld::TimerCallback& callback) {
  if (const auto armed = periods_.find(id); armed != periods_.end() && armed->second == 0) periods_.erase(armed);
  fire_(callback);
}

int ReplayTimers::set(int id, keld::TimerMode mode, std::uint32_t seconds, std::uint32_t* remaining) {
  const int status = table_.set(id, mode, seconds, tableNow(), remaining);
  if (status != 0) return status;
  if (seconds == 0) {
    periods_.erase(id);
  } else {
    periods_[id] = mode == keld::TimerMode::periodic ? seconds : 0;
  }
  return 0;
}

void ReplayTimers::fireDue() {
  while (const keld::TimerCallback* callback = table_.takeDue(tableNow())) (*callback)();
}

std::int64_t ReplayTimers::commonPeriod() const {
  std::int64_t common = 1;
  for (const auto& [id, period] : periods_) {
    if (period == 0) return 0;
    common = std::lcm(common, std::int64_t{period});
    if (common > kLongestCommonPeriod) return 0;
  }
  return common;
}

void ReplayTimers::advanceTo(WallTime end) {
  const WallTime exactUntil = clock_.wall() + kExact;
  bool passedOver = false;
  while (true) {
    fireDue();
    if (!passedOver && clock_.wall() >= exactUntil && end > clock_.wall()) {
      passedOver = true;
      if (const std::int64_t period = commonPeriod(); period > 0) {
        const auto left = std::chrono::floor<std::chrono::seconds>(end - clock_.wall());
        const std::chrono::seconds whole(left.count() / period * period);
        clock_.pass(whole);
        passedOver_ += whole;
      }
    }
    const auto next = table_.nextDeadline();
    if (!next) break;
    // Beyond what a clock shows where a period is very long.
    const WallSeconds due = *next + passedOver_;
    if (due > std::chrono::floor<std::chrono::seconds>(end)) break;
    clock_.pass(due - clock_.wall());
  }
  if (end > clock_.wall()) clock_.pass(end - clock_.wall());
}

}  // namespace kelctl
