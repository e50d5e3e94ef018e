// Where the kernel's and the system's files are.
#pragma once

#include <string>

namespace platform {

/// The directories that the Linux host reads and writes; elsewhere for tests. Where `proc` or `etc`
/// is not the running system's own, no process is killed and no program is looked for.
struct LinuxRoots {
  std::string sys = "/sys";
  std::string proc = "/proc";
  std::string etc = "/etc";
  std::string dev = "/dev";
  std::string run = "/run";
  std::string swapon{};  ///< the program; empty: the system's
};

}  // namespace platform
