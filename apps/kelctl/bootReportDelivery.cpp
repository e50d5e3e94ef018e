#include "bootReportDelivery.h"

#include <fmt/format.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <thread>

#include "failure.h"
#include "host/files.h"
#include "host/uniqueFd.h"
#include "kel/batch.h"
#include "kel/localAddress.h"
#include "platform/kelemit.h"

namespace kelctl {

namespace {

using std::chrono::steady_clock;

constexpr std::chrono::milliseconds kAttemptPause{20};
/// A message and what the kernel adds to it.
constexpr int kSendRoomBytes = static_cast<int>(platform::kBatchLimitBytes) + 4096;

/// Every call on `fd` ends at `due`.
int bound(int fd, steady_clock::time_point due) {
  constexpr std::int64_t kPerSecond = 1'000'000;
  const auto left = std::chrono::duration_cast<std::chrono::microseconds>(due - steady_clock::now()).count();
  // A time of 0 would be no bound at all.
  const std::int64_t microseconds = std::max<std::int64_t>(left, 1000);
  const timeval wait{microseconds / kPerSecond, microseconds % kPerSecond};
  for (const int option : {SO_SNDTIMEO, SO_RCVTIMEO}) {
    if (::setsockopt(fd, SOL_SOCKET, option, &wait, sizeof wait) != 0) return errno;
  }
  return 0;
}

template <typename Call>
ssize_t retryInterrupted(Call call) {
  ssize_t result = call();
  while (result < 0 && errno == EINTR) result = call();
  return result;
}

/// One attempt. Returns 0 once the batch was read, or an errno value.
int tryToDeliver(const std::vector<char>& batch, steady_clock::time_point due) {
  sockaddr_un address;
  if (const int status = platform::localAddress(KelEmit::userSocketPath(), &address); status != 0) return status;
  const platform::UniqueFd fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  if (!fd) return errno;
  if (const int status = bound(fd.get(), due); status != 0) return status;
  // A refusal shows as EMSGSIZE if it matters.
  static_cast<void>(::setsockopt(fd.get(), SOL_SOCKET, SO_SNDBUF, &kSendRoomBytes, sizeof kSendRoomBytes));
  const sockaddr* const place = platform::socketAddress(address);
  if (retryInterrupted([&] { return ::connect(fd.get(), place, sizeof address); }) != 0) return errno;
  if (retryInterrupted([&] { return ::send(fd.get(), batch.data(), batch.size(), MSG_NOSIGNAL); }) < 0) return errno;
  // The daemon hangs up when it has read to the end. Where it hangs up, or dies, with the batch unread,
  // that is a reset (unix(7)).
  if (::shutdown(fd.get(), SHUT_WR) != 0) return errno;
  char byte = 0;
  const ssize_t got = retryInterrupted([&] { return ::recv(fd.get(), &byte, 1, 0); });
  return got < 0 ? errno : 0;
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
