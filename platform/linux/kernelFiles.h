// Small files and directories of sysfs and procfs, and the texts found in them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/host.h"

namespace platform {

/// Most names that are taken from one directory.
inline constexpr std::size_t kDirectoryNames = std::size_t{1} << 16;
/// Longest text from outside that is shown or handed on as a name.
inline constexpr std::size_t kShownBytes = 255;

/// The first `limitBytes` of a regular file, or less where it ends. Fails with the errno value.
Answer<std::string> readStart(const std::string& path, std::size_t limitBytes);

/// The first line of a small file without the blanks around it; nothing where it cannot be read.
std::optional<std::string> readWord(const std::string& path);

/// The number that is the whole first line of a file.
std::optional<std::uint64_t> readNumber(const std::string& path);

/// Digits of `base` and nothing else; nothing where there is more, none, or too many.
std::optional<std::uint64_t> parseNumber(std::string_view text, int base = 10);

/// "0x" and hexadecimal digits.
std::string hexadecimalText(std::uint64_t value);

/// Calls `take` with each name in a directory, "." and ".." left out, until it returns false.
/// Returns 0 or an errno value.
int forEachName(const std::string& directory, const std::function<bool(const char* name)>& take);

/// The names in a directory, sorted, at most kDirectoryNames; none where it cannot be read.
std::vector<std::string> namesIn(const std::string& directory);

/// The last component of a symbolic link's target; nothing where there is no link.
std::optional<std::string> linkName(const std::string& path);

/// Whether `name` can be one component of a path, and nothing but that.
bool isPlainName(std::string_view name);

bool exists(const std::string& path);

/// Replaces a file's content in one write, as the kernel's files want it. The file must be there.
/// Returns 0 or an errno value.
int writeKernelFile(const std::string& path, std::string_view text);

/// `text` with \xNN (udev) as the bytes that they stand for.
std::string decodeHexEscapes(std::string_view text);
/// `text` with \NNN (mountinfo) as the bytes that they stand for.
std::string decodeOctalEscapes(std::string_view text);

/// `text` as a name to hand on: control characters become '?', and it is cut to kShownBytes between
/// UTF-8 sequences.
std::string shownName(std::string_view text);

/// The failure of what this machine lacks.
Outcome notAvailable(const std::string& why);

}  // namespace platform
