// The platform's own lines in the system log, told apart by their tag "kelplat: ".
#pragma once

#include <functional>
#include <string>

namespace platform {

/// Writes one line to the system log at informational priority, tagged: syslog(3). Control characters
/// become blanks and a long line is cut. Any thread; errno is left alone.
void platformLog(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// Takes the lines, untagged, in place of the system log while it lives; for tests and fuzzing. The
/// sink is called under a lock and must not log.
class ScopedPlatformLog {
 public:
  using Sink = std::function<void(const std::string& line)>;
  explicit ScopedPlatformLog(Sink sink);
  ScopedPlatformLog(const ScopedPlatformLog&) = delete;
  ScopedPlatformLog& operator=(const ScopedPlatformLog&) = delete;
  ~ScopedPlatformLog();

 private:
  Sink previous_;
};

}  // namespace platform
