// What the Linux host's actions have in common: a record before anything is done.
#pragma once

#include <string>

#include "host/host.h"

namespace platform {

/// Writes the audit record of an action. What leaves no trace is not done: an outcome that is not ok
/// ends the action.
Outcome recordAction(const char* record, const std::string& text);

}  // namespace platform
