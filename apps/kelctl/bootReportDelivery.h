// Handing an observation to the daemon in a way that tells whether the daemon has taken it.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace kelctl {

/// Sends `batch` to the daemon's user-level context on a connection of its own and waits until the
/// daemon has read it. While there is no daemon, or it turns the connection away, tries again until
/// `due`; then throws Failure, which says so. The batch may have been read twice, but only where the
/// daemon ended in between.
void deliverToDaemon(const std::vector<char>& batch, std::chrono::steady_clock::time_point due);

}  // namespace kelctl
