#include "linux/childProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <optional>
#include <string_view>

#include "host/files.h"
#include "host/uniqueFd.h"
#include "linux/kernelFiles.h"

namespace platform {

namespace {

using Clock = std::chrono::steady_clock;

/// How long a killed program may take to be gone.
constexpr std::chrono::seconds kEndOfKilled{5};
/// How often a child is looked at that cannot be waited for.
constexpr std::chrono::milliseconds kLook{10};
/// How often complaints are read before anything else is looked at.
constexpr int kReadsAtOnce = 16;

class FileActions {
 public:
  FileActions() { ::posix_spawn_file_actions_init(&actions_); }
  FileActions(const FileActions&) = delete;
  FileActions& operator=(const FileActions&) = delete;
  ~FileActions() { ::posix_spawn_file_actions_destroy(&actions_); }
  posix_spawn_file_actions_t* get() { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_{};
};

class Attributes {
 public:
  Attributes() { ::posix_spawnattr_init(&attributes_); }
  Attributes(const Attributes&) = delete;
  Attributes& operator=(const Attributes&) = delete;
  ~Attributes() { ::posix_spawnattr_destroy(&attributes_); }
  posix_spawnattr_t* get() { return &attributes_; }

 private:
  posix_spawnattr_t attributes_{};
};

/// The first failure of a sequence of posix_spawn calls, which return errno values.
int firstFailure(std::initializer_list<int> statuses) {
  const auto failed = std::find_if(statuses.begin(), statuses.end(), [](int status) { return status != 0; });
  return failed == statuses.end() ? 0 : *failed;
}

/// A group of its own, so that what it starts can be ended with it.
int setAttributes(posix_spawnattr_t* attributes) {
  constexpr short kFlags = POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
  sigset_t none;
  sigset_t all;
  ::sigemptyset(&none);
  ::sigfillset(&all);
  return firstFailure({::posix_spawnattr_setflags(attributes, kFlags), ::posix_spawnattr_setpgroup(attributes, 0),
                       ::posix_spawnattr_setsigmask(attributes, &none),
                       ::posix_spawnattr_setsigdefault(attributes, &all)});
}

int spawn(const std::string& program, const std::vector<std::string>& arguments, int complaints, pid_t* child) {
  FileActions files;
  Attributes attributes;
  const int prepared = firstFailure(
      {::posix_spawn_file_actions_adddup2(files.get(), complaints, STDERR_FILENO),
       ::posix_spawn_file_actions_addopen(files.get(), STDIN_FILENO, "/dev/null", O_RDONLY, 0),
       ::posix_spawn_file_actions_addopen(files.get(), STDOUT_FILENO, "/dev/null", O_WRONLY, 0),
       ::posix_spawn_file_actions_addclosefrom_np(files.get(), STDERR_FILENO + 1), setAttributes(attributes.get())});
  if (prepared != 0) return prepared;
  std::vector<std::string> words{program};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<std::string> environment{"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C"};
  const auto pointers = [](std::vector<std::string>& texts) {
    std::vector<char*> all(texts.size() + 1, nullptr);
    std::transform(texts.begin(), texts.end(), all.begin(), [](std::string& text) { return text.data(); });
    return all;
  };
  return ::posix_spawn(child, program.c_str(), files.get(), attributes.get(), pointers(words).data(),
                       pointers(environment).data());
}

/// A child and what it says on standard error. Its number stays its own until it is reaped here.
class Child {
 public:
  Child(pid_t pid, UniqueFd complaints)
      : pid_(pid), held_(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0))), complaints_(std::move(complaints)) {}

  /// Reads complaints until the child has ended; false where that does not happen in time. A failed
  /// poll counts as no time left.
  bool wait(Clock::time_point end) {
    while (true) {
      std::array<pollfd, 2> ready{{{held_.get(), POLLIN, 0}, {complaints_.get(), POLLIN, 0}}};
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
      if (left.count() <= 0) return false;
      // Without a pidfd, of which the process or the kernel may have none, it is looked at now and then.
      const auto pause = held_ ? left : std::min(left, kLook);
      const int count = ::poll(ready.data(), ready.size(), static_cast<int>(pause.count()));
      if (count < 0 && errno != EINTR) return false;
      if (count > 0 && ready[1].revents != 0) listen();
      if (held_ ? count > 0 && ready[0].revents != 0 : hasEnded()) break;
    }
    listen();
    return true;
  }

  void killGroup() const { (void)::kill(-pid_, SIGKILL); }

  /// How it ended; nothing where it has not, or where somebody else took that.
  [[nodiscard]] std::optional<siginfo_t> reap() const {
    siginfo_t end{};
    int status = 0;
    do {
      status = ::waitid(P_PID, static_cast<id_t>(pid_), &end, WEXITED | WNOHANG);
    } while (status != 0 && errno == EINTR);
    if (status != 0 || end.si_pid != pid_) return std::nullopt;
    return end;
  }

  /// The first line of its complaints, with a colon before it.
  [[nodiscard]] std::string said() const {
    const std::string_view line = std::string_view(text_).substr(0, text_.find('\n'));
    return line.empty() ? std::string() : ": " + shownName(line);
  }

 private:
  /// Also where somebody else took how it ended.
  [[nodiscard]] bool hasEnded() const {
    siginfo_t end{};
    return ::waitid(P_PID, static_cast<id_t>(pid_), &end, WEXITED | WNOHANG | WNOWAIT) != 0 || end.si_pid == pid_;
  }

  /// Takes what there is. What goes beyond the limit is read, too, or the child would wait for ever.
  void listen() {
    std::array<char, 4096> bytes{};
    for (int reads = 0; complaints_ && reads < kReadsAtOnce; ++reads) {
      const ssize_t got = ::read(complaints_.get(), bytes.data(), bytes.size());
      if (got < 0 && errno == EINTR) continue;
      if (got < 0 && errno == EAGAIN) return;
      if (got <= 0) {
        complaints_.reset();
        return;
      }
      const std::size_t room = kComplaintBytes - text_.size();
      text_.append(bytes.data(), std::min(room, static_cast<std::size_t>(got)));
      if (static_cast<std::size_t>(got) < bytes.size()) return;
    }
  }

  pid_t pid_;
  UniqueFd held_;
  UniqueFd complaints_;
  std::string text_;
};

}  // namespace

Outcome runProgram(const std::string& program, const std::vector<std::string>& arguments,
                   std::chrono::milliseconds deadline) {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) return {errno, {}};
  UniqueFd complaints(ends[0]);
  UniqueFd childsEnd(ends[1]);
  // This end alone: the program expects its own to wait.
  if (::fcntl(complaints.get(), F_SETFL, O_NONBLOCK) != 0) return {errno, {}};
  pid_t pid = 0;
  const int status = spawn(program, arguments, childsEnd.get(), &pid);
  if (status != 0) return {status, program + " cannot be run: " + errnoText(status)};
  childsEnd.reset();

  Child child(pid, std::move(complaints));
  if (!child.wait(Clock::now() + deadline)) {
    child.killGroup();
    // A child in an uninterruptible wait is left behind: it is not worth this thread.
    (void)child.wait(Clock::now() + kEndOfKilled);
    (void)child.reap();
    return {ETIMEDOUT, program + " did not end in time" + child.said()};
  }
  const auto end = child.reap();
  if (!end) return {ECHILD, "how " + program + " ended is not known" + child.said()};
  if (end->si_code != CLD_EXITED) {
    return {EIO, program + " was ended by signal " + std::to_string(end->si_status) + child.said()};
  }
  if (end->si_status != 0) {
    return {EIO, program + " failed with exit status " + std::to_string(end->si_status) + child.said()};
  }
  return {};
}

}  // namespace platform
