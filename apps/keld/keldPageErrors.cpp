#include "keldPageErrors.h"

#include "keldHostOption.h"
#include "keldText.h"

namespace keld {

namespace {

constexpr const char* kGroup = "PageRetire";
constexpr const char* kThreshold = "PageErrorCorrThreshold";
constexpr const char* kPeriod = "PageErrorCorrPeriod";
// What decisions call them.
constexpr std::string_view kThresholdOption = "PageRetire/PageErrorCorrThreshold";
constexpr std::string_view kPeriodOption = "PageRetire/PageErrorCorrPeriod";
/// The part of the threshold that counts are compared with.
constexpr std::uint32_t kThresholdMask = 0xff;

}  // namespace

std::shared_ptr<PageErrors> PageErrors::start(Timers& timers, DecisionListener* decisions) {
  std::shared_ptr<PageErrors> errors(new PageErrors(timers, decisions));
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
  refreshThreshold();
  refreshPeriod();
}

void PageErrors::refreshThreshold() {
  const auto option = readIntegerOption(kGroup, kThreshold);
  if (!option) {
    kPageOptionUnreadable.report(decisions_, kThresholdOption, threshold_);
    return;
  }
  const auto threshold = static_cast<std::uint32_t>(*option);
  const std::uint32_t before = threshold_.exchange(threshold);
  if (before != threshold) kPageOptionChanged.report(decisions_, kThresholdOption, threshold, before);
}

void PageErrors::refreshPeriod() {
  const auto option = readIntegerOption(kGroup, kPeriod);
  if (!option) {
    kPageOptionUnreadable.report(decisions_, kPeriodOption, periodSeconds_);
    return;
  }
  const auto seconds = static_cast<std::uint32_t>(*option);
  const std::uint32_t before = periodSeconds_.exchange(seconds);
  if (before == seconds) return;
  kPageOptionChanged.report(decisions_, kPeriodOption, seconds, before);
  timers_.set(periodTimer_, TimerMode::periodic, seconds);
}

void PageErrors::clear() {
  const std::lock_guard lock(mutex_);
  if (decisions_ != nullptr) {
    for (const auto& [page, count] : counts_) {
      if (count != 0) kPageCleared.report(decisions_, hexText(page), count);
    }
  }
  counts_.clear();
}

bool PageErrors::add(std::uint64_t page, std::uint64_t errors) {
  const std::lock_guard lock(mutex_);
  std::uint8_t& count = counts_[page];
  // Wraps as the kernel's own counter would, and is then taken for a signed number.
  const std::uint32_t sum = count + static_cast<std::uint32_t>(errors);
  const bool fits = static_cast<std::int32_t>(sum) <= kMaxCount;
  if (fits) count = static_cast<std::uint8_t>(sum);
  const std::uint32_t limit = threshold_ & kThresholdMask;
  const bool over = count > limit;
  if (decisions_ != nullptr) {
    const std::string subject = hexText(page);
    if (!fits) kPageCapped.report(decisions_, subject, static_cast<std::uint32_t>(errors), kMaxCount, count);
    (over ? kPageOver : kPageBelow).report(decisions_, subject, count, limit);
  }
  return over;
}

}  // namespace keld
