#include "emitter.h"

#include <poll.h>
#include <sys/socket.h>

namespace e2e {
namespace {

// Room for the largest batches of the tests, above the default limit of a local socket.
constexpr int kSendBufferBytes = 1 << 20;

Descriptor connected(int type, const std::string& path) {
  Descriptor fd = localSocket(type);
  ::setsockopt(fd.get(), SOL_SOCKET, SO_SNDBUF, &kSendBufferBytes, sizeof kSendBufferBytes);
  if (const int error = connectLocal(fd, path); error != 0) {
    errno = error;
    throwErrno("connect " + path);
  }
  return fd;
}

}  // namespace

Batch record(const std::string& id, const Arguments& arguments, const std::string& message, std::uint64_t stampUs) {
  return support::rawRecord(id, arguments, message, stampUs);
}

Batch recordOfSize(const std::string& id, std::size_t bytes) {
  const std::size_t withOneCharacter = record(id, {}, "m").size();
  if (bytes < withOneCharacter) throw HarnessError("no record is that short");
  Batch batch = record(id, {}, std::string(bytes - withOneCharacter + 1, 'm'));
  if (batch.size() != bytes) throw HarnessError("a record's length does not follow its message");
  return batch;
}

Batch joined(Batch first, const Batch& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

Emitter Emitter::toContext(const Workspace& workspace, unsigned number) {
  return Emitter(connected(SOCK_DGRAM, workspace.contextSocket(number)));
}

Emitter Emitter::toUserContext(const Workspace& workspace) {
  return Emitter(connected(SOCK_SEQPACKET, workspace.userSocket()));
}

void Emitter::send(const Batch& batch) const {
  const Deadline deadline;
  while (true) {
    const int error = trySend(batch);
    if (error == 0) return;
    errno = error;
    if (error != EAGAIN) throwErrno("send to a context");
    if (deadline.passed()) throw HarnessError("the context does not take the batch in time");
    pollfd watched{fd_.get(), POLLOUT, 0};
    ::poll(&watched, 1, 10);  // a datagram socket's peer does not always wake its senders
  }
}

int Emitter::trySend(const Batch& batch) const {
  const ssize_t sent = ::send(fd_.get(), batch.data(), batch.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  return sent == static_cast<ssize_t>(batch.size()) ? 0 : errno;
}

bool Emitter::closedByPeer(Deadline deadline) const {
  pollfd watched{fd_.get(), POLLIN, 0};
  while (::poll(&watched, 1, deadline.leftMs()) < 0 && errno == EINTR) {
  }
  return (watched.revents & (POLLHUP | POLLERR)) != 0;
}

void Emitter::shutDown(int how) const {
  if (::shutdown(fd_.get(), how) != 0) throwErrno("shutdown");
}

}  // namespace e2e
