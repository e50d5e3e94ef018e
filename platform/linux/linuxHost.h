// The host that is this machine: facts from the running kernel, observations from its channels, and
// actions that are real. docs/linux-host.md describes it for operators.
#pragma once

#include <memory>

#include "host/host.h"
#include "linux/linuxRoots.h"
#include "linux/netlinkSocket.h"

namespace platform {

/// Context that the links channel feeds; the others have no channel and take injected observations.
inline constexpr std::uint32_t kLinksContext = 1;

std::unique_ptr<Host> makeLinuxHost(const LinuxRoots& roots = {},
                                    std::shared_ptr<Netlink> netlink = makeKernelNetlink());

}  // namespace platform
