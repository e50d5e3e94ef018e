#include "selftestInstallation.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>

#include "failure.h"
#include "host/files.h"
#include "kel/localAddress.h"
#include "localConnection.h"
#include "platform/kelemit.h"
#include "stopSignals.h"

namespace kelctl {

namespace {

using std::chrono::steady_clock;

constexpr std::chrono::seconds kPatience{2};
constexpr const char* kSystemLog = "/dev/log";

/// Connects and hangs up. Returns 0 or an errno value.
int tryConnect(const std::string& path, int type) {
  sockaddr_un address;
  if (const int status = platform::localAddress(path, &address); status != 0) return status;
  const platform::UniqueFd fd(::socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd) return errno;
  return ::connect(fd.get(), platform::socketAddress(address), sizeof address) == 0 ? 0 : errno;
}

/// 0 where a process holds the stream or seqpacket socket, else an errno value. The kernel compares the
/// types only after it has found the socket's holder, who learns nothing of it (unix(7)).
int isHeld(const std::string& path) {
  const int status = tryConnect(path, SOCK_DGRAM);
  return status == EPROTOTYPE ? 0 : status;
}

/// Takes what comes until there is no more. True once anything came.
bool drain(int fd) {
  char chunk[16384];
  bool some = false;
  while (::recv(fd, chunk, sizeof chunk, MSG_DONTWAIT) > 0) some = true;
  return some;
}

/// 0 where the daemon greets a trace client, which it does with its history and a blank line.
int greetedByTrace() {
  platform::UniqueFd fd;
  if (const int status = connectStream(runPath("keld-trace.sock"), &fd); status != 0) return status;
  const auto due = steady_clock::now() + kPatience;
  pollfd readable{fd.get(), POLLIN, 0};
  int ready = 0;
  do {
    ready = ::poll(&readable, 1, pollMilliseconds(due));
  } while (ready < 0 && errno == EINTR && !StopSignals::stopped());
  const bool greeted = ready > 0 && drain(fd.get());
  // With both directions closed before anything is left unread, the daemon finds a client that has gone and
  // not a broken connection, which it would log.
  ::shutdown(fd.get(), SHUT_RDWR);
  drain(fd.get());
  return greeted ? 0 : ETIMEDOUT;
}

std::string reachable(int status) {
  return status == 0 ? "reachable" : fmt::format("not reachable ({})", platform::errnoText(status));
}

std::string ownership(int status) {
  if (status == 0) return "has an owner";
  return status == EACCES ? reachable(status) : fmt::format("has no owner ({})", platform::errnoText(status));
}

std::string daemonState(int trace, int user) {
  if (trace == 0) return "keld running";
  if (trace == ETIMEDOUT || trace == EAGAIN) return "keld not answering";
  if (user == 0) return "keld running";
  if (trace == EACCES || user == EACCES) return "keld not to be seen by this user";
  return "keld not running";
}

}  // namespace

Installation lookAtInstallation() {
  const int trace = greetedByTrace();
  const int user = isHeld(KelEmit::userSocketPath());
  const int events = isHeld(runPath("hagd-vprob.sock"));
  // A system log may listen at a stream socket, too, which the C library then uses (syslog(3)).
  int log = tryConnect(kSystemLog, SOCK_DGRAM);
  if (log == EPROTOTYPE) log = 0;
  return {trace == 0 && events == 0 && log == 0,
          fmt::format("installation: {}, trace socket {}, event socket {}, system log {}", daemonState(trace, user),
                      reachable(trace), ownership(events), reachable(log))};
}

}  // namespace kelctl
