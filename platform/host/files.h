// Small files of text: read whole within a limit, appended to by whole lines.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "host/host.h"

namespace platform {

/// The content of a regular file. Fails with the errno value of the trouble, EFBIG where it is
/// longer than `limitBytes`, EINVAL where it is no regular file.
Answer<std::string> readFile(const std::string& path, std::size_t limitBytes);

/// Appends `line` and a newline in one write, so that lines of concurrent writers stay whole; makes
/// the file (mode 0600) and its directory where they are missing. Returns 0 or an errno value.
int appendLine(const std::string& path, std::string_view line);

/// strerror(3) as a string, from any thread.
std::string errnoText(int status);

/// Why something failed: the outcome's own text, else that of its status.
std::string reasonOf(const Outcome& outcome);

}  // namespace platform
