#include "keldText.h"

#include <charconv>

namespace keld {

std::string quoteJoin(const std::vector<std::string>& names) {
  std::string joined;
  for (const std::string& name : names) {
    if (!joined.empty()) joined += ", ";
    joined += '"' + name + '"';
  }
  return joined;
}

std::string hexText(std::uint64_t number) {
  constexpr int kBase = 16;
  char digits[sizeof number * 2];
  const auto end = std::to_chars(std::begin(digits), std::end(digits), number, kBase).ptr;
  return "0x" + std::string(std::begin(digits), end);
}

}  // namespace keld
