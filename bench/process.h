// A measured process with directories, a system log and an event socket of its own.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace bench {

/// Nanoseconds of the monotonic clock.
std::int64_t now();

/// Gives this process a private /dev whose log is drained by a thread of its own. False where the
/// machine does not permit it.
bool privateSystemLog();
/// Lines that the system log took so far.
std::uint64_t logLines();

/// Takes every connection to the event socket and hands over what it sent.
class EventSocket {
 public:
  EventSocket(const std::string& path, std::function<void(const std::string&)> take);
  EventSocket(const EventSocket&) = delete;
  EventSocket& operator=(const EventSocket&) = delete;
  ~EventSocket();

 private:
  int fd_;
  std::function<void(const std::string&)> take_;
  std::thread thread_;
};

/// A child process: killed, and its directories removed, at the end.
class Process {
 public:
  /// Makes the directories; start() runs the program.
  Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  ~Process();

  /// Runs `program` and waits until its trace socket accepts. Returns the nanoseconds that took.
  std::int64_t start(const std::string& program, const std::vector<std::string>& arguments);
  [[nodiscard]] std::string runDirectory() const { return directory_ + "/run"; }
  /// Resident memory in KiB.
  [[nodiscard]] long residentKiB() const;
  /// Sends SIGTERM and waits. Returns the exit status.
  int stop();

 private:
  std::string directory_;
  pid_t pid_ = -1;
};

}  // namespace bench
