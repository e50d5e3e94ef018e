#include "numbers.h"

#include <charconv>
#include <system_error>

namespace kelctl {

namespace {

constexpr unsigned kWordBits = 32;

template <typename Number, typename... Base>
std::optional<Number> parseWhole(std::string_view text, Base... base) {
  Number value{};
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value, base...);
  if (error != std::errc() || stop != end) return std::nullopt;
  return value;
}

bool isHexadecimal(std::string_view text) {
  return text.starts_with("0x") || text.starts_with("0X");
}

}  // namespace

std::optional<std::uint64_t> parseUnsigned(std::string_view text, std::uint64_t most) {
  constexpr int kHexadecimal = 16;
  const auto value =
      isHexadecimal(text) ? parseWhole<std::uint64_t>(text.substr(2), kHexadecimal) : parseWhole<std::uint64_t>(text);
  return value && *value <= most ? value : std::nullopt;
}

std::optional<std::uint64_t> parseSize(std::string_view text) {
  constexpr std::string_view kUnits = "KMGT";
  constexpr unsigned kBitsPerUnit = 10;
  const std::size_t unit = text.empty() ? std::string_view::npos : kUnits.find(text.back());
  if (unit == std::string_view::npos) return parseWhole<std::uint64_t>(text);
  const unsigned shift = kBitsPerUnit * static_cast<unsigned>(unit + 1);
  text.remove_suffix(1);
  const auto count = parseWhole<std::uint64_t>(text);
  if (!count || *count > std::numeric_limits<std::uint64_t>::max() >> shift) return std::nullopt;
  return *count << shift;
}

std::optional<std::int64_t> parseSigned(std::string_view text, unsigned bits) {
  if (isHexadecimal(text)) {
    if (bits == kWordBits) {
      const auto pattern = parseUnsigned(text, std::numeric_limits<std::uint32_t>::max());
      if (!pattern) return std::nullopt;
      return static_cast<std::int32_t>(static_cast<std::uint32_t>(*pattern));
    }
    const auto pattern = parseUnsigned(text);
    if (!pattern) return std::nullopt;
    return static_cast<std::int64_t>(*pattern);
  }
  if (bits == kWordBits) return parseWhole<std::int32_t>(text);
  return parseWhole<std::int64_t>(text);
}

std::optional<double> parseDouble(std::string_view text) {
  return parseWhole<double>(text);
}

}  // namespace kelctl
