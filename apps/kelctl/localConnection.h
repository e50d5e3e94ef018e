// Connections to the daemon's local sockets.
#pragma once

#include <string>

#include "host/uniqueFd.h"

namespace kelctl {

/// A file of the run directory in force.
std::string runPath(const std::string& name);

/// Connects to a local stream socket without waiting for a listener that takes nobody: EAGAIN then.
/// Returns 0 or an errno value.
int connectStream(const std::string& path, platform::UniqueFd* connected);

}  // namespace kelctl
