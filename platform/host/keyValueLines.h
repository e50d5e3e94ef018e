// The form of the configuration files: `key = value` lines.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

/// Longest configuration file that is read.
inline constexpr std::size_t kConfigurationFileBytes = std::size_t{1} << 20;

struct KeyValueLine {
  std::size_t number = 0;  ///< of the line, from 1
  std::string key;         ///< without blanks around it
  std::string value;       ///< without blanks around it; not empty
};

/// The settings of `text` in order. Empty lines are skipped, '#' begins a comment where the line
/// begins or after a blank; a line of another form is logged once, under `fileName`, and skipped.
std::vector<KeyValueLine> parseKeyValueLines(std::string_view text, const std::string& fileName);

/// The settings of a file; none where it is missing. A file that cannot be read is logged once.
std::vector<KeyValueLine> loadKeyValueLines(const std::string& path);

/// Logs once that line `number` of a file is not understood and skipped.
void logBadLine(const std::string& fileName, std::size_t number, const std::string& why);

/// `text` without the blanks around it.
std::string_view trimBlanks(std::string_view text);

}  // namespace platform
