#include "keldText.h"

namespace keld {

std::string quoteJoin(const std::vector<std::string>& names) {
  std::string joined;
  for (const std::string& name : names) {
    if (!joined.empty()) joined += ", ";
    joined += '"' + name + '"';
  }
  return joined;
}

}  // namespace keld
