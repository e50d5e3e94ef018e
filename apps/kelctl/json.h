// JSON as the tool writes it: keys in the order in which they were set.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace kelctl {

using Json = nlohmann::ordered_json;

/// In one line, without a line feed. Bytes that are no UTF-8 are shown as U+FFFD.
inline std::string jsonLine(const Json& value) {
  return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace kelctl
