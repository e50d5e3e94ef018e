// What the platform sees of the host, for reading.
#pragma once

#include <string>

#include "json.h"

namespace kelctl {

/// Any JSON value as indented lines: "key: value" for each scalar of an object, a line "- …" for
/// each item of an array; an object of scalars in an array is one line.
std::string hostText(const Json& value);

}  // namespace kelctl
