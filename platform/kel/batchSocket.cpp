#include "kel/batchSocket.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <span>
#include <utility>

#include "host/platformLog.h"
#include "kel/batch.h"
#include "platform/clock.h"
#include "platform/kellib.h"

namespace platform {

namespace {

struct Message {
  int status = 0;
  std::size_t length = 0;  ///< true length, also where the places were shorter
  bool hasCredentials = false;
  BatchSender sender;
};

/// Credentials come first and fill the control buffer (unix(7)), so the kernel lets go of descriptors
/// that a client passes along; should some arrive all the same, they end here.
void readControl(msghdr& header, Message& message) {
  for (cmsghdr* part = CMSG_FIRSTHDR(&header); part != nullptr; part = CMSG_NXTHDR(&header, part)) {
    if (part->cmsg_level != SOL_SOCKET) continue;
    if (part->cmsg_type == SCM_CREDENTIALS && part->cmsg_len >= CMSG_LEN(sizeof(ucred))) {
      ucred credentials{};
      std::memcpy(&credentials, CMSG_DATA(part), sizeof credentials);
      message.hasCredentials = true;
      message.sender = {credentials.pid, credentials.uid};
    } else if (part->cmsg_type == SCM_RIGHTS) {
      for (std::size_t at = 0; CMSG_LEN(at + sizeof(int)) <= part->cmsg_len; at += sizeof(int)) {
        int passed = -1;
        std::memcpy(&passed, CMSG_DATA(part) + at, sizeof passed);
        ::close(passed);
      }
    }
  }
}

/// Consumes the message that waits first, into the places one after the other.
Message receive(int fd, std::span<iovec> places) {
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))];
  msghdr header{};
  header.msg_iov = places.data();
  header.msg_iovlen = places.size();
  header.msg_control = control;
  header.msg_controllen = sizeof control;
  ssize_t length = -1;
  do {
    length = ::recvmsg(fd, &header, MSG_DONTWAIT | MSG_TRUNC | MSG_CMSG_CLOEXEC);
  } while (length < 0 && errno == EINTR);
  Message message;
  if (length < 0) {
    message.status = errno;
    return message;
  }
  message.length = static_cast<std::size_t>(length);
  readControl(header, message);
  return message;
}

/// Where the part of a message goes that the reader's buffer has no room for: one for all the sockets
/// that a thread reads.
char* overflow() {
  thread_local std::vector<char> bytes(kBatchLimitBytes);
  return bytes.data();
}

bool isNothingWaiting(int status) {
  return status == EAGAIN || status == EWOULDBLOCK;
}

}  // namespace

BatchSocket::BatchSocket(int fd, Kind kind, std::string name, std::shared_ptr<CounterCells> counters)
    : fd_(fd), kind_(kind), ownUser_(::geteuid()), name_(std::move(name)), counters_(std::move(counters)) {}

int BatchSocket::read(void* buffer, std::size_t capacity, std::size_t* length) {
  *length = 0;
  int status = 0;
  for (int drops = 0; take(buffer, capacity, length, &status) == Step::dropped;) {
    if (++drops >= kDropsPerRead && !peerIsGone()) return 0;
  }
  return status;
}

BatchSocket::Step BatchSocket::take(void* buffer, std::size_t capacity, std::size_t* length, int* status) {
  if (kept_) return takeKept(buffer, capacity, length, status);
  char* const rest = overflow();
  std::array<iovec, 2> places{{{buffer, capacity}, {rest, kBatchLimitBytes}}};
  const Message message = receive(fd_, places);
  if (message.status != 0) {
    *status = isNothingWaiting(message.status) ? 0 : message.status;
    return Step::finished;
  }
  if (kind_ == Kind::connection && message.length == 0 && !message.hasCredentials) {
    // A client that closed only its sending half polls readable without a hang-up, for ever. Closing
    // ours too makes it one, which the reader acts on.
    ::shutdown(fd_, SHUT_RDWR);
    *status = ENOTCONN;
    return Step::finished;
  }
  // Nobody resets a connection, so what fits no buffer would be kept for ever.
  if (kind_ == Kind::connection && message.length >= kBatchLimitBytes) {
    recordDrop(counters_->oversized, "oversized", message.length, message.sender);
    return Step::dropped;
  }
  if (message.length != 0 && message.length >= capacity) {
    keep(buffer, capacity, message.length, message.sender);
    *status = KELLIB_ERR_BUFFER_TOO_SMALL;
    return Step::finished;
  }
  return deliver(buffer, message.length, message.sender, length);
}

/// Of a batch that no reader's buffer holds the length is enough.
void BatchSocket::keep(const void* buffer, std::size_t capacity, std::size_t length, const BatchSender& sender) {
  kept_ = Kept{length, sender, {}};
  if (length > kBatchLimitBytes) return;
  const char* head = static_cast<const char*>(buffer);
  kept_->bytes.assign(head, head + capacity);
  kept_->bytes.insert(kept_->bytes.end(), overflow(), overflow() + (length - capacity));
}

BatchSocket::Step BatchSocket::takeKept(void* buffer, std::size_t capacity, std::size_t* length, int* status) {
  if (kept_->length >= capacity || kept_->bytes.empty()) {
    *status = KELLIB_ERR_BUFFER_TOO_SMALL;
    return Step::finished;
  }
  const Kept batch = *std::exchange(kept_, std::nullopt);
  std::memcpy(buffer, batch.bytes.data(), batch.length);
  return deliver(buffer, batch.length, batch.sender, length);
}

BatchSocket::Step BatchSocket::deliver(const void* batch, std::size_t size, const BatchSender& sender,
                                       std::size_t* length) {
  const Step step = judge(batch, size, sender);
  if (step == Step::finished) *length = size;
  return step;
}

BatchSocket::Step BatchSocket::judge(const void* batch, std::size_t length, const BatchSender& sender) {
  const bool privileged = sender.user == 0 || sender.user == ownUser_;
  switch (checkBatch(batch, length, privileged ? Emitter::privileged : Emitter::unprivileged)) {
    case BatchVerdict::sound:
      counters_->delivered.fetch_add(1, std::memory_order_relaxed);
      return Step::finished;
    case BatchVerdict::malformed:
      recordDrop(counters_->malformed, "malformed", length, sender);
      break;
    case BatchVerdict::forbidden:
      recordDrop(counters_->forbidden, "forbidden", length, sender);
      break;
  }
  return Step::dropped;
}

int BatchSocket::reset() {
  if (!kept_) {
    std::array<iovec, 1> nowhere{};
    const Message message = receive(fd_, nowhere);
    if (message.status != 0) return isNothingWaiting(message.status) ? 0 : message.status;
    kept_ = Kept{message.length, message.sender, {}};
  }
  const Kept batch = *std::exchange(kept_, std::nullopt);
  recordDrop(counters_->oversized, "oversized", batch.length, batch.sender);
  return 0;
}

void BatchSocket::recordDrop(std::atomic<std::uint64_t>& counter, const char* why, std::size_t length,
                             const BatchSender& sender) {
  counter.fetch_add(1, std::memory_order_relaxed);
  const auto unmentioned = dropLog().claim(sender, systemClock().monotonic());
  if (!unmentioned) return;
  platformLog("%s: dropped a batch of %zu bytes from process %d of user %u: %s (%llu earlier ones not mentioned)",
              name_.c_str(), length, static_cast<int>(sender.process), static_cast<unsigned>(sender.user), why,
              static_cast<unsigned long long>(*unmentioned));
}

bool BatchSocket::peerIsGone() const {
  pollfd state{fd_, POLLIN, 0};
  return kind_ == Kind::connection && ::poll(&state, 1, 0) == 1 && (state.revents & POLLHUP) != 0;
}

}  // namespace platform
