// The connection to the daemon's trace socket.
#pragma once

#include <string>

#include "host/uniqueFd.h"

namespace kelctl {

std::string tracePath();

/// Connects, or throws a Failure that says what to do about it.
platform::UniqueFd connectToTrace();

}  // namespace kelctl
