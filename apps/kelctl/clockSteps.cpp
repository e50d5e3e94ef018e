#include "clockSteps.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>

namespace kelctl {

namespace {

constexpr std::int64_t kPerSecond = 1'000'000'000;
constexpr std::int64_t kLeastStep = kPerSecond;

std::int64_t now(clockid_t clock) {
  timespec time{};
  ::clock_gettime(clock, &time);
  return std::int64_t{time.tv_sec} * kPerSecond + time.tv_nsec;
}

}  // namespace

ClockReadings readClocks() {
  return {now(CLOCK_REALTIME), now(CLOCK_MONOTONIC)};
}

std::optional<ClockSetting> ClockSteps::look(const ClockReadings& now) {
  const std::int64_t offset = now.real - now.monotonic;
  if (std::abs(offset - offset_) < kLeastStep) return std::nullopt;
  const ClockSetting step{now.monotonic + offset_, now.real};
  offset_ = offset;
  return step;
}

ClockSetSignal::ClockSetSignal() : fd_(::timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK)) {
  arm();
}

void ClockSetSignal::arm() const {
  // The year 2255: the setting of the clock is what is waited for.
  itimerspec never{};
  never.it_value.tv_sec = 9'000'000'000;
  if (fd_) (void)::timerfd_settime(fd_.get(), TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &never, nullptr);
}

void ClockSetSignal::clear() const {
  std::uint64_t expirations = 0;
  // Fails with ECANCELED, which is the news itself.
  [[maybe_unused]] const ssize_t got = ::read(fd_.get(), &expirations, sizeof expirations);
  arm();
}

}  // namespace kelctl
