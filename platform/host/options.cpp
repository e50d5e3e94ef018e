#include "host/options.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <map>
#include <string_view>

#include "configstore/database.h"
#include "host/complaints.h"
#include "host/files.h"
#include "host/keyValueLines.h"
#include "host/paths.h"
#include "host/storedOptions.h"

namespace platform {

namespace {

struct Default {
  const char* name;
  std::int64_t value;
};

constexpr std::array<Default, 7> kDefaults{{
    {"Cpu/CPUOfflineThreshold", 0},
    {"Misc/KelAsyncEnable", 1},
    {"Net/LinkFlappingThreshold", 0},
    {"PageRetire/ApeiLoggingEnabled", 0},
    {"PageRetire/PageErrorCorrPeriod", 30},
    {"PageRetire/PageErrorCorrThreshold", 2},
    {"PageRetire/ThresholdInterval", 10},
}};

constexpr const char* kStored = "stored";
constexpr const char* kFromHost = "host";
constexpr const char* kFromFile = "options.conf";
constexpr const char* kFromDefaults = "default";

/// Longest name that may be set.
constexpr std::size_t kNameBytes = 255;

std::optional<std::int64_t> parseInteger(std::string_view text) {
  std::int64_t value = 0;
  const char* const end = text.data() + text.size();
  if (std::from_chars(text.data(), end, value) != std::from_chars_result{end, std::errc()}) return std::nullopt;
  return value;
}

bool validName(const std::string& name) {
  const std::size_t slash = name.rfind('/');
  const auto plain = [](char c) { return static_cast<unsigned char>(c) > ' ' && c != '=' && c != '#' && c != 0x7f; };
  return slash != std::string::npos && slash > 0 && slash + 1 < name.size() && name.size() <= kNameBytes &&
         std::all_of(name.begin(), name.end(), plain);
}

/// What options.conf says; the last line about an option counts.
std::map<std::string, std::int64_t> fileOptions() {
  const std::string path = confDirectory() + "/options.conf";
  std::map<std::string, std::int64_t> options;
  for (const KeyValueLine& line : loadKeyValueLines(path)) {
    const std::optional<std::int64_t> value = parseInteger(line.value);
    if (value && validName(line.key)) {
      options[line.key] = *value;
    } else {
      logBadLine(path, line.number, "not of the form GROUP/NAME = integer");
    }
  }
  return options;
}

Outcome withLog(Outcome outcome) {
  if (!outcome.ok()) logSparsely("stored options", "stored options: " + databasePath() + ": " + reasonOf(outcome));
  return outcome;
}

}  // namespace

Answer<OptionFacts> readOption(const std::string& name) {
  const auto answer = [&](std::int64_t value, const char* origin) {
    return Answer<OptionFacts>{{}, {name, value, origin}};
  };
  // The host comes first only to learn whether it makes the reading fail.
  const Answer<std::optional<std::int64_t>> host = currentHost().optionValue(name);
  if (!host.ok()) return {host.outcome, {}};
  const bool alone = currentHost().keeper() != nullptr;
  const Answer<std::optional<std::int64_t>> stored = alone ? Answer<std::optional<std::int64_t>>{} : storedOption(name);
  if (!stored.ok()) return {withLog(stored.outcome), {}};
  if (stored.value) return answer(*stored.value, kStored);
  if (host.value) return answer(*host.value, kFromHost);
  const auto file = alone ? std::map<std::string, std::int64_t>() : fileOptions();
  if (const auto found = file.find(name); found != file.end()) return answer(found->second, kFromFile);
  for (const Default& preset : kDefaults) {
    if (name == preset.name) return answer(preset.value, kFromDefaults);
  }
  return {{ENOENT, "no such option"}, {}};
}

Outcome setOption(const std::string& name, std::int64_t value) {
  if (!validName(name)) return {EINVAL, "an option's name has the form GROUP/NAME"};
  if (Outcome trouble = currentHost().storeTrouble("option.set"); !trouble.ok()) return trouble;
  Outcome stored = withLog(storeOption(name, value));
  if (stored.ok()) currentHost().optionWasSet(name, value);
  return stored;
}

std::vector<OptionFacts> listOptions() {
  std::map<std::string, OptionFacts> known;
  const auto noter = [&known](const char* origin) {
    return [&known, origin](const std::string& name, std::int64_t value) { known[name] = {name, value, origin}; };
  };
  for (const Default& preset : kDefaults) noter(kFromDefaults)(preset.name, preset.value);
  for (const auto& [name, value] : fileOptions()) noter(kFromFile)(name, value);
  const Host& host = currentHost();
  for (const std::string& name : host.optionNames()) {
    const auto own = host.optionValue(name);
    if (own.ok() && own.value) noter(kFromHost)(name, *own.value);
  }
  // What the store cannot tell is in the log; the rest is still worth showing.
  const auto stored = storedOptions();
  (void)withLog(stored.outcome);
  for (const auto& [name, value] : stored.value) noter(kStored)(name, value);

  std::vector<OptionFacts> readable;
  for (auto& [name, facts] : known) {
    if (host.optionValue(name).ok()) readable.push_back(std::move(facts));
  }
  return readable;
}

}  // namespace platform
