#include "glob.h"

#include <fnmatch.h>

#include <algorithm>

namespace kelctl {

bool matchesAny(const std::vector<std::string>& globs, const std::string& id) {
  return globs.empty() || std::any_of(globs.begin(), globs.end(), [&id](const std::string& glob) {
           return fnmatch(glob.c_str(), id.c_str(), 0) == 0;
         });
}

}  // namespace kelctl
