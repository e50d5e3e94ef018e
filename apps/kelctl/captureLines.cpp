#include "captureLines.h"

#include <fmt/format.h>

#include <limits>

#include "numbers.h"
#include "traceLine.h"

namespace kelctl {

namespace {

constexpr CaptureTime kPerSecond = 1'000'000'000;
constexpr std::size_t kNanosecondDigits = 9;

using Json = nlohmann::json;

std::string text(const Json& value) {
  return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

bool isDecimal(std::string_view digits) {
  return !digits.empty() && digits.find_first_not_of("0123456789") == std::string_view::npos;
}

}  // namespace

std::string captureTimeText(CaptureTime time) {
  // Clocks may be set to before the epoch; the trace shows none of that.
  const CaptureTime shown = time < 0 ? 0 : time;
  return fmt::format("{}.{:09}", shown / kPerSecond, shown % kPerSecond);
}

std::optional<CaptureTime> renderingTime(std::string_view entry) {
  const std::string_view field = entry.substr(0, entry.find(','));
  const std::size_t point = field.find('.');
  if (point == std::string_view::npos || field.size() - point - 1 != kNanosecondDigits) return std::nullopt;
  if (!isDecimal(field.substr(0, point)) || !isDecimal(field.substr(point + 1))) return std::nullopt;
  constexpr auto kMost = static_cast<std::uint64_t>(std::numeric_limits<CaptureTime>::max() / kPerSecond - 1);
  const auto seconds = parseUnsigned(field.substr(0, point), kMost);
  const auto nanoseconds = parseUnsigned(field.substr(point + 1));
  if (!seconds || !nanoseconds) return std::nullopt;
  return static_cast<CaptureTime>(*seconds) * kPerSecond + static_cast<CaptureTime>(*nanoseconds);
}

std::string captureHeaderLine(const Json& header) {
  std::string line = "#keld-capture 1 " + text(header);
  if (line.size() > TraceSplitter::kMaxDirectiveBytes) {
    Json shorter = header;
    shorter.erase("facts");
    line = "#keld-capture 1 " + text(shorter);
  }
  return line + '\n';
}

std::string factsLine(CaptureTime time, const Json& patch) {
  return fmt::format("#facts {} {}\n", captureTimeText(time), text(patch));
}

std::string stepLine(CaptureTime time, CaptureTime to) {
  return fmt::format("#step {} {}\n", captureTimeText(time), captureTimeText(to));
}

std::string restartLine(CaptureTime time) {
  return fmt::format("#restart {}\n", captureTimeText(time));
}

std::string endLine(CaptureTime time) {
  return fmt::format("#end {}\n", captureTimeText(time));
}

std::string captureEntry(std::string_view entry, bool recovered) {
  return fmt::format("{}{}\n", recovered || entry.starts_with('#') ? "#bad " : "", entry);
}

Json mergePatch(const Json& from, const Json& to) {
  if (!from.is_object() || !to.is_object()) return to;
  Json patch = Json::object();
  for (const auto& [key, value] : from.items()) {
    if (!to.contains(key)) patch[key] = nullptr;
  }
  for (const auto& [key, value] : to.items()) {
    const auto before = from.find(key);
    if (before == from.end()) {
      patch[key] = value;
    } else if (*before != value) {
      patch[key] = mergePatch(*before, value);
    }
  }
  return patch;
}

}  // namespace kelctl
