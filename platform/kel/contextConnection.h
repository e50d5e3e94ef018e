// The sending end of a context's socket.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "host/uniqueFd.h"

namespace platform {

/// When a call gives up waiting; never, where absent.
using Due = std::optional<std::chrono::steady_clock::time_point>;

/// Connects a socket of `type` (SOCK_DGRAM or SOCK_SEQPACKET) to the context at `path`, waiting while
/// too many others wait to be accepted there. Returns 0 or an errno value, EAGAIN where `due` passes.
/// Any thread.
int connectToContext(const std::string& path, int type, Due due, UniqueFd* connected);

/// Sends one batch whole or not at all, waiting while the receiver's queue is full. Returns 0 or an
/// errno value, EAGAIN where `due` passes; no signal is raised. Any thread.
int sendBatch(int fd, const std::vector<char>& batch, Due due);

}  // namespace platform
