#include "program.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <sstream>

namespace e2e {
namespace {

constexpr int kExecFailed = 127;

std::string uniqueNumber() {
  static std::atomic<unsigned> next{0};
  return std::to_string(next++);
}

std::vector<char*> pointers(std::vector<std::string>& words) {
  std::vector<char*> result;
  result.reserve(words.size() + 1);
  for (std::string& word : words) result.push_back(word.data());
  result.push_back(nullptr);
  return result;
}

// Runs in the child of a process that has threads: system calls only.
[[noreturn]] void becomeProgram(const char* path, char* const* arguments, char* const* environment,
                                const char* directory, int output, int error) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  const rlimit noCore{0, 0};
  ::setrlimit(RLIMIT_CORE, &noCore);
  const int input = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (::chdir(directory) == 0 && ::dup2(input, STDIN_FILENO) >= 0 && ::dup2(output, STDOUT_FILENO) >= 0 &&
      ::dup2(error, STDERR_FILENO) >= 0) {
    ::execve(path, arguments, environment);
  }
  ::_exit(kExecFailed);
}

Descriptor capture(const std::string& path) {
  Descriptor fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
  if (!fd) throwErrno("open " + path);
  return fd;
}

}  // namespace

Program::Program(const Workspace& workspace, std::string path, std::vector<std::string> arguments)
    : path_(std::move(path)), invokedAs_(path_), arguments_(std::move(arguments)), directory_(workspace.root()) {
  const std::string base = directory_ + "/" + uniqueNumber();
  outputPath_ = base + ".out";
  errorPath_ = base + ".err";
  environment_ = {{"KORVEL_RUN_DIR", workspace.runDirectory()},
                  {"KORVEL_STATE_DIR", workspace.stateDirectory()},
                  {"KORVEL_CONF_DIR", workspace.confDirectory()},
                  {"KORVEL_HOST", "model:" + workspace.modelFile()},
                  {"PATH", "/usr/sbin:/usr/bin:/sbin:/bin"},
                  {"LC_ALL", "C.UTF-8"},
                  {"TZ", "UTC"}};
  for (const char* kept : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS", "LSAN_OPTIONS", "LLVM_PROFILE_FILE"}) {
    if (const char* value = std::getenv(kept); value != nullptr) environment_[kept] = value;
  }
}

Program::~Program() {
  if (pid_ < 0 || reaped_) return;
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
}

void Program::start() {
  const Descriptor output = capture(outputPath_), error = capture(errorPath_);
  std::vector<std::string> arguments{invokedAs_}, environment;
  arguments.insert(arguments.end(), arguments_.begin(), arguments_.end());
  for (const auto& [name, value] : environment_) environment.push_back(std::string(name).append("=").append(value));
  const std::vector<char*> argv = pointers(arguments), envp = pointers(environment);
  pid_ = ::fork();
  if (pid_ < 0) throwErrno("fork");
  if (pid_ == 0) {
    becomeProgram(path_.c_str(), argv.data(), envp.data(), directory_.c_str(), output.get(), error.get());
  }
  handle_ = Descriptor(static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0)));
  if (!handle_) throwErrno("pidfd_open");
}

void Program::signal(int number) const {
  if (::kill(pid_, number) != 0) throwErrno("kill");
}

Ending Program::waitForEnd(Deadline deadline) {
  if (reaped_) return ending_;
  pollfd watched{handle_.get(), POLLIN, 0};
  while (::poll(&watched, 1, deadline.leftMs()) < 0 && errno == EINTR) {
  }
  if (watched.revents == 0) throw HarnessError(path_ + " has not ended in time");
  int status = 0;
  if (::waitpid(pid_, &status, 0) != pid_) throwErrno("waitpid");
  reaped_ = true;
  ending_ = WIFEXITED(status) ? Ending{true, WEXITSTATUS(status)} : Ending{false, WTERMSIG(status)};
  return ending_;
}

bool Program::hasEnded() {
  pollfd watched{handle_.get(), POLLIN, 0};
  return reaped_ || ::poll(&watched, 1, 0) > 0;
}

std::chrono::nanoseconds Program::processorTime() const {
  clockid_t clock = 0;
  timespec used{};
  if (const int error = ::clock_getcpuclockid(pid_, &clock); error != 0) {
    errno = error;
    throwErrno("clock_getcpuclockid");
  }
  if (::clock_gettime(clock, &used) != 0) throwErrno("clock_gettime");
  return std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
}

std::size_t Program::openDescriptors() const {
  const std::filesystem::directory_iterator descriptors("/proc/" + std::to_string(pid_) + "/fd");
  return static_cast<std::size_t>(std::distance(begin(descriptors), end(descriptors)));
}

std::size_t Program::memoryKiB(const std::string& name) const {
  std::istringstream status(fileContent("/proc/" + std::to_string(pid_) + "/status"));
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(name + ":")) return std::stoul(line.substr(name.size() + 1));
  }
  return 0;
}

bool Program::comesToRest(Deadline deadline) {
  // Even a fourth of one processor would be fifty milliseconds of such a window.
  constexpr int kWindowMs = 200;
  constexpr std::chrono::milliseconds kNextToNothing{5};
  pollfd watched{handle_.get(), POLLIN, 0};
  while (!deadline.passed()) {
    const auto before = processorTime();
    if (::poll(&watched, 1, kWindowMs) > 0) throw HarnessError(path_ + " has ended");
    if (processorTime() - before < kNextToNothing) return true;
  }
  return false;
}

Outcome run(const Workspace& workspace, const std::string& path, const std::vector<std::string>& arguments) {
  Program program(workspace, path, arguments);
  program.start();
  const Ending ending = program.waitForEnd();
  return {ending, program.standardOutput(), program.standardError()};
}

}  // namespace e2e
