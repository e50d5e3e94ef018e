// What a parameter list of the system-information interface holds.
#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "platform/vsi.h"

struct VSI_ParamList {
  std::vector<std::variant<std::string, std::int64_t>> elements;
};
