#include "host/keyValueLines.h"

#include <algorithm>
#include <cerrno>

#include "host/complaints.h"
#include "host/files.h"

namespace platform {

namespace {

constexpr std::string_view kBlanks = " \t\r\f\v";

std::string_view withoutComment(std::string_view line) {
  for (std::size_t at = line.find('#'); at != std::string_view::npos; at = line.find('#', at + 1)) {
    if (at == 0 || kBlanks.find(line[at - 1]) != std::string_view::npos) return line.substr(0, at);
  }
  return line;
}

}  // namespace

std::string_view trimBlanks(std::string_view text) {
  const std::size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

void logBadLine(const std::string& fileName, std::size_t number, const std::string& why) {
  logOnce(fileName + ", line " + std::to_string(number) + ": " + why + "; the line is skipped");
}

std::vector<KeyValueLine> parseKeyValueLines(std::string_view text, const std::string& fileName) {
  std::vector<KeyValueLine> settings;
  for (std::size_t number = 1; !text.empty(); ++number) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    const std::string_view line = trimBlanks(withoutComment(text.substr(0, end)));
    text.remove_prefix(std::min(end + 1, text.size()));
    if (line.empty()) continue;
    const std::size_t equals = line.find('=');
    const std::string_view key = trimBlanks(line.substr(0, std::min(equals, line.size())));
    const std::string_view value = equals < line.size() ? trimBlanks(line.substr(equals + 1)) : std::string_view();
    if (key.empty() || value.empty() || line.find('\0') != std::string_view::npos) {
      logBadLine(fileName, number, "not of the form key = value");
      continue;
    }
    settings.push_back({number, std::string(key), std::string(value)});
  }
  return settings;
}

std::vector<KeyValueLine> loadKeyValueLines(const std::string& path) {
  const Answer<std::string> content = readFile(path, kConfigurationFileBytes);
  if (content.ok()) return parseKeyValueLines(content.value, path);
  if (content.outcome.status != ENOENT) {
    logOnce("cannot read " + path + ": " + reasonOf(content.outcome) + "; it counts as empty");
  }
  return {};
}

}  // namespace platform
