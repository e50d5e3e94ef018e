// System swap: placing it anew.
#pragma once

#include <chrono>
#include <string>

#include "host/host.h"
#include "linux/linuxRoots.h"

namespace platform {

/// How long swapon(8) may take.
inline constexpr std::chrono::seconds kSwapDeadline{30};

/// Any thread.
class Swap {
 public:
  explicit Swap(LinuxRoots roots, std::chrono::milliseconds deadline = kSwapDeadline)
      : roots_(std::move(roots)), deadline_(deadline) {}

  [[nodiscard]] Answer<std::string> planReconfigure() const;
  /// Has swapon(8) take into use all swap of fstab(5) that is not in use.
  Outcome reconfigure() const;

 private:
  /// ENOTSUP where there is none.
  [[nodiscard]] Answer<std::string> program() const;

  LinuxRoots roots_;
  std::chrono::milliseconds deadline_;
};

}  // namespace platform
