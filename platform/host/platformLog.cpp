#include "host/platformLog.h"

#include <syslog.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <utility>

namespace platform {

namespace {

/// Longest line, its NUL included; a longer one is cut.
constexpr std::size_t kLineBytes = 1024;

struct SinkSlot {
  std::mutex mutex;
  ScopedPlatformLog::Sink sink;
};

// Kept for the process's life, so that threads which outlast main() may still log.
SinkSlot& sinkSlot() {
  static auto* const slot = new SinkSlot;
  return *slot;
}

bool givenToSink(const char* line) {
  SinkSlot& slot = sinkSlot();
  const std::lock_guard lock(slot.mutex);
  if (slot.sink) slot.sink(line);
  return static_cast<bool>(slot.sink);
}

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
    if (!givenToSink(line.data())) syslog(LOG_INFO, "kelplat: %s", line.data());
  }
  errno = savedErrno;
}

ScopedPlatformLog::ScopedPlatformLog(Sink sink) {
  const std::lock_guard lock(sinkSlot().mutex);
  previous_ = std::exchange(sinkSlot().sink, std::move(sink));
}

ScopedPlatformLog::~ScopedPlatformLog() {
  const std::lock_guard lock(sinkSlot().mutex);
  sinkSlot().sink = std::move(previous_);
}

}  // namespace platform
