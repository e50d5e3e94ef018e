// Texts that several correlators make.
#pragma once

#include <string>
#include <vector>

namespace keld {

/// Each name in double quotes, parted by ", ".
std::string quoteJoin(const std::vector<std::string>& names);

}  // namespace keld
