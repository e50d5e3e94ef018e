// Notices that the host's clock was set.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "host/uniqueFd.h"

namespace kelctl {

/// CLOCK_REALTIME and CLOCK_MONOTONIC at one moment, nanoseconds.
struct ClockReadings {
  std::int64_t real = 0;
  std::int64_t monotonic = 0;
};
ClockReadings readClocks();

/// The clock showed `from` when it was set to `to`.
struct ClockSetting {
  std::int64_t from = 0;
  std::int64_t to = 0;
};

/// Compares the two clocks. What is less than a second is kept until it is more.
class ClockSteps {
 public:
  explicit ClockSteps(const ClockReadings& now) : offset_(now.real - now.monotonic) {}

  /// The step since the last one, if any.
  std::optional<ClockSetting> look(const ClockReadings& now);

 private:
  std::int64_t offset_;
};

/// Polls readable when the clock was set. Where the kernel has no such timer, it never does.
class ClockSetSignal {
 public:
  ClockSetSignal();
  [[nodiscard]] int fd() const { return fd_.get(); }
  /// Makes it unreadable until the next time.
  void clear() const;

 private:
  void arm() const;

  platform::UniqueFd fd_;
};

}  // namespace kelctl
