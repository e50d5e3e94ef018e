// The trace server: every observation read and every event posted, one text line each, to whoever
// connects; new clients get the recent history first.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/clock.h"

namespace keld {

/// The newest lines, at most kMaxBytes in all, in a ring that allocates nothing once it is filled.
class TraceHistory {
 public:
  static constexpr std::size_t kMaxBytes = 131072;

  /// Appends a line and drops the oldest while the total exceeds kMaxBytes.
  void append(std::string_view line);
  /// Appends all lines, oldest first, to `out`.
  void copyTo(std::string& out) const;
  [[nodiscard]] std::size_t bytes() const { return bytes_; }

 private:
  void dropOldest();
  void addLength(std::uint32_t length);

  std::vector<char> ring_;
  std::size_t start_ = 0;
  std::size_t bytes_ = 0;
  std::vector<std::uint32_t> lengths_;  // a ring, too
  std::size_t firstLength_ = 0;
  std::size_t lines_ = 0;
};

/// Writes one CSV line for an argument array in its position-independent form: "IN" or "OUT", time
/// stamp in microseconds, identifier, arguments. `end` is the end of the argument area. The line
/// replaces what `line` held.
void renderTraceLine(std::string& line, WallTime renderedAt, const char* direction, std::uint64_t timestampUs,
                     const char* id, const void* arguments, std::uint32_t count, const void* end);

/// Where posting has its events traced. From any thread.
class EventTrace {
 public:
  EventTrace() = default;
  EventTrace(const EventTrace&) = delete;
  EventTrace& operator=(const EventTrace&) = delete;
  virtual ~EventTrace() = default;

  /// Traces a posted event record as "OUT".
  virtual void Trace_Event(const void* record) = 0;
};

/// Writes the "OUT" line of an event record; it replaces what `line` held.
void renderTraceEvent(std::string& line, WallTime renderedAt, const void* record);

/// Serves trace clients, each with a reader and a writer thread. Trace_* may be called from any
/// thread; the object must outlive the process's threads.
class TraceServer final : public EventTrace {
 public:
  explicit TraceServer(Clock& clock);
  TraceServer(const TraceServer&) = delete;
  TraceServer& operator=(const TraceServer&) = delete;
  ~TraceServer() override;

  /// Makes the listening socket at `path`. Returns its descriptor, which is the caller's, or -1
  /// with errno set: ENAMETOOLONG for 108 characters and more.
  static int Trace_Listen(const char* path);
  /// Accepts one client and starts its threads; failures are logged. One thread. A client for which
  /// there is no descriptor is turned away: in the queue it would keep the listener readable.
  void Trace_Accept(int listener);
  /// Appends a line, line feed included, to the history and to every client.
  void Trace_AddLine(std::string_view line);

  void Trace_Render(const char* direction, std::uint64_t timestampUs, const char* id, const void* arguments,
                    std::uint32_t count, const void* end);
  void Trace_Event(const void* record) override;
  /// Traces a raw observation record of `length` bytes, whose identifier is terminated inside, as "IN".
  void Trace_Observation(const void* record, std::size_t length);

 private:
  struct Client {
    std::string pending;
    bool closing = false;
    bool writing = true;
  };
  struct Start;

  static void* clientThread(void* start);
  static void* writerThread(void* start);
  void turnAway(int listener);
  void serve(int fd);
  void write(int fd);
  void stopWriting(int fd);

  Clock& clock_;
  int spare_;  ///< given up to turn a client away; the accepting thread's
  std::mutex mutex_;
  std::condition_variable changed_;
  TraceHistory history_;           // guarded by mutex_
  std::map<int, Client> clients_;  // guarded by mutex_
};

}  // namespace keld
