#include "keldPageErrors.h"

#include "keldHostOption.h"

namespace keld {

namespace {

constexpr const char* kGroup = "PageRetire";
/// The part of the threshold that counts are compared with.
constexpr std::uint32_t kThresholdMask = 0xff;

}  // namespace

std::shared_ptr<PageErrors> PageErrors::start(Timers& timers) {
  std::shared_ptr<PageErrors> errors(new PageErrors(timers));
  errors->startTimers();
  errors->refreshOptions();
  return errors;
}

void PageErrors::startTimers() {
  // A timer may fire when this object's owner is gone already: it is the timer's as well.
  const int refreshTimer = timers_.create([self = shared_from_this()] { self->refreshOptions(); });
  if (refreshTimer == kNoTimer) return;
  periodTimer_ = timers_.create([self = shared_from_this()] { self->clear(); });
  timers_.set(refreshTimer, TimerMode::periodic, kRefreshSeconds);
  timers_.set(periodTimer_, TimerMode::periodic, periodSeconds_);
}

void PageErrors::refreshOptions() {
  if (const auto threshold = readIntegerOption(kGroup, "PageErrorCorrThreshold")) {
    threshold_ = static_cast<std::uint32_t>(*threshold);
  }
  const auto period = readIntegerOption(kGroup, "PageErrorCorrPeriod");
  if (!period) return;
  const auto seconds = static_cast<std::uint32_t>(*period);
  if (periodSeconds_.exchange(seconds) == seconds) return;
  timers_.set(periodTimer_, TimerMode::periodic, seconds);
}

void PageErrors::clear() {
  const std::lock_guard lock(mutex_);
  counts_.clear();
}

bool PageErrors::add(std::uint64_t page, std::uint64_t errors) {
  const std::lock_guard lock(mutex_);
  std::uint8_t& count = counts_[page];
  // Wraps as the kernel's own counter would, and is then taken for a signed number.
  const std::uint32_t sum = count + static_cast<std::uint32_t>(errors);
  if (static_cast<std::int32_t>(sum) <= kMaxCount) count = static_cast<std::uint8_t>(sum);
  return count > (threshold_ & kThresholdMask);
}

}  // namespace keld
