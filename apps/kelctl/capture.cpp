#include "capture.h"

#include <algorithm>
#include <utility>

#include "numbers.h"

namespace kelctl {

namespace {

/// Deepest nesting of a header's or a patch's values.
constexpr int kDeepest = 64;

std::string_view takeWord(std::string_view& rest) {
  const std::size_t blank = std::min(rest.find(' '), rest.size());
  const std::string_view word = rest.substr(0, blank);
  rest.remove_prefix(std::min(blank + 1, rest.size()));
  return word;
}

/// An object; nothing where the text is none.
std::optional<Json> parseObject(std::string_view text) {
  bool tooDeep = false;
  const auto shallow = [&](int depth, Json::parse_event_t, Json&) {
    tooDeep = tooDeep || depth > kDeepest;
    return !tooDeep;
  };
  Json value = Json::parse(text.begin(), text.end(), shallow, false);
  if (tooDeep || !value.is_object()) return std::nullopt;
  return value;
}

std::string textOf(const Json& object, const char* key) {
  const auto found = object.find(key);
  return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

Json objectOf(const Json& object, const char* key) {
  const auto found = object.find(key);
  return found != object.end() && found->is_object() ? *found : Json::object();
}

std::optional<CaptureHeader> readHeader(std::string_view rest, std::string& reason) {
  if (takeWord(rest) != "1") {
    reason = "a capture of another version; this tool reads version 1";
    return std::nullopt;
  }
  const auto object = parseObject(rest);
  if (!object) {
    reason = "the header is no JSON object";
    return std::nullopt;
  }
  return CaptureHeader{textOf(*object, "host"), textOf(*object, "version"), objectOf(*object, "options"),
                       objectOf(*object, "facts")};
}

WallTime momentOf(std::uint64_t seconds, std::uint32_t nanoseconds) {
  return WallTime(std::chrono::seconds(static_cast<std::int64_t>(seconds)) + std::chrono::nanoseconds(nanoseconds));
}

}  // namespace

std::optional<WallTime> parseMoment(std::string_view text) {
  constexpr std::size_t kNanosecondDigits = 9;
  const std::size_t point = text.find('.');
  if (text.find_first_not_of("0123456789.") != std::string_view::npos) return std::nullopt;
  if (point == std::string_view::npos || text.size() - point - 1 != kNanosecondDigits) return std::nullopt;
  const auto seconds = parseUnsigned(text.substr(0, point));
  const auto nanoseconds = parseUnsigned(text.substr(point + 1));
  if (!seconds || !nanoseconds || *seconds > kLastCaptureSecond || *nanoseconds >= std::nano::den) return std::nullopt;
  return momentOf(*seconds, static_cast<std::uint32_t>(*nanoseconds));
}

bool CaptureReader::feed(std::string_view bytes) {
  if (wanted_) splitter_.feed(bytes, [this](std::string_view line) { return wanted_ = takeLine(line); });
  return wanted_;
}

void CaptureReader::finish() {
  if (wanted_) splitter_.finish([this](std::string_view line) { return wanted_ = takeLine(line); });
}

bool CaptureReader::takeLine(std::string_view line) {
  const std::uint64_t number = line_;
  const bool rest = std::exchange(overlong_, splitter_.cut());
  line_ += static_cast<std::uint64_t>(std::count(line.begin(), line.end(), '\n')) + (overlong_ ? 0 : 1);
  if (rest || overlong_) {
    if (!rest) refuse_(number, "longer than any line of a trace");
    return true;
  }
  const bool comment = line == "#" || line.starts_with("# ");
  if (line.empty() || comment) return true;
  std::string reason;
  std::optional<CaptureItem> item = read(line, reason);
  if (!item) {
    refuse_(number, reason);
    return true;
  }
  item->line = number;
  item->text = line;
  return take_(*item);
}

std::optional<CaptureItem> CaptureReader::read(std::string_view line, std::string& reason) const {
  CaptureItem item;
  if (!line.starts_with('#')) {
    auto entry = parseTraceLine(line);
    if (!entry) {
      reason = "no line of a trace";
      return std::nullopt;
    }
    if (entry->renderedSeconds > kLastCaptureSecond) {
      reason = "its time is beyond what a clock shows";
      return std::nullopt;
    }
    item.time = momentOf(entry->renderedSeconds, entry->renderedNanoseconds);
    item.what = std::move(*entry);
    return item;
  }
  const std::string_view word = takeWord(line);
  if (word == "#keld-capture") {
    auto header = readHeader(line, reason);
    if (!header) return std::nullopt;
    item.what = std::move(*header);
    return item;
  }
  if (word == "#bad") {
    reason = "the daemon's trace had no such line in it";
    return std::nullopt;
  }
  const auto time = parseMoment(takeWord(line));
  if (word == "#facts") {
    auto patch = parseObject(line);
    if (patch) item.what = FactsChange{std::move(*patch)};
    if (!patch) reason = "the change of facts is no JSON object";
  } else if (word == "#step") {
    const auto to = parseMoment(line);
    if (to) item.what = ClockStep{*to};
    if (!to) reason = "no time to which the clock was set";
  } else if (word == "#agent") {
    item.what = AgentChange{line == "away"};
    if (line != "away" && line != "back") reason = "the agent is neither away nor back";
  } else if (word == "#restart") {
    item.what = DaemonRestart{};
  } else if (word == "#end") {
    item.what = CaptureEnd{};
  } else {
    reason = "a note that this tool does not know";
  }
  if (reason.empty() && !time) reason = "no time of the form SECONDS.NANOSECONDS";
  if (!reason.empty()) return std::nullopt;
  item.time = *time;
  return item;
}

}  // namespace kelctl
