#include "userConnection.h"

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "kel/contextConnection.h"

namespace kelUser {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// After connecting failed, this long nothing is tried: an absent daemon costs next to nothing.
constexpr std::chrono::seconds kReconnectPause{1};
/// How long a new connection's first batch is watched. The daemon reads at once what it serves.
constexpr milliseconds kFirstReadLimit{1000};
/// It is looked at so often at least.
constexpr milliseconds kLongestLook{32};

bool isBroken(int status) {
  return status == EPIPE || status == ECONNRESET || status == ENOTCONN;
}

}  // namespace

int UserConnection::send(const std::vector<char>& batch, std::uint64_t observations, Time due) {
  int status = ETIMEDOUT;
  if (turn_.take(due)) {
    const TurnTaken taken(turn_);
    status = sendInTurn(batch, observations, due);
  }
  if (status == EAGAIN) status = ETIMEDOUT;
  (status == 0 ? sent_ : dropped_).fetch_add(observations, std::memory_order_relaxed);
  return status;
}

int UserConnection::sendInTurn(const std::vector<char>& batch, std::uint64_t observations, Time due) {
  // A connection may have broken long ago, with another daemon at its place by now.
  constexpr int kAttempts = 2;
  // What was sent before the process closed the descriptor itself is delivered all the same.
  if (fd_ && !ownsDescriptor()) abandon();
  for (int attempt = 1;; ++attempt) {
    if (!fd_) {
      if (const int status = connect(due); status != 0) return status;
    }
    const int status = sendConnected(batch, observations, due);
    if (!isBroken(status)) return status;
    disconnect(status);
    if (attempt == kAttempts) return pause(EUSERS);
  }
}

int UserConnection::sendConnected(const std::vector<char>& batch, std::uint64_t observations, Time due) {
  // Asked before sending: what a closing daemon leaves unread counts as drained, too, but then
  // sending fails.
  const bool isRead = isDrained();
  if (const int status = platform::sendBatch(fd_.get(), batch, due); status != 0) return status;
  const bool isFirst = !std::exchange(hasSent_, true);
  const Fate fate = isFirst ? awaitReader(due) : Fate::waiting;
  if (fate == Fate::turnedAway) return ECONNRESET;
  if (isRead) unread_ = 0;
  if (fate == Fate::waiting) unread_ += observations;
  if (fate == Fate::taken || (isRead && !isFirst)) noteServed();
  return 0;
}

int UserConnection::pause(int failure) {
  retryAt_ = steady_clock::now() + kReconnectPause;
  failure_ = failure;
  return failure;
}

int UserConnection::connect(Time due) {
  if (steady_clock::now() < retryAt_) return failure_;
  platform::UniqueFd fd;
  const int status = platform::connectToContext(path_, SOCK_SEQPACKET, due, &fd);
  if (status != 0) return status == EAGAIN ? status : pause(status);
  struct stat facts {};
  inode_ = ::fstat(fd.get(), &facts) == 0 ? facts.st_ino : 0;
  fd_ = std::move(fd);
  unread_ = 0;
  hasSent_ = false;
  isServed_ = false;
  return 0;
}

void UserConnection::disconnect(int status) {
  // A peer that closes with something unread resets the connection (unix(7)); any other has read it all.
  if (status == ECONNRESET) lost_.fetch_add(unread_, std::memory_order_relaxed);
  if (status == EPIPE && hasSent_) noteServed();
  fd_.reset();
}

void UserConnection::noteServed() {
  if (std::exchange(isServed_, true)) return;
  if (std::exchange(wasServed_, true)) reconnects_.fetch_add(1, std::memory_order_relaxed);
}

bool UserConnection::isDrained() const {
  int waiting = 0;
  return ::ioctl(fd_.get(), SIOCOUTQ, &waiting) == 0 && waiting == 0;
}

/// A client too many is accepted and closed at once, and learns nothing of it when it connects and
/// sends. So it looks whether what it sent first is read.
UserConnection::Fate UserConnection::awaitReader(Time due) const {
  due = std::min(due, steady_clock::now() + kFirstReadLimit);
  for (milliseconds pause{1};; pause = std::min(pause * 2, kLongestLook)) {
    const bool drained = isDrained();
    pollfd state{fd_.get(), 0, 0};
    const auto left = std::chrono::ceil<milliseconds>(due - steady_clock::now());
    const auto wait = drained ? milliseconds(0) : std::clamp(left, milliseconds(0), pause);
    if (::poll(&state, 1, static_cast<int>(wait.count())) > 0) {
      int error = 0;
      socklen_t size = sizeof error;
      const bool known = ::getsockopt(fd_.get(), SOL_SOCKET, SO_ERROR, &error, &size) == 0;
      return known && error == 0 ? Fate::taken : Fate::turnedAway;
    }
    if (drained) return Fate::taken;
    if (steady_clock::now() >= due) return Fate::waiting;
  }
}

kel_user_counters UserConnection::counts() const {
  return {sent_.load(std::memory_order_relaxed),
          dropped_.load(std::memory_order_relaxed),
          lost_.load(std::memory_order_relaxed),
          reconnects_.load(std::memory_order_relaxed),
          {}};
}

/// A process that becomes a daemon closes every descriptor that it does not know, and opens others.
bool UserConnection::ownsDescriptor() const {
  struct stat facts {};
  return fd_ && ::fstat(fd_.get(), &facts) == 0 && S_ISSOCK(facts.st_mode) && facts.st_ino == inode_;
}

void UserConnection::abandon() {
  if (ownsDescriptor()) {
    fd_.reset();
  } else {
    static_cast<void>(fd_.release());
  }
}

}  // namespace kelUser
