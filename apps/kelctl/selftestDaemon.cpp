#include "selftestDaemon.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "failure.h"
#include "host/files.h"
#include "host/paths.h"

namespace kelctl {

namespace {

namespace fs = std::filesystem;
using platform::UniqueFd;

constexpr const char* kProgramName = "keld-selftest";
constexpr int kNotStarted = 127;

struct Pipe {
  Pipe() {
    int ends[2] = {-1, -1};
    if (::pipe2(ends, O_CLOEXEC) != 0) throw Failure("cannot make a pipe: " + platform::errnoText(errno));
    readEnd.reset(ends[0]);
    writeEnd.reset(ends[1]);
  }

  UniqueFd readEnd;
  UniqueFd writeEnd;
};

/// Becomes the program, or tells why not. In the child of a process with one thread.
[[noreturn]] void becomeProgram(const std::string& path, pid_t parent, int output, int trouble) {
  // A group of its own, so that an interrupt at the terminal is this tool's to act on.
  ::setpgid(0, 0);
  (void)std::signal(SIGPIPE, SIG_DFL);
  (void)std::signal(SIGINT, SIG_DFL);
  (void)std::signal(SIGTERM, SIG_DFL);
  const int input = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (::prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && ::dup2(input, STDIN_FILENO) >= 0 &&
      ::dup2(output, STDOUT_FILENO) >= 0) {
    if (::getppid() != parent) ::_exit(kNotStarted);
    std::string name = path;
    char* const words[] = {name.data(), nullptr};
    ::execv(path.c_str(), words);
  }
  const int status = errno;
  (void)!::write(trouble, &status, sizeof status);
  ::_exit(kNotStarted);
}

}  // namespace

TemporaryDirectory::TemporaryDirectory() {
  std::error_code error;
  const fs::path parent = fs::temp_directory_path(error);
  path_ = (error ? fs::path("/tmp") : parent) / "kelctl-selftest.XXXXXX";
  if (::mkdtemp(path_.data()) == nullptr) {
    throw Failure(fmt::format("cannot make the directory {}: {}", path_, platform::errnoText(errno)));
  }
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;  // what cannot be removed is no reason to fail
  fs::remove_all(path_, ignored);
}

PrivateInstance::PrivateInstance(const std::string& root) {
  const std::string model = root + "/host.json";
  std::ofstream file(model);
  file << "{}\n";
  file.close();
  int status = file ? 0 : EIO;
  for (const char* name : {"/run", "/state", "/conf"}) {
    if (status == 0) status = platform::makePrivateDirectory(root + name);
  }
  if (status != 0) throw Failure(fmt::format("cannot make files in {}: {}", root, platform::errnoText(status)));
  const std::pair<const char*, std::string> variables[] = {{"KORVEL_RUN_DIR", root + "/run"},
                                                           {"KORVEL_STATE_DIR", root + "/state"},
                                                           {"KORVEL_CONF_DIR", root + "/conf"},
                                                           {"KORVEL_HOST", "model:" + model}};
  for (const auto& [name, value] : variables) {
    const char* const old = std::getenv(name);
    before_[name] = old != nullptr ? std::optional<std::string>(old) : std::nullopt;
    ::setenv(name, value.c_str(), 1);
  }
}

PrivateInstance::~PrivateInstance() {
  for (const auto& [name, value] : before_) {
    if (value) {
      ::setenv(name.c_str(), value->c_str(), 1);
    } else {
      ::unsetenv(name.c_str());
    }
  }
}

ChildProgram::ChildProgram(const std::string& path) {
  Pipe output;
  Pipe trouble;
  // This end alone: the program expects its own to wait.
  if (::fcntl(output.readEnd.get(), F_SETFL, O_NONBLOCK) != 0) {
    throw Failure("cannot prepare a pipe: " + platform::errnoText(errno));
  }
  const pid_t parent = ::getpid();
  pid_ = ::fork();
  if (pid_ < 0) throw Failure("cannot start a process: " + platform::errnoText(errno));
  if (pid_ == 0) becomeProgram(path, parent, output.writeEnd.get(), trouble.writeEnd.get());
  // The child does the same; whoever is first.
  ::setpgid(pid_, pid_);
  trouble.writeEnd.reset();
  int status = 0;
  ssize_t got = 0;
  do {
    got = ::read(trouble.readEnd.get(), &status, sizeof status);
  } while (got < 0 && errno == EINTR);
  // The program's start has closed the pipe.
  if (got == 0) {
    output_ = std::move(output.readEnd);
    return;
  }
  while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
  }
  throw Failure(fmt::format("cannot start {}: {}", path, platform::errnoText(got == sizeof status ? status : EIO)));
}

ChildProgram::~ChildProgram() {
  killAll();
  while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
  }
}

void ChildProgram::read(std::string& output) {
  while (output_) {
    char chunk[16384];
    const ssize_t got = ::read(output_.get(), chunk, sizeof chunk);
    if (got > 0) {
      output.append(chunk, static_cast<std::size_t>(got));
      // A program that never stops must not keep its reader from everything else.
      if (static_cast<std::size_t>(got) < sizeof chunk || output.size() > sizeof chunk * 4) return;
    } else if (got == 0) {
      output_.reset();
    } else if (errno == EAGAIN) {
      return;
    } else if (errno != EINTR) {
      throw Failure("cannot read the daemon's output: " + platform::errnoText(errno));
    }
  }
}

std::optional<ChildProgram::Ending> ChildProgram::ending() {
  // It is reaped last, so that its number stays its own until then.
  siginfo_t seen{};
  if (!ending_ && ::waitid(P_PID, static_cast<id_t>(pid_), &seen, WEXITED | WNOHANG | WNOWAIT) == 0 &&
      seen.si_pid == pid_) {
    ending_ = Ending{seen.si_code == CLD_EXITED, seen.si_status};
  }
  return ending_;
}

void ChildProgram::terminate() const {
  ::kill(pid_, SIGTERM);
}

void ChildProgram::killAll() const {
  ::kill(-pid_, SIGKILL);
}

std::string findSelftestDaemon() {
  std::error_code error;
  const fs::path own = fs::read_symlink("/proc/self/exe", error).parent_path();
  if (error) throw Failure("cannot tell where this program is: " + error.message() + "; name the daemon with --daemon");
  const fs::path places[] = {own, own.parent_path() / "libexec/keld", own.parent_path() / "sbin"};
  std::string looked;
  for (const fs::path& place : places) {
    std::string program = place / kProgramName;
    if (::access(program.c_str(), X_OK) == 0) return program;
    looked += (looked.empty() ? "" : ", ") + place.string();
  }
  throw Failure(fmt::format("{} is in none of {}; name it with --daemon", kProgramName, looked));
}

}  // namespace kelctl
