// Selecting by identifier.
#pragma once

#include <string>
#include <vector>

namespace kelctl {

/// True where one of `globs` matches all of `id`, or where there are none. A glob is as fnmatch(3)
/// has it: `*` and `?` match dots, too.
bool matchesAny(const std::vector<std::string>& globs, const std::string& id);

}  // namespace kelctl
