#include "host/platformLog.h"

#include <syslog.h>

#include <array>
#include <cerrno>
#include <cstdio>

namespace platform {

namespace {

/// Longest line, its NUL included; a longer one is cut.
constexpr std::size_t kLineBytes = 1024;

}  // namespace

void platformLog(const char* format, ...) {
  const int savedErrno = errno;
  std::array<char, kLineBytes> line{};
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(line.data(), line.size(), format, arguments);
  va_end(arguments);
  if (length >= 0) {
    // Texts of files and clients come through here: they must not forge a line of their own.
    for (char& c : line) {
      if (c == '\0') break;
      if (static_cast<unsigned char>(c) < 0x20) c = ' ';
    }
    // No openlog(3): the identity in the system log is the program's to choose.
    syslog(LOG_INFO, "kelplat: %s", line.data());
  }
  errno = savedErrno;
}

}  // namespace platform
