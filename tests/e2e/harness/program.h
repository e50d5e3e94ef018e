// A program under test as a child process of its own.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "deadline.h"
#include "descriptor.h"
#include "workspace.h"

namespace e2e {

/// How a process ended: its exit status, or the signal that ended it.
struct Ending {
  bool exited = false;
  int status = 0;

  [[nodiscard]] bool with(int exitStatus) const { return exited && status == exitStatus; }
  [[nodiscard]] std::string text() const { return (exited ? "exit status " : "signal ") + std::to_string(status); }
};

/// Killed at destruction where it still runs. Belongs to one thread.
class Program {
 public:
  Program(const Workspace& workspace, std::string path, std::vector<std::string> arguments = {});
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;
  ~Program();

  /// Before start(). The environment is otherwise the workspace's, TZ=UTC and little else.
  void setEnvironment(const std::string& name, const std::string& value) { environment_[name] = value; }
  /// Before start(): what the program sees as its own path.
  void setInvokedAs(std::string path) { invokedAs_ = std::move(path); }
  void start();

  [[nodiscard]] pid_t pid() const { return pid_; }
  void signal(int number) const;
  /// Throws where the program still runs when the deadline passes.
  Ending waitForEnd(Deadline deadline = Deadline{});
  [[nodiscard]] bool hasEnded();

  [[nodiscard]] std::string standardOutput() const { return fileContent(outputPath_); }
  [[nodiscard]] std::string standardError() const { return fileContent(errorPath_); }

  /// Of all its threads since it started.
  [[nodiscard]] std::chrono::nanoseconds processorTime() const;
  [[nodiscard]] std::size_t openDescriptors() const;
  /// A size that the kernel tells of it, such as "VmRSS", in KiB; proc(5).
  [[nodiscard]] std::size_t memoryKiB(const std::string& name) const;
  /// True once the program has used next to no processor time for a while; a loop that spins never
  /// gets there.
  bool comesToRest(Deadline deadline = Deadline{});

 private:
  std::string path_;
  std::string invokedAs_;
  std::vector<std::string> arguments_;
  std::map<std::string, std::string> environment_;
  std::string directory_;
  std::string outputPath_;
  std::string errorPath_;
  pid_t pid_ = -1;
  Descriptor handle_;  ///< pidfd
  bool reaped_ = false;
  Ending ending_;
};

/// Runs a program to its end.
struct Outcome {
  Ending ending;
  std::string output;
  std::string error;
};
Outcome run(const Workspace& workspace, const std::string& path, const std::vector<std::string>& arguments);

}  // namespace e2e
