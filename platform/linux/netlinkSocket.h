// The kernel's route netlink, as narrow as links need it, so that a test can stand in for the kernel.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <span>

#include "host/host.h"

namespace platform {

/// Longest datagram that is taken; the kernel's own dumps keep to half of it.
inline constexpr std::size_t kNetlinkDatagramBytes = std::size_t{64} * 1024;

/// One netlink socket. Belongs to one thread at a time.
class NetlinkSocket {
 public:
  NetlinkSocket() = default;
  NetlinkSocket(const NetlinkSocket&) = delete;
  NetlinkSocket& operator=(const NetlinkSocket&) = delete;
  virtual ~NetlinkSocket() = default;

  /// Polls readable while a datagram waits, and reports an error while an overrun does.
  [[nodiscard]] virtual int fd() const = 0;
  /// Sends a request to the kernel. Returns 0 or an errno value.
  virtual int send(std::span<const char> request) = 0;
  /// Takes the next datagram that the kernel itself sent, waiting for at most `patience`; others are
  /// dropped. Returns 0 and the datagram's length, EAGAIN where none came, ENOBUFS where the kernel had
  /// to drop notifications, EMSGSIZE where the datagram was longer than `buffer` (it is lost), or
  /// another errno value.
  virtual int receive(std::span<char> buffer, std::size_t* length, std::chrono::milliseconds patience) = 0;
};

/// Where netlink sockets come from. Every method may be called from any thread.
class Netlink {
 public:
  Netlink() = default;
  Netlink(const Netlink&) = delete;
  Netlink& operator=(const Netlink&) = delete;
  virtual ~Netlink() = default;

  /// A socket for requests and their answers.
  virtual Answer<std::unique_ptr<NetlinkSocket>> openRequests() = 0;
  /// A socket that receives a notification of every change of a link from now on.
  virtual Answer<std::unique_ptr<NetlinkSocket>> openLinkNotifications() = 0;
};

/// The running kernel, in the network namespace of the thread that opens a socket.
std::unique_ptr<Netlink> makeKernelNetlink();

}  // namespace platform
