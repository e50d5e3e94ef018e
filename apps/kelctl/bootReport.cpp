#include "bootReport.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>
#include <vector>

#include "kel/batch.h"

namespace kelctl {

namespace {

/// What the console records as its user and its reason; it knows neither.
constexpr const char* kUnknownUser = "Unknown";
constexpr const char* kUnknownReason =
    "Last reboot reason is unknown. Please check ORNi and the BMC logs for further details. ";

/// Empty where the record has no such value.
std::string valueOf(const platform::StoredObject& record, const char* key) {
  const auto found =
      std::find_if(record.values.begin(), record.values.end(), [&](const auto& pair) { return pair.first == key; });
  return found == record.values.end() ? std::string() : found->second;
}

KelEmit::Observation observation(const std::string& action, const char* known,
                                 const std::vector<std::string>& texts = {}) {
  KelEmit::Observation made;
  made.id = fmt::format("kel.user.host.{}.reason.{}", action, known);
  made.arguments.assign(texts.begin(), texts.end());
  return made;
}

bool sendable(const KelEmit::Observation& observation) {
  std::vector<char> batch;
  return KelEmit::appendRecord(observation, batch) == 0 && batch.size() < platform::kBatchLimitBytes;
}

/// A word as bash(1) reads it back.
std::string quoted(std::string_view word) {
  constexpr std::string_view kPlain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789%+,-./:=@_";
  const auto isControl = [](char c) { return static_cast<unsigned char>(c) < ' ' || c == 0x7f; };
  if (word.find_first_not_of(kPlain) == std::string_view::npos) return std::string(word);
  const bool coded = std::any_of(word.begin(), word.end(), isControl);
  std::string text = coded ? "$'" : "'";
  for (const char c : word) {
    if (coded && isControl(c)) {
      // Three octal digits, always: a hexadecimal code would swallow a digit behind it.
      text += fmt::format("\\{:03o}", static_cast<unsigned char>(c));
    } else if (coded && (c == '\\' || c == '\'')) {
      text += {'\\', c};
    } else if (c == '\'') {
      text += "'\\''";
    } else {
      text += c;
    }
  }
  return text + "'";
}

}  // namespace

KelEmit::Observation bootObservation(const std::optional<platform::StoredObject>& record) {
  if (!record) return observation("reboot", "unavailable");
  const std::string type = valueOf(*record, "type");
  const std::string user = valueOf(*record, "user");
  const std::string subsystem = valueOf(*record, "subsystem");
  const std::string time = valueOf(*record, "timestamp");
  const std::string reason = valueOf(*record, "reason");
  const std::string action = type == "POWEROFF" ? "poweroff" : "reboot";
  const bool typeKnown = type == "POWEROFF" || type == "REBOOT";
  const bool userKnown = !user.empty() && user != kUnknownUser;

  if (reason.empty() || (user == kUnknownUser && reason == kUnknownReason)) return observation(action, "unavailable");
  if (typeKnown && userKnown && !subsystem.empty() && !time.empty()) {
    KelEmit::Observation whole = observation(action, "management", {user, subsystem, time, reason});
    if (sendable(whole)) return whole;
  }
  KelEmit::Observation available = observation(action, "available", {reason});
  return sendable(available) ? available : observation(action, "unavailable");
}

std::string emitLine(const KelEmit::Observation& observation) {
  std::string line = "kelctl emit " + quoted(observation.id);
  for (const KelEmit::Argument& argument : observation.arguments) {
    if (const auto* text = std::get_if<std::string>(&argument)) line += " " + quoted("s:" + *text);
  }
  return line;
}

}  // namespace kelctl
