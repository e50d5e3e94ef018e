// The 56-byte value that names this machine to the management agent.
#pragma once

#include <string>

#include "host/host.h"

namespace platform {

/// The value of VSI_NODE_system_systemUuid:
///
///   0   16  the UUID's bytes, in the order of its text
///   16  36  its text in lower case, 8-4-4-4-12 hexadecimal digits
///   52   4  NUL
///
/// The UUID is the firmware's (`sys`/class/dmi/id/product_uuid, readable by root alone) where it is a
/// real one, else that of the installation (`etc`/machine-id, machine-id(5)). Fails with ENOENT where
/// there is neither.
Answer<std::string> readSystemUuid(const std::string& sys, const std::string& etc);

}  // namespace platform
