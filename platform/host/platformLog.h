// The platform's own lines in the system log, told apart by their tag "kelplat: ".
#pragma once

#include <cstdarg>

namespace platform {

/// Writes one line to the system log at informational priority, tagged.
void platformLog(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace platform
