// A /dev of the test program's own, so that its /dev/log receives what its daemons log.
#pragma once

#include <string>

namespace e2e {

/// Moves this process into a mount namespace with a private /dev; without privilege through a user
/// namespace. Call once, before any thread is started. Returns an empty text, or why it was refused.
std::string enterPrivateDev();

}  // namespace e2e
