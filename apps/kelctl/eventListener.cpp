#include "eventListener.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "failure.h"
#include "host/files.h"
#include "host/paths.h"
#include "kel/localAddress.h"
#include "localConnection.h"
#include "stopSignals.h"

namespace kelctl {

namespace {

constexpr int kBacklog = 128;
constexpr mode_t kOwnerOnly = 0177;

[[noreturn]] void fail(const std::string& path, int status) {
  throw Failure(fmt::format("cannot listen at {}: {}", path, platform::errnoText(status)));
}

/// Throws Failure unless a socket can be put at `path`.
void checkPlace(const std::string& path) {
  struct stat facts {};
  if (::lstat(path.c_str(), &facts) != 0) {
    if (errno == ENOENT) return;
    fail(path, errno);
  }
  if (!S_ISSOCK(facts.st_mode))
    throw Failure(fmt::format("cannot listen at {}: a file that is no socket is there", path));
  platform::UniqueFd other;
  const int status = connectStream(path, &other);
  if (status == ECONNREFUSED || status == ENOENT) return;
  if (status == 0 || status == EAGAIN) {
    throw Failure(fmt::format("cannot listen at {}: a management agent does already; stop it first", path));
  }
  fail(path, status);
}

}  // namespace

EventListener::EventListener(std::string path) : path_(std::move(path)) {
  if (const int status = platform::makePrivateDirectory(platform::runDirectory()); status != 0) fail(path_, status);
  checkPlace(path_);
  bindAndListen();
}

EventListener::~EventListener() {
  struct stat facts {};
  if (::lstat(path_.c_str(), &facts) == 0 && facts.st_dev == device_ && facts.st_ino == inode_) ::unlink(path_.c_str());
}

// The socket gets its name when it is complete: whoever finds it can connect.
void EventListener::bindAndListen() {
  sockaddr_un address;
  if (const int status = platform::localAddress(path_, &address); status != 0) fail(path_, status);
  const std::string nascent = runPath(fmt::format(".ev{}", ::getpid()));
  if (const int status = platform::localAddress(nascent, &address); status != 0) fail(path_, status);
  listener_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!listener_) fail(path_, errno);
  ::unlink(nascent.c_str());
  const mode_t mask = ::umask(kOwnerOnly);
  int status = ::bind(listener_.get(), platform::socketAddress(address), sizeof address) == 0 ? 0 : errno;
  ::umask(mask);
  if (status != 0) fail(path_, status);
  struct stat facts {};
  if (::listen(listener_.get(), kBacklog) != 0 || ::lstat(nascent.c_str(), &facts) != 0) status = errno;
  // Where the group cannot be given access, the owner has it, and the log says why.
  if (status == 0) (void)platform::applyAccess(nascent, false);
  if (status == 0 && std::rename(nascent.c_str(), path_.c_str()) != 0) status = errno;
  if (status != 0) {
    ::unlink(nascent.c_str());
    fail(path_, status);
  }
  device_ = facts.st_dev;
  inode_ = facts.st_ino;
}

std::optional<EventListener::Step> EventListener::takeFinished(std::string& bytes) {
  const Moment now = std::chrono::steady_clock::now();
  for (auto connection = connections_.begin(); connection != connections_.end(); ++connection) {
    if (!connection->ended && connection->due > now) continue;
    const bool refused = connection->refused || !connection->ended;
    bytes = std::move(connection->bytes);
    connections_.erase(connection);
    return refused ? Step::refused : Step::record;
  }
  return std::nullopt;
}

std::optional<EventListener::Moment> EventListener::nextDue(std::optional<Moment> due) const {
  for (const Connection& connection : connections_) due = due ? std::min(*due, connection.due) : connection.due;
  return due;
}

EventListener::Step EventListener::next(std::string& bytes, std::optional<Moment> due,
                                        const std::vector<pollfd>& watched) {
  std::vector<pollfd> set;
  while (true) {
    if (const auto step = takeFinished(bytes)) return *step;
    if (due && std::chrono::steady_clock::now() >= *due) return Step::expired;
    set = watched;
    // Where there are too many, others wait for their turn.
    const bool full = connections_.size() >= kMaxConnections;
    set.push_back({full ? -1 : listener_.get(), POLLIN, 0});
    for (const Connection& connection : connections_) set.push_back({connection.fd.get(), POLLIN, 0});
    if (::poll(set.data(), set.size(), pollMilliseconds(nextDue(due))) < 0) {
      if (errno == EINTR) continue;
      throw Failure("cannot wait for events: " + platform::errnoText(errno));
    }
    auto seen = set.begin();
    for (; seen != set.begin() + static_cast<std::ptrdiff_t>(watched.size()); ++seen) {
      if (seen->revents != 0) return Step::stopped;
    }
    const bool waiting = (seen++)->revents != 0;
    for (Connection& connection : connections_) {
      if ((seen++)->revents != 0) receive(connection);
    }
    if (waiting) acceptOne();
  }
}

void EventListener::acceptOne() {
  platform::UniqueFd fd(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (fd) {
    connections_.push_back({std::move(fd), std::chrono::steady_clock::now() + kConnectionTime, {}, false, false});
  } else if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) {
    throw Failure("cannot accept a connection: " + platform::errnoText(errno));
  }
}

void EventListener::receive(Connection& connection) {
  char chunk[16384];
  const ssize_t got = ::recv(connection.fd.get(), chunk, sizeof chunk, MSG_DONTWAIT);
  if (got < 0 && (errno == EINTR || errno == EAGAIN)) return;
  if (got <= 0) {
    // Where the sender broke off, what came before may still be a whole record.
    connection.ended = true;
    return;
  }
  connection.bytes.append(chunk, static_cast<std::size_t>(got));
  if (connection.bytes.size() > kMaxConnectionBytes) connection.ended = connection.refused = true;
}

}  // namespace kelctl
