#include "keldTrace.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "keldLog.h"
#include "platform/vthread.h"

namespace keld {

namespace {

constexpr int kBacklog = 128;

/// Writes all of `data`. Returns false where the client takes no more.
bool writeAll(int fd, std::string_view data) {
  while (!data.empty()) {
    const ssize_t written = write(fd, data.data(), data.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) {
      if (errno != EPIPE) Log("Unexpected write error %s", std::strerror(errno));
      return false;
    }
    data.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

}  // namespace

void TraceHistory::dropOldest() {
  const std::uint32_t length = lengths_[firstLength_];
  firstLength_ = (firstLength_ + 1) % lengths_.size();
  --lines_;
  start_ = (start_ + length) % kMaxBytes;
  bytes_ -= length;
}

void TraceHistory::addLength(std::uint32_t length) {
  if (lines_ == lengths_.size()) {
    std::rotate(lengths_.begin(), lengths_.begin() + static_cast<std::ptrdiff_t>(firstLength_), lengths_.end());
    firstLength_ = 0;
    lengths_.resize(std::max<std::size_t>(64, lengths_.size() * 2));
  }
  lengths_[(firstLength_ + lines_) % lengths_.size()] = length;
  ++lines_;
}

void TraceHistory::append(std::string_view line) {
  while (lines_ != 0 && bytes_ + line.size() > kMaxBytes) dropOldest();
  if (line.size() > kMaxBytes) return;  // it would be the oldest itself, and be dropped
  if (ring_.empty()) ring_.resize(kMaxBytes);
  const std::size_t at = (start_ + bytes_) % kMaxBytes;
  const std::size_t first = std::min(line.size(), kMaxBytes - at);
  std::memcpy(ring_.data() + at, line.data(), first);
  std::memcpy(ring_.data(), line.data() + first, line.size() - first);
  addLength(static_cast<std::uint32_t>(line.size()));
  bytes_ += line.size();
}

void TraceHistory::copyTo(std::string& out) const {
  const std::size_t first = std::min(bytes_, kMaxBytes - start_);
  if (bytes_ == 0) return;
  out.append(ring_.data() + start_, first);
  out.append(ring_.data(), bytes_ - first);
}

/// Hands a client's descriptor to one of its threads.
struct TraceServer::Start {
  TraceServer* server;
  int fd;
};

namespace {

int openSpare() {
  return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

}  // namespace

TraceServer::TraceServer(Clock& clock) : clock_(clock), spare_(openSpare()) {}

TraceServer::~TraceServer() {
  if (spare_ >= 0) close(spare_);
}

int TraceServer::Trace_Listen(const char* path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::size_t length = std::strlen(path);
  if (length >= sizeof address.sun_path) {
    errno = ENAMETOOLONG;
    return -1;
  }
  std::memcpy(address.sun_path, path, length);
  unlink(path);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  // Before it is bound, so that there is no moment at which others could connect (unix(7)).
  if (fchmod(fd, S_IRUSR | S_IWUSR) != 0 ||
      bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 || listen(fd, kBacklog) != 0) {
    const int error = errno;
    close(fd);
    errno = error;
    return -1;
  }
  return fd;
}

void TraceServer::Trace_Accept(int listener) {
  const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd < 0) {
    const int error = errno;
    Log("Trace accept() failed: %s", std::strerror(error));
    if (error == EMFILE || error == ENFILE) turnAway(listener);
    return;
  }
  auto start = std::make_unique<Start>(Start{this, fd});
  pthread_t thread{};
  if (const int error = pthread_create(&thread, nullptr, clientThread, start.get()); error != 0) {
    Log("pthread_create failed: %s", std::strerror(error));
    close(fd);
    return;
  }
  static_cast<void>(start.release());
  pthread_detach(thread);
}

void TraceServer::turnAway(int listener) {
  if (spare_ >= 0) close(spare_);
  if (const int client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC); client >= 0) close(client);
  spare_ = openSpare();
}

void* TraceServer::clientThread(void* start) {
  const std::unique_ptr<Start> owned(static_cast<Start*>(start));
  VThreadBase_SetName("trace-reader");
  owned->server->serve(owned->fd);
  return nullptr;
}

void* TraceServer::writerThread(void* start) {
  const auto* given = static_cast<Start*>(start);
  VThreadBase_SetName("trace-writer");
  given->server->write(given->fd);
  return nullptr;
}

void TraceServer::serve(int fd) {
  {
    const std::lock_guard lock(mutex_);
    Client& client = clients_[fd];
    history_.copyTo(client.pending);
    client.pending += '\n';
  }
  Start start{this, fd};
  pthread_t writer{};
  if (const int error = pthread_create(&writer, nullptr, writerThread, &start); error != 0) {
    Log("pthread_create failed: %s", std::strerror(error));
  } else {
    char discarded = 0;
    ssize_t got = 0;
    do {
      got = read(fd, &discarded, 1);
    } while (got > 0 || (got < 0 && errno == EINTR));
    {
      const std::lock_guard lock(mutex_);
      clients_[fd].closing = true;
    }
    changed_.notify_all();
    pthread_join(writer, nullptr);
  }
  {
    const std::lock_guard lock(mutex_);
    clients_.erase(fd);
  }
  close(fd);
}

void TraceServer::write(int fd) {
  std::string lines;
  while (true) {
    {
      std::unique_lock lock(mutex_);
      Client& client = clients_[fd];
      changed_.wait(lock, [&client] { return !client.pending.empty() || client.closing; });
      if (client.pending.empty()) return;
      lines.clear();
      lines.swap(client.pending);
    }
    if (!writeAll(fd, lines)) break;
  }
  stopWriting(fd);
}

// The client may stay connected; what it is not going to read must not pile up.
void TraceServer::stopWriting(int fd) {
  const std::lock_guard lock(mutex_);
  Client& client = clients_[fd];
  client.writing = false;
  client.pending = std::string();
}

void TraceServer::Trace_AddLine(std::string_view line) {
  {
    const std::lock_guard lock(mutex_);
    history_.append(line);
    for (auto& [fd, client] : clients_) {
      if (client.writing) client.pending += line;
    }
  }
  changed_.notify_all();
}

}  // namespace keld
