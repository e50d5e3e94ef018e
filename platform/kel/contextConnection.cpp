#include "kel/contextConnection.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "kel/batch.h"
#include "kel/localAddress.h"

namespace platform {

namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// A wait is cut into pieces no longer than this; a longer time than they can hold is as good as for ever.
constexpr std::chrono::hours kLongestWait{1};

/// What one message may hold is bounded by its sender's buffer alone (unix(7)). Where the host's
/// default is too small for a batch, ask for more; a refusal shows as EMSGSIZE if it matters.
void makeRoomForBatches(int fd) {
  constexpr int kRoomBytes = static_cast<int>(kBatchLimitBytes) + 4096;
  int room = 0;
  socklen_t size = sizeof room;
  if (::getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &room, &size) == 0 && room >= kRoomBytes) return;
  static_cast<void>(::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &kRoomBytes, sizeof kRoomBytes));
}

/// Time until `due`, of which at least nothing and at most kLongestWait.
template <typename Unit>
Unit timeLeft(steady_clock::time_point due) {
  const auto left = std::chrono::ceil<Unit>(due - steady_clock::now());
  return std::clamp<Unit>(left, Unit::zero(), kLongestWait);
}

/// SO_SNDTIMEO bounds connect(2), too (unix(7)); a time of nothing would mean for ever.
int boundConnecting(int fd, steady_clock::time_point due) {
  constexpr microseconds kShortest{1};
  const microseconds left = std::max(timeLeft<microseconds>(due), kShortest);
  constexpr microseconds::rep kPerSecond = microseconds::period::den;
  const timeval limit{left.count() / kPerSecond, left.count() % kPerSecond};
  return ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) == 0 ? 0 : errno;
}

/// Waits until the socket can be written to or is broken. Returns 0, EAGAIN where `due` passes, or errno.
int awaitRoom(int fd, steady_clock::time_point due) {
  while (true) {
    pollfd state{fd, POLLOUT, 0};
    const int ready = ::poll(&state, 1, static_cast<int>(timeLeft<milliseconds>(due).count()));
    if (ready > 0) return 0;
    if (ready < 0 && errno != EINTR) return errno;
    if (steady_clock::now() >= due) return EAGAIN;
  }
}

}  // namespace

int connectToContext(const std::string& path, int type, Due due, UniqueFd* connected) {
  sockaddr_un address;
  if (const int status = localAddress(path, &address); status != 0) return status;
  UniqueFd fd(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
  if (!fd) return errno;
  while (true) {
    if (due) {
      if (const int status = boundConnecting(fd.get(), *due); status != 0) return status;
    }
    if (::connect(fd.get(), socketAddress(address), sizeof address) == 0) break;
    const bool goesOn = errno == EINTR || (errno == EAGAIN && due && steady_clock::now() < *due);
    if (!goesOn) return errno;
  }
  makeRoomForBatches(fd.get());
  *connected = std::move(fd);
  return 0;
}

int sendBatch(int fd, const std::vector<char>& batch, Due due) {
  const int flags = MSG_NOSIGNAL | (due ? MSG_DONTWAIT : 0);
  // One message goes whole or not at all.
  while (::send(fd, batch.data(), batch.size(), flags) < 0) {
    if (errno == EINTR) continue;
    if (errno != EAGAIN || !due) return errno;
    if (const int status = awaitRoom(fd, *due); status != 0) return status;
  }
  return 0;
}

}  // namespace platform
