// The machine itself as the platform's host.
#pragma once

#include <memory>

#include "host/host.h"

namespace platform {

/// A host that answers from this machine and acts on it.
std::unique_ptr<Host> makeLinuxHost();

}  // namespace platform
