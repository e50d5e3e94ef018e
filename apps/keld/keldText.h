// Texts that several correlators make.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace keld {

/// Each name in double quotes, parted by ", ".
std::string quoteJoin(const std::vector<std::string>& names);

/// A number as "0x1f".
std::string hexText(std::uint64_t number);

}  // namespace keld
