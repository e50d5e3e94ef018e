#include "platform/kelemit.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "host/uniqueFd.h"
#include "kel/contextConnection.h"
#include "kel/contextSocket.h"
#include "platform/kellib.h"

namespace KelEmit {

std::string contextSocketPath(std::uint32_t number) {
  return platform::contextPath(platform::contextName(number));
}

std::string userSocketPath() {
  return contextSocketPath(KELLIB_ASYNC_CONTEXTS);
}

Sender::Sender(Sender&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

Sender& Sender::operator=(Sender&& other) noexcept {
  // The descriptor that was this one's closes with `other`.
  std::swap(fd_, other.fd_);
  return *this;
}

Sender::~Sender() {
  if (fd_ >= 0) ::close(fd_);
}

int Sender::openContext(std::uint32_t number) {
  if (number >= KELLIB_ASYNC_CONTEXTS) return EINVAL;
  return open(contextSocketPath(number), SOCK_DGRAM);
}

int Sender::openUser() {
  return open(userSocketPath(), SOCK_SEQPACKET);
}

int Sender::open(const std::string& path, int type) {
  platform::UniqueFd connected(std::exchange(fd_, -1));
  const int status = platform::connectToContext(path, type, std::nullopt, &connected);
  if (status == 0) fd_ = connected.release();
  return status;
}

int Sender::send(const std::vector<char>& batch, Due due) {
  if (batch.empty()) return EINVAL;
  return fd_ < 0 ? ENOTCONN : platform::sendBatch(fd_, batch, due);
}

}  // namespace KelEmit
