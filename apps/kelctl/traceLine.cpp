#include "traceLine.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "json.h"
#include "numbers.h"

namespace kelctl {

namespace {

/// Commas before the first argument: rendering time, direction, time stamp, identifier, nothing.
constexpr std::uint64_t kCommasBeforeArguments = 5;
constexpr std::size_t kNanosecondDigits = 9;
constexpr unsigned kLongBits = 64;

bool isDecimal(std::string_view text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

/// The text up to the next comma, which is taken, too; nothing where there is no comma.
std::optional<std::string_view> takeField(std::string_view& rest) {
  const std::size_t comma = rest.find(',');
  if (comma == std::string_view::npos) return std::nullopt;
  const std::string_view field = rest.substr(0, comma);
  rest.remove_prefix(comma + 1);
  return field;
}

bool readTime(std::string_view text, TraceEntry& entry) {
  const std::size_t point = text.find('.');
  if (point == std::string_view::npos || text.size() - point - 1 != kNanosecondDigits) return false;
  if (!isDecimal(text.substr(0, point)) || !isDecimal(text.substr(point + 1))) return false;
  const auto seconds = parseUnsigned(text.substr(0, point));
  const auto nanoseconds = parseUnsigned(text.substr(point + 1));
  if (!seconds || !nanoseconds) return false;
  entry.renderedSeconds = *seconds;
  entry.renderedNanoseconds = static_cast<std::uint32_t>(*nanoseconds);
  return true;
}

/// The string at the beginning of `rest`, which begins with its quote; nothing where it does not end.
std::optional<std::string> takeString(std::string_view& rest) {
  std::string text;
  for (std::size_t at = 1; at < rest.size(); ++at) {
    if (rest[at] != '"') {
      text += rest[at];
    } else if (rest.substr(at + 1).starts_with('"')) {
      text += rest[at++];
    } else {
      rest.remove_prefix(at + 1);
      return text;
    }
  }
  return std::nullopt;
}

std::optional<TraceArgument> readPlain(std::string_view field) {
  if (field == "???") return TraceUnknown{};
  if (!isDecimal(field.starts_with('-') ? field.substr(1) : field)) return std::nullopt;
  if (const auto value = parseSigned(field, kLongBits)) return *value;
  if (const auto value = parseUnsigned(field)) return *value;
  return std::nullopt;
}

std::optional<TraceArgument> takeArgument(std::string_view& rest) {
  if (rest.starts_with('"')) {
    auto text = takeString(rest);
    if (!text) return std::nullopt;
    return std::move(*text);
  }
  const std::size_t comma = std::min(rest.find(','), rest.size());
  const std::string_view field = rest.substr(0, comma);
  rest.remove_prefix(comma);
  return readPlain(field);
}

bool readArguments(std::string_view rest, TraceEntry& entry) {
  while (!rest.empty()) {
    if (rest.front() != ',') return false;
    rest.remove_prefix(1);
    std::optional<TraceArgument> argument = takeArgument(rest);
    if (!argument) return false;
    entry.arguments.push_back(std::move(*argument));
  }
  return true;
}

struct ToJson {
  Json operator()(TraceUnknown /*unknown*/) const { return nullptr; }
  Json operator()(const auto& value) const { return value; }
};

}  // namespace

std::optional<TraceEntry> parseTraceLine(std::string_view line) {
  TraceEntry entry;
  const auto time = takeField(line);
  if (!time || !readTime(*time, entry)) return std::nullopt;
  const auto direction = takeField(line);
  if (direction != "IN" && direction != "OUT") return std::nullopt;
  entry.direction = direction == "IN" ? TraceDirection::in : TraceDirection::out;
  const auto timestamp = takeField(line);
  if (!timestamp || !isDecimal(*timestamp)) return std::nullopt;
  const auto microseconds = parseUnsigned(*timestamp);
  const auto id = takeField(line);
  if (!microseconds || !id) return std::nullopt;
  entry.timestamp = *microseconds;
  entry.id = *id;
  if (!readArguments(line, entry)) return std::nullopt;
  return entry;
}

std::string traceJson(const TraceEntry& entry) {
  Json rest;
  rest["direction"] = entry.direction == TraceDirection::in ? "IN" : "OUT";
  rest["time_us"] = entry.timestamp;
  rest["id"] = entry.id;
  rest["args"] = Json::array();
  for (const TraceArgument& argument : entry.arguments) rest["args"].push_back(std::visit(ToJson{}, argument));
  // A double would lose the nanoseconds, a JSON number does not.
  return fmt::format("{{\"rendered_at\":{}.{:09},{}", entry.renderedSeconds, entry.renderedNanoseconds,
                     jsonLine(rest).substr(1));
}

void TraceSplitter::beginEntry(std::size_t at) {
  begin_ = at;
  scanned_ = at;
  firstEnd_ = std::string::npos;
  closedAt_ = std::string::npos;
  commas_ = 0;
  quoted_ = false;
  fieldBegins_ = true;
}

std::size_t TraceSplitter::findDirectiveEnd() {
  const std::size_t end = pending_.find('\n', scanned_);
  const std::size_t limit = begin_ + kMaxDirectiveBytes;
  scanned_ = std::min({end, limit, pending_.size()});
  recovered_ = scanned_ == limit && end != limit;
  return scanned_ < pending_.size() ? scanned_ : std::string::npos;
}

// Steps through what has not been looked at. Returns the end of the first entry, or npos.
std::size_t TraceSplitter::findEnd() {
  recovered_ = false;
  if (begin_ < pending_.size() && pending_[begin_] == '#') return findDirectiveEnd();
  for (; scanned_ < pending_.size(); ++scanned_) {
    const char c = pending_[scanned_];
    if (c == '\n') {
      if (!quoted_) return scanned_;
      firstEnd_ = std::min(firstEnd_, scanned_);
    }
    if (c == '"' && quoted_) {
      quoted_ = false;
      closedAt_ = scanned_;
    } else if (c == '"' && commas_ >= kCommasBeforeArguments) {
      // A doubled quote opens again what its first half has closed.
      quoted_ = fieldBegins_ || closedAt_ + 1 == scanned_;
    }
    fieldBegins_ = c == ',' && !quoted_;
    if (fieldBegins_) ++commas_;
    recovered_ = scanned_ - begin_ >= kMaxEntryBytes;
    if (recovered_) return std::min(firstEnd_, scanned_);
  }
  recovered_ = ended_ && firstEnd_ != std::string::npos;
  return recovered_ ? firstEnd_ : std::string::npos;
}

void TraceSplitter::parts(const std::function<bool(std::string_view)>& take) {
  bool wanted = true;
  while (wanted) {
    const std::size_t end = findEnd();
    if (end == std::string::npos) break;
    cut_ = pending_[end] != '\n';
    wanted = take(std::string_view(pending_).substr(begin_, end - begin_));
    beginEntry(end + 1);
  }
  pending_.erase(0, begin_);
  scanned_ -= begin_;
  if (firstEnd_ != std::string::npos) firstEnd_ -= begin_;
  if (closedAt_ != std::string::npos) closedAt_ -= begin_;
  begin_ = 0;
}

void TraceSplitter::feed(std::string_view bytes, const std::function<bool(std::string_view)>& take) {
  pending_ += bytes;
  parts(take);
}

void TraceSplitter::finish(const std::function<bool(std::string_view)>& take) {
  ended_ = true;
  parts(take);
}

}  // namespace kelctl
