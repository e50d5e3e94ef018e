#include "eventTexts.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>

#include "msgfmt/conversion.h"

namespace kelctl {

namespace {

using msgfmt::Converts;

struct ToJson {
  Json operator()(KelEmit::NullText /*none*/) const { return nullptr; }
  Json operator()(const auto& value) const { return value; }
};

bool fits(const msgfmt::Conversion& conversion, const KelEmit::Argument& argument) {
  const bool text =
      std::holds_alternative<std::string>(argument) || std::holds_alternative<KelEmit::NullText>(argument);
  const bool floating = std::holds_alternative<double>(argument);
  switch (conversion.converts) {
    case Converts::text:
      return text;
    case Converts::floating:
      return floating;
    case Converts::percent:
    case Converts::unknown:
      return false;
    default:
      return !text && !floating;
  }
}

}  // namespace

bool argumentsFit(const std::string& messageTemplate, const std::vector<KelEmit::Argument>& arguments) {
  std::size_t index = 0;
  const char* const end = messageTemplate.data() + messageTemplate.size();
  for (const char* at = std::find(messageTemplate.data(), end, '%'); at != end; at = std::find(at, end, '%')) {
    const msgfmt::Conversion conversion = msgfmt::readConversion(at);
    at = conversion.end;
    if (conversion.converts == Converts::percent) continue;
    if (index == arguments.size() || !fits(conversion, arguments[index++])) return false;
  }
  return index == arguments.size();
}

EventTexts::EventTexts(const std::vector<CatalogEntry>& entries) {
  for (const CatalogEntry& entry : entries) {
    for (const CatalogEvent& event : entry.events) {
      std::vector<std::string>& known = templates_[std::string(event.name)];
      if (std::find(known.begin(), known.end(), event.message) == known.end()) known.emplace_back(event.message);
    }
  }
}

const EventTexts& knownEventTexts() {
  static const EventTexts kTexts(catalog());
  return kTexts;
}

std::string EventTexts::textOf(const platform::EventRecord& record) const {
  if (const auto found = templates_.find(record.name); found != templates_.end()) {
    for (const std::string& candidate : found->second) {
      if (argumentsFit(candidate, record.arguments)) return record.text(candidate);
    }
  }
  std::string arguments;
  for (const KelEmit::Argument& argument : record.arguments) {
    arguments += (arguments.empty() ? "" : ", ") + jsonLine(std::visit(ToJson{}, argument));
  }
  return fmt::format("{} ({})", record.name, arguments);
}

std::string eventJson(const platform::EventRecord& record, const std::string& text) {
  Json line;
  line["time_us"] = record.timestamp;
  line["kind"] = platform::eventKindName(record.kind);
  line["event"] = record.name;
  line["text"] = text;
  line["args"] = Json::array();
  for (const KelEmit::Argument& argument : record.arguments) line["args"].push_back(std::visit(ToJson{}, argument));
  std::string host;
  for (const std::uint8_t byte : record.hostIdentity) host += fmt::format("{:02x}", byte);
  line["host"] = host;
  return jsonLine(line);
}

std::string utcTime(std::uint64_t microseconds) {
  constexpr std::uint64_t kPerSecond = 1'000'000;
  constexpr std::uint64_t kPerDay = 86'400 * kPerSecond;
  constexpr std::uint64_t kLastDay = 2'932'896;  // 9999-12-31, the last that has four digits
  if (microseconds / kPerDay > kLastDay) return fmt::format("{}us", microseconds);
  const std::chrono::year_month_day date{
      std::chrono::sys_days(std::chrono::days(static_cast<int>(microseconds / kPerDay)))};
  const std::uint64_t seconds = microseconds % kPerDay / kPerSecond;
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:06}Z", static_cast<int>(date.year()),
                     static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()), seconds / 3600,
                     seconds / 60 % 60, seconds % 60, microseconds % kPerSecond);
}

}  // namespace kelctl
