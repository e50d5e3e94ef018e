#include "linux/swap.h"

#include <unistd.h>

#include "linux/actionTrail.h"
#include "linux/childProcess.h"
#include "linux/kernelFiles.h"

namespace platform {

namespace {

constexpr const char* kPrograms[] = {"/sbin/swapon", "/usr/sbin/swapon", "/bin/swapon", "/usr/bin/swapon"};
constexpr const char* kAll = "-a";

}  // namespace

Answer<std::string> Swap::program() const {
  if (!roots_.swapon.empty()) return {{}, roots_.swapon};
  // The program reads the real fstab, whatever else is recorded.
  if (roots_.etc != LinuxRoots().etc) return {notAvailable(roots_.etc + " is not this machine's"), {}};
  for (const char* const path : kPrograms) {
    if (::access(path, X_OK) == 0) return {{}, path};
  }
  return {notAvailable("swapon is not installed"), {}};
}

Answer<std::string> Swap::planReconfigure() const {
  Answer<std::string> plan = program();
  if (plan.ok()) plan.value = "run " + plan.value + " " + kAll;
  return plan;
}

Outcome Swap::reconfigure() const {
  const Answer<std::string> swapon = program();
  if (!swapon.ok()) return swapon.outcome;
  const std::string text = "system swap is placed anew: " + swapon.value + " " + kAll;
  if (Outcome trail = recordAction("swap.reconfigure", text); !trail.ok()) return trail;
  return runProgram(swapon.value, {kAll}, deadline_);
}

}  // namespace platform
