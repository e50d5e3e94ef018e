// The receiving end of the system log of every program that this test starts.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "deadline.h"
#include "descriptor.h"

namespace e2e {

/// One datagram of syslog(3).
struct LogLine {
  std::string raw;
  int priority = -1;      ///< severity and facility, the number between angle brackets
  std::string tag;        ///< the writer's identity
  std::string stamp;      ///< "2026-03-01T14:05:09.042Z", empty where the message has none
  std::string text;       ///< what follows the stamp, without its last line feed
  bool lineFeed = false;  ///< the message had a line feed at its end
};

/// Owns /dev/log of the private /dev and drains it on a thread of its own. Methods may be called from
/// any thread.
class SystemLog {
 public:
  using Predicate = std::function<bool(const LogLine&)>;

  SystemLog();
  SystemLog(const SystemLog&) = delete;
  SystemLog& operator=(const SystemLog&) = delete;
  ~SystemLog();

  [[nodiscard]] std::vector<LogLine> lines() const;
  /// The texts of the daemon's own lines, which carry a stamp.
  [[nodiscard]] std::vector<std::string> texts() const;
  [[nodiscard]] std::size_t count(const std::string& text) const;
  [[nodiscard]] std::size_t count(const Predicate& fits) const;

  /// The first line, or the n-th (from 1), with this text; throws where it does not come in time.
  LogLine waitFor(const std::string& text, std::size_t nth = 1, Deadline deadline = Deadline{});
  LogLine waitFor(const std::string& what, const Predicate& fits, std::size_t nth = 1, Deadline deadline = Deadline{});

 private:
  void drain();
  void take(const std::string& datagram);

  Descriptor socket_;
  Descriptor stop_;
  mutable std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<LogLine> lines_;
  std::thread drainer_;
};

/// Reads one datagram; fields that it does not have stay empty.
LogLine parseLogLine(const std::string& datagram);

}  // namespace e2e
