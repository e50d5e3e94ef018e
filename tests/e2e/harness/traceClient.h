// A client of the daemon's trace socket.
#pragma once

#include <string>
#include <vector>

#include "deadline.h"
#include "descriptor.h"

namespace e2e {

/// One line, apart at its first commas.
struct TraceLine {
  std::string raw;        ///< without its line feed
  std::string time;       ///< seconds, '.', nanoseconds
  std::string direction;  ///< "IN" or "OUT"
  std::string stamp;      ///< microseconds
  std::string id;
  std::string rest;  ///< after the identifier's comma; for a line without arguments ","
};

TraceLine parseTraceLine(const std::string& raw);

/// Belongs to one thread.
class TraceClient {
 public:
  /// Connects; throws where the daemon does not listen.
  explicit TraceClient(const std::string& path);
  /// Takes a connection that exists.
  explicit TraceClient(Descriptor connection) : fd_(std::move(connection)) {}

  /// The next line without its line feed; throws where none comes in time.
  std::string nextRaw(Deadline deadline = Deadline{});
  TraceLine next(Deadline deadline = Deadline{}) { return parseTraceLine(nextRaw(deadline)); }
  /// The lines before the blank one that parts history and live lines.
  std::vector<std::string> history(Deadline deadline = Deadline{});
  /// Reads on until a line of this direction and identifier, and returns it.
  TraceLine waitFor(const std::string& direction, const std::string& id, Deadline deadline = Deadline{});
  /// Reads on until such a line; returns every line read, that one last.
  std::vector<TraceLine> readThrough(const std::string& direction, const std::string& id,
                                     Deadline deadline = Deadline{});
  void write(const std::string& bytes);
  void hangUp() { fd_.close(); }

 private:
  Descriptor fd_;
  std::string buffer_;
  std::size_t taken_ = 0;  ///< bytes of the buffer that were handed out
};

}  // namespace e2e
