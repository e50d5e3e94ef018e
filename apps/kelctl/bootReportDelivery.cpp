#include "bootReportDelivery.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <thread>

#include "failure.h"
#include "host/files.h"
#include "kel/contextConnection.h"
#include "platform/kelemit.h"

namespace kelctl {

namespace {

using std::chrono::steady_clock;

constexpr std::chrono::milliseconds kAttemptPause{20};

/// The daemon hangs up when it has read to the end. Where it hangs up, or dies, with something unread,
/// that is a reset (unix(7)). Returns 0, or an errno value: EAGAIN where `due` passes.
int awaitHangUp(int fd, steady_clock::time_point due) {
  using std::chrono::milliseconds;
  constexpr milliseconds kLongestWait{60'000};
  while (steady_clock::now() < due) {
    const auto left = std::chrono::ceil<milliseconds>(due - steady_clock::now());
    pollfd state{fd, POLLIN, 0};
    const int ready = ::poll(&state, 1, static_cast<int>(std::clamp(left, milliseconds(0), kLongestWait).count()));
    if (ready < 0 && errno != EINTR) return errno;
    if (ready <= 0) continue;
    char byte = 0;
    if (::recv(fd, &byte, 1, 0) >= 0) return 0;
    if (errno != EINTR) return errno;
  }
  return EAGAIN;
}

/// One attempt. Returns 0 once the batch was read, or an errno value.
int tryToDeliver(const std::vector<char>& batch, steady_clock::time_point due) {
  platform::UniqueFd fd;
  if (const int status = platform::connectToContext(KelEmit::userSocketPath(), SOCK_SEQPACKET, due, &fd); status != 0) {
    return status;
  }
  if (const int status = platform::sendBatch(fd.get(), batch, due); status != 0) return status;
  if (::shutdown(fd.get(), SHUT_WR) != 0) return errno;
  return awaitHangUp(fd.get(), due);
}

/// Whether an attempt that ended so may succeed later.
bool mayPass(int status) {
  constexpr int kPassing[] = {ENOENT, ECONNREFUSED, ECONNRESET, EPIPE, ENOTCONN, EAGAIN};
  return std::find(std::begin(kPassing), std::end(kPassing), status) != std::end(kPassing);
}

std::string explanation(int status) {
  switch (status) {
    case ENOENT:
    case ECONNREFUSED:
      return platform::errnoText(status) + "; is keld running?";
    case EAGAIN:
      return "it does not answer";
    case EPIPE:
    case ENOTCONN:
    case ECONNRESET:
      return platform::errnoText(status) + "; keld serves eight user-level clients at a time";
    case EACCES:
      return platform::errnoText(status) + "; run as root or as keld's user";
    default:
      return platform::errnoText(status);
  }
}

}  // namespace

void deliverToDaemon(const std::vector<char>& batch, steady_clock::time_point due) {
  while (true) {
    const int status = tryToDeliver(batch, due);
    if (status == 0) return;
    if (!mayPass(status) || steady_clock::now() + kAttemptPause >= due) {
      throw Failure(fmt::format("cannot reach keld at {}: {}", KelEmit::userSocketPath(), explanation(status)));
    }
    std::this_thread::sleep_for(kAttemptPause);
  }
}

}  // namespace kelctl
