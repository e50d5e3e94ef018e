#include "keldLog.h"

#include <syslog.h>

#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

#include "platform/str.h"
#include "platform/vthread.h"

namespace keld {

namespace {

constexpr std::size_t kTimestampSize = 32;

std::atomic<LogSink*> logSink{nullptr};

struct Freed {
  void operator()(char* text) const noexcept { std::free(text); }
};
using CString = std::unique_ptr<char, Freed>;

/// The text of a second, the last of which each thread keeps: a busy daemon asks for the same one over and
/// over. Returns its length, 0 where it does not fit.
std::size_t secondsText(std::time_t seconds, char* buffer, std::size_t size) {
  struct Text {
    std::time_t seconds = -1;
    long zone = 0;
    std::size_t length = 0;
    char text[kTimestampSize] = {};
  };
  thread_local Text last;
  if (last.length == 0 || last.seconds != seconds || last.zone != timezone) {
    std::tm local{};
    if (localtime_r(&seconds, &local) == nullptr) return 0;
    last.length = std::strftime(last.text, sizeof last.text, "%Y-%m-%dT%H:%M:%SZ: ", &local);
    last.seconds = seconds;
    last.zone = timezone;
  }
  if (last.length == 0 || last.length >= size) return 0;
  std::memcpy(buffer, last.text, last.length + 1);
  return last.length;
}

CString formatted(const char* format, std::va_list args) {
  char* text = nullptr;
  return CString(vasprintf(&text, format, args) < 0 ? nullptr : text);
}

void sinkLine(LogSink& sink, const char* format, std::va_list args) {
  if (const CString text = formatted(format, args)) sink.line(text.get());
}

void sinkPanic(LogSink& sink, const char* format, std::va_list args) {
  if (const CString text = formatted(format, args)) sink.panic(text.get());
}

void logArguments(const char* format, std::va_list args) {
  if (LogSink* sink = logSink.load(std::memory_order_acquire); sink != nullptr) {
    sinkLine(*sink, format, args);
    return;
  }
  char stamp[kTimestampSize];
  if (makeTimestamp(true, stamp, sizeof stamp) == 0) stamp[0] = '\0';
  const CString stamped(Str_Asprintf(nullptr, "%s%s", stamp, format));
  vsyslog(LOG_INFO, stamped ? stamped.get() : format, args);
}

}  // namespace

void Log(const char* format, ...) {
  std::va_list args;
  va_start(args, format);
  logArguments(format, args);
  va_end(args);
}

void Panic(const char* format, ...) {
  std::va_list args;
  if (LogSink* sink = logSink.load(std::memory_order_acquire); sink != nullptr) {
    va_start(args, format);
    sinkPanic(*sink, format, args);
    va_end(args);
  }
  va_start(args, format);
  std::fputs("Keld - Panic: ", stderr);
  std::vfprintf(stderr, format, args);
  va_end(args);
  Log("%s", "Keld - Panic: ");
  // Kept: the bare format, so that the system log copy is a marker and the values stay on standard error.
  Log("%s", format);
  std::abort();
}

std::size_t makeTimestamp(WallTime moment, bool milliseconds, char* buffer, std::size_t size) {
  // The letter Z, the colon and the blank, which milliseconds push to the right.
  constexpr std::size_t kTail = 3;
  const auto second = std::chrono::floor<std::chrono::seconds>(moment);
  const std::size_t length = secondsText(second.time_since_epoch().count(), buffer, size);
  if (!milliseconds || length < kTail) return length;
  const auto millis = std::chrono::floor<std::chrono::milliseconds>(moment - second).count();
  const std::size_t room = size - (length - kTail);
  const int tail = std::snprintf(buffer + length - kTail, room, ".%03dZ: ", static_cast<int>(millis));
  return tail < 0 || static_cast<std::size_t>(tail) >= room ? 0 : length - kTail + static_cast<std::size_t>(tail);
}

std::size_t makeTimestamp(bool milliseconds, char* buffer, std::size_t size) {
  return makeTimestamp(systemClock().wall(), milliseconds, buffer, size);
}

void logObservation(const Kel* observation) {
  const char* id = nullptr;
  Kel_GetID(observation, &id);
  const CString message(Kel_GetMsg(observation));
  logObservation(id, message.get(), Kel_GetTimestamp(observation));
}

void logObservation(const char* id, const char* message, std::uint64_t timestampUs) {
  Log("[%s] %" PRIu64 "us: [%s] %s\n", VThreadBase_CurName(), timestampUs, id != nullptr ? id : "(null)",
      message != nullptr ? message : "(null)");
}

LogSink* setLogSink(LogSink* sink) {
  return logSink.exchange(sink, std::memory_order_acq_rel);
}

}  // namespace keld
