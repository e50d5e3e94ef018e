// What the platform sees of the host, as one JSON value for the operator's tool.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace platform {

/// Everything the host in force says, section by section: "host", "kernel", "system", "options",
/// "portGroups", "storage", "vms", "cpu", "pageRetire", and what a model file holds beyond these under
/// "model". What cannot be had is an object {"error": reason, "status": n} in its place; in a
/// partition, these stand where "volume" would. Throws std::invalid_argument where KORVEL_HOST names
/// no host.
nlohmann::ordered_json describeHost();

/// Two lower-case digits a byte.
std::string hexadecimal(const std::string& bytes);

}  // namespace platform
