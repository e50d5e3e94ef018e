// The host that is this machine: facts from the running kernel, observations from its channels, and
// actions that are real. docs/linux-host.md describes it for operators.
#pragma once

#include <memory>
#include <string>

#include "host/host.h"
#include "linux/netlinkSocket.h"

namespace platform {

/// Where the kernel's and the system's files are; elsewhere for tests.
struct LinuxRoots {
  std::string sys = "/sys";
  std::string proc = "/proc";
  std::string etc = "/etc";
};

/// Context that the links channel feeds; the others have no channel and take injected observations.
inline constexpr std::uint32_t kLinksContext = 1;

std::unique_ptr<Host> makeLinuxHost(LinuxRoots roots = {}, std::shared_ptr<Netlink> netlink = makeKernelNetlink());

}  // namespace platform
