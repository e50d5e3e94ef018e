#include "stopSignals.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <limits>

#include "failure.h"
#include "host/files.h"

namespace kelctl {

namespace {

constexpr int kStopping[] = {SIGINT, SIGTERM, SIGHUP};

// What the handler writes to.
std::atomic<int> stopPipe{-1};
std::atomic<bool> stopRequested{false};
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);

void handleStop(int /*signal*/) {
  const int saved = errno;
  stopRequested.store(true);
  const char byte = 0;
  // The pipe is non-blocking; one byte in it is enough.
  if (::write(stopPipe.load(), &byte, 1) < 0) errno = saved;
}

using std::chrono::steady_clock;

}  // namespace

StopSignals::StopSignals() {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) throw Failure("cannot make a pipe: " + platform::errnoText(errno));
  readEnd_.reset(ends[0]);
  writeEnd_.reset(ends[1]);
  stopPipe.store(ends[1]);
  stopRequested.store(false);
  struct sigaction action {};
  action.sa_handler = handleStop;
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  sigemptyset(&action.sa_mask);
  for (const int signal : kStopping) ::sigaction(signal, &action, nullptr);
}

StopSignals::~StopSignals() {
  for (const int signal : kStopping) (void)std::signal(signal, SIG_DFL);
  stopPipe.store(-1);
}

bool StopSignals::stopped() {
  return stopRequested.load();
}

bool StopSignals::sleepUntil(steady_clock::time_point due) const {
  while (true) {
    const auto left = std::max(due, steady_clock::now()) - steady_clock::now();
    const auto nanoseconds = std::max<std::int64_t>(std::chrono::nanoseconds(left).count(), 0);
    constexpr std::int64_t kPerSecond = 1'000'000'000;
    const timespec wait{nanoseconds / kPerSecond, nanoseconds % kPerSecond};
    pollfd stop{fd(), POLLIN, 0};
    const int ready = ::ppoll(&stop, 1, &wait, nullptr);
    if (ready > 0) return false;
    if (ready == 0 && steady_clock::now() >= due) return true;
    if (ready < 0 && errno != EINTR) throw Failure("cannot wait: " + platform::errnoText(errno));
  }
}

int pollMilliseconds(std::optional<steady_clock::time_point> due) {
  if (!due) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*due - steady_clock::now()).count();
  return static_cast<int>(std::clamp<std::int64_t>(left, 0, std::numeric_limits<int>::max()));
}

}  // namespace kelctl
