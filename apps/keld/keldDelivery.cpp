#include "keldDelivery.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "keldLog.h"
#include "keldVprobRecord.h"

namespace keld {

namespace {

/// A connection to the management agent, closed where its scope ends.
class Connection {
 public:
  explicit Connection(bool wait) : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | (wait ? 0 : SOCK_NONBLOCK), 0)) {}
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection() {
    if (fd_ >= 0) close(fd_);
  }

  /// Bounds connecting and sending (socket(7), SO_SNDTIMEO). False with errno set.
  [[nodiscard]] bool open(const std::string& path) const {
    if (fd_ < 0) return false;
    const timeval limit{Delivery::kSendTimeoutSeconds, 0};
    if (setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) != 0) return false;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path);
    return connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  }

  /// False with errno set; nothing tells how much of the record got through.
  [[nodiscard]] bool sendAll(const char* data, std::size_t length) const {
    while (length != 0) {
      const ssize_t sent = send(fd_, data, length, 0);
      if (sent < 0) return false;
      data += sent;
      length -= static_cast<std::size_t>(sent);
    }
    return true;
  }

 private:
  int fd_;
};

const char* eventName(const std::vector<char>& record) {
  return record.data() + record::kName;
}

}  // namespace

void Delivery::createRetryTimer() {
  retryTimer_ = timers_.create([this] { VProb_FlushQueue(); });
}

int Delivery::VProb_SendNow(const void* record, std::size_t length) {
  const Connection connection(!stalled_.load());
  if (!connection.open(socketPath_) || !connection.sendAll(static_cast<const char*>(record), length)) {
    // A time-out and a full backlog both read as "again" (connect(2)); nobody there is no stall.
    stalled_.store(errno == EAGAIN || errno == EINPROGRESS);
    return -1;
  }
  stalled_.store(false);
  return 0;
}

void Delivery::VProb_Enqueue(const void* record, std::size_t length) {
  try {
    const auto* bytes = static_cast<const char*>(record);
    Entry entry{0, std::vector<char>(bytes, bytes + length)};
    const std::lock_guard lock(mutex_);
    kEventQueued.report(decisions_, eventName(entry.data), kRetrySeconds);
    queue_.push_back(std::move(entry));
  } catch (const std::bad_alloc&) {
    return;  // the event is lost; the timer stays as it is
  }
  if (!armed_.load()) {
    timers_.set(retryTimer_, TimerMode::oneShot, kRetrySeconds);
    armed_.store(true);
  }
}

void Delivery::VProb_FlushQueue() {
  bool kept = false;
  {
    const std::lock_guard lock(mutex_);
    std::erase_if(queue_, [&](Entry& entry) {
      if (VProb_SendNow(entry.data.data(), entry.data.size()) == 0) {
        Log("Successfully sent event (%s) after %d failure%s.\n", eventName(entry.data), entry.failures + 1,
            entry.failures == 0 ? "" : "s");
        kEventResent.report(decisions_, eventName(entry.data), entry.failures + 1);
        return true;
      }
      if (++entry.failures > kMaxFailures) {
        Log("Abandoned event (%s) after %d failures.\n", eventName(entry.data), entry.failures + 1);
        kEventLost.report(decisions_, eventName(entry.data), entry.failures + 1);
        return true;
      }
      Log("Failed to send event (%s); %d failures so far.\n", eventName(entry.data), entry.failures + 1);
      kEventWaiting.report(decisions_, eventName(entry.data), entry.failures + 1, kRetrySeconds);
      kept = true;
      return false;
    });
  }
  if (kept) {
    timers_.set(retryTimer_, TimerMode::oneShot, kRetrySeconds);
  } else {
    armed_.store(false);
  }
}

}  // namespace keld
