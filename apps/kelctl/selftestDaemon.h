// The daemon of a self-test: a process of its own on directories of its own.
#pragma once

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>

#include "host/uniqueFd.h"

namespace kelctl {

/// A directory that goes away, with all it holds, when this does.
class TemporaryDirectory {
 public:
  /// Makes it where temporary files belong, mode 0700. Throws Failure.
  TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
  ~TemporaryDirectory();

  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  std::string path_;
};

/// While it lives, this process and what it starts keep everything of the system under `root`, on a
/// modelled host with nothing in it. In a process with one thread.
class PrivateInstance {
 public:
  /// Throws Failure where the files cannot be made.
  explicit PrivateInstance(const std::string& root);
  PrivateInstance(const PrivateInstance&) = delete;
  PrivateInstance& operator=(const PrivateInstance&) = delete;
  /// The environment is again what it was.
  ~PrivateInstance();

 private:
  std::map<std::string, std::optional<std::string>> before_;
};

/// A child process with nothing to read, whose standard output is read here. It ends with this process,
/// and is killed, with what it started, and reaped at destruction. In a process with one thread.
class ChildProgram {
 public:
  /// How it ended: an exit status, or the signal that ended it.
  struct Ending {
    bool exited = false;
    int status = 0;
  };

  /// Starts `path` without arguments in this environment. Throws Failure where that is refused.
  explicit ChildProgram(const std::string& path);
  ChildProgram(const ChildProgram&) = delete;
  ChildProgram& operator=(const ChildProgram&) = delete;
  ~ChildProgram();

  /// Polls readable; -1 once the output has ended.
  [[nodiscard]] int output() const { return output_.get(); }
  /// Appends what output there is without waiting for more. Throws Failure where reading fails.
  void read(std::string& output);
  /// How it ended, once it has.
  std::optional<Ending> ending();
  /// Tells it to end.
  void terminate() const;
  /// Ends it and what it started.
  void killAll() const;

 private:
  pid_t pid_ = -1;
  platform::UniqueFd output_;
  std::optional<Ending> ending_;
};

/// The path of keld-selftest: beside this program, or where an installation has it. Throws Failure where
/// it is nowhere.
std::string findSelftestDaemon();

}  // namespace kelctl
