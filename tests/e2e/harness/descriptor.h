// A descriptor of the tests' own, and the address of a local socket.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <utility>

#include "deadline.h"

namespace e2e {

class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) noexcept : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Descriptor() { close(); }

  [[nodiscard]] int get() const noexcept { return fd_; }
  [[nodiscard]] explicit operator bool() const noexcept { return fd_ >= 0; }
  void close() noexcept {
    if (fd_ >= 0) ::close(std::exchange(fd_, -1));
  }

 private:
  int fd_ = -1;
};

inline sockaddr_un localAddress(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) throw HarnessError("too long for a local address: " + path);
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return address;
}

/// A local socket, close-on-exec. `type` may carry SOCK_NONBLOCK.
inline Descriptor localSocket(int type) {
  Descriptor fd(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
  if (!fd) throwErrno("socket");
  return fd;
}

/// Returns 0 or the errno value of the refusal.
inline int connectLocal(const Descriptor& fd, const std::string& path) {
  const sockaddr_un address = localAddress(path);
  return ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ? 0 : errno;
}

inline void bindLocal(const Descriptor& fd, const std::string& path) {
  ::unlink(path.c_str());
  const sockaddr_un address = localAddress(path);
  if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) throwErrno("bind " + path);
}

}  // namespace e2e
