// SIGINT, SIGTERM and SIGHUP as something to poll for, so that a sub-command that runs on ends in its own way.
#pragma once

#include <chrono>
#include <optional>

#include "host/uniqueFd.h"

namespace kelctl {

/// While one lives, the first of them only makes fd() readable; a further one ends the
/// process as ever. One at a time, in a process with one thread.
class StopSignals {
 public:
  StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;
  ~StopSignals();

  /// Polls readable once the process is to stop.
  [[nodiscard]] int fd() const { return readEnd_.get(); }
  [[nodiscard]] static bool stopped();
  /// Waits until `due` of the steady clock. False where the process is to stop.
  [[nodiscard]] bool sleepUntil(std::chrono::steady_clock::time_point due) const;

 private:
  platform::UniqueFd readEnd_;
  platform::UniqueFd writeEnd_;
};

/// Milliseconds for poll(2) until `due`, rounded up; -1 (for ever) where there is no `due`.
int pollMilliseconds(std::optional<std::chrono::steady_clock::time_point> due);

}  // namespace kelctl
