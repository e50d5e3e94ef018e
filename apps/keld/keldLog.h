// The daemon's diagnostics: one line each, stamped with the local time, to the system log.
//
// Every function may be called from any thread and takes no lock of its own.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include "platform/clock.h"
#include "platform/kel.h"

namespace keld {

/// Logs a printf-style line at informational priority, preceded by the local time. The format
/// carries its own line end.
void Log(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// Stops the process on an impossible state: the prefix "Keld - Panic: " and the message go to
/// standard error, the prefix and the bare format to the system log, then the process aborts.
[[noreturn]] void Panic(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// Writes the local time, such as "2026-03-01T14:05:09Z: ", or with milliseconds
/// "2026-03-01T14:05:09.042Z: ", and its NUL to `buffer`. Returns the characters written without
/// the NUL, 0 where they do not fit. The letter Z stands although the time is local.
std::size_t makeTimestamp(bool milliseconds, char* buffer, std::size_t size);
/// The same for a given moment.
std::size_t makeTimestamp(WallTime moment, bool milliseconds, char* buffer, std::size_t size);

/// Logs one observation: thread, time stamp in microseconds, identifier and message.
void logObservation(const Kel* observation);
/// The same line from its parts.
void logObservation(const char* id, const char* message, std::uint64_t timestampUs);

/// Where log lines go instead of the system log; for tests and tools that are not the daemon.
class LogSink {
 public:
  LogSink() = default;
  LogSink(const LogSink&) = delete;
  LogSink& operator=(const LogSink&) = delete;
  virtual ~LogSink() = default;
  /// Takes one formatted line without its time stamp. Called from any thread.
  virtual void line(const char* text) = 0;
  /// Takes the message of a Panic before anything else is done of it. A tool that must go on where the
  /// daemon would end leaves by an exception, which no handler takes if it is no standard one.
  virtual void panic(const char* /*text*/) {}
};

/// Redirects Log to `sink`, nullptr: to the system log again. Returns the sink before. The sink
/// must outlive every thread that logs.
LogSink* setLogSink(LogSink* sink);

}  // namespace keld
