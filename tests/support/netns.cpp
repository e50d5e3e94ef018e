#include "netns.h"

#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace support {

namespace {

constexpr int kCannotRun = 127;

std::string why(const std::string& what) {
  return what + ": " + std::generic_category().message(errno);
}

bool writeFile(const char* path, const std::string& text) {
  const int fd = ::open(path, O_WRONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  ::close(fd);
  return written;
}

/// A user namespace in which this process is root, with a network namespace. Empty, or why not.
std::string enterUnprivileged() {
  const std::string user = "0 " + std::to_string(::geteuid()) + " 1";
  const std::string group = "0 " + std::to_string(::getegid()) + " 1";
  if (::unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) return why("user and network namespaces are refused");
  if (!writeFile("/proc/self/setgroups", "deny") || !writeFile("/proc/self/uid_map", user) ||
      !writeFile("/proc/self/gid_map", group)) {
    return why("the user namespace cannot be mapped");
  }
  return {};
}

std::string readAll(int fd) {
  std::string text;
  std::array<char, 4096> buffer{};
  while (true) {
    const ssize_t got = ::read(fd, buffer.data(), buffer.size());
    if (got > 0) text.append(buffer.data(), static_cast<std::size_t>(got));
    if (got == 0 || (got < 0 && errno != EINTR)) return text;
  }
}

CommandResult run(const std::vector<std::string>& words) {
  std::vector<char*> arguments;
  arguments.reserve(words.size() + 1);
  for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) return {kCannotRun, why("pipe")};
  const pid_t child = ::fork();
  if (child == 0) {
    ::dup2(ends[1], STDOUT_FILENO);
    ::dup2(ends[1], STDERR_FILENO);
    ::execvp(arguments[0], arguments.data());
    ::_exit(kCannotRun);
  }
  ::close(ends[1]);
  CommandResult result{kCannotRun, readAll(ends[0])};
  ::close(ends[0]);
  int status = 0;
  if (child < 0) return result;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) continue;
  if (WIFEXITED(status)) result.status = WEXITSTATUS(status);
  return result;
}

}  // namespace

NetNamespace::NetNamespace() {
  if (const CommandResult version = runIp("-Version"); version.status != 0) {
    refusal_ = "iproute2's ip cannot be run";
    return;
  }
  before_ = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
  if (::unshare(CLONE_NEWNET) != 0) {
    // Nothing leads back out of a user namespace.
    if (before_ >= 0) ::close(before_);
    before_ = -1;
    refusal_ = enterUnprivileged();
  }
}

NetNamespace::~NetNamespace() {
  if (before_ < 0) return;
  // Root of a mere user namespace is not let back into the machine's network.
  if (::setns(before_, CLONE_NEWNET) != 0 && errno != EPERM) std::terminate();
  ::close(before_);
}

CommandResult runIp(const std::string& words) {
  std::vector<std::string> command{"ip"};
  std::istringstream input(words);
  for (std::string word; input >> word;) command.push_back(word);
  return run(command);
}

void ip(const std::string& words) {
  const CommandResult result = runIp(words);
  if (result.status != 0) throw std::runtime_error("ip " + words + ": " + result.output);
}

bool isLinkAdminUp(const std::string& device) {
  const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) throw std::runtime_error(why("socket"));
  ifreq request{};
  device.copy(request.ifr_name, sizeof request.ifr_name - 1);
  const int status = ::ioctl(fd, SIOCGIFFLAGS, &request);
  const std::string trouble = status != 0 ? why(device) : std::string();
  ::close(fd);
  if (status != 0) throw std::runtime_error(trouble);
  return (request.ifr_flags & IFF_UP) != 0;
}

std::string tapRefusal() {
  const int fd = ::open("/dev/net/tun", O_RDWR | O_CLOEXEC);
  if (fd < 0) return why("/dev/net/tun");
  ::close(fd);
  return {};
}

Tap::Tap(const std::string& name) : fd_(::open("/dev/net/tun", O_RDWR | O_CLOEXEC)) {
  if (fd_ < 0) throw std::runtime_error(why("/dev/net/tun"));
  ifreq request{};
  name.copy(request.ifr_name, sizeof request.ifr_name - 1);
  request.ifr_flags = IFF_TAP | IFF_NO_PI;
  if (::ioctl(fd_, TUNSETIFF, &request) != 0) {
    const std::string trouble = why("tap " + name);
    ::close(fd_);
    throw std::runtime_error(trouble);
  }
}

Tap::~Tap() {
  ::close(fd_);
}

void Tap::setCarrier(bool carrier) const {
  int value = carrier ? 1 : 0;
  if (::ioctl(fd_, TUNSETCARRIER, &value) != 0) throw std::runtime_error(why("carrier of a tap"));
}

}  // namespace support
