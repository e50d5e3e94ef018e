#include "linux/netlinkSocket.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cerrno>

#include "host/uniqueFd.h"

namespace platform {

namespace {

/// Room for notifications that wait: about a thousand, each of which the kernel accounts for with 4 KiB.
constexpr int kNotificationQueueBytes = 4 * 1024 * 1024;
/// Datagrams of other processes that one receive passes over before it gives the caller a turn.
constexpr int kStrangersPerReceive = 64;

class KernelSocket final : public NetlinkSocket {
 public:
  explicit KernelSocket(UniqueFd fd) : fd_(std::move(fd)) {}

  [[nodiscard]] int fd() const override { return fd_.get(); }

  int send(std::span<const char> request) override {
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    while (true) {
      const ssize_t sent = ::sendto(fd_.get(), request.data(), request.size(), MSG_NOSIGNAL,
                                    reinterpret_cast<const sockaddr*>(&kernel), sizeof kernel);
      if (sent >= 0) return static_cast<std::size_t>(sent) == request.size() ? 0 : EIO;
      if (errno != EINTR) return errno;
    }
  }

  int receive(std::span<char> buffer, std::size_t* length, std::chrono::milliseconds patience) override {
    for (int stranger = 0; stranger < kStrangersPerReceive; ++stranger) {
      const int status = receiveAny(buffer, length);
      if (status == EAGAIN && patience.count() > 0) {
        if (const int waited = wait(patience); waited != 0) return waited;
        // One wait is all the patience there is.
        patience = {};
        continue;
      }
      if (status != kStranger) return status;
    }
    return EAGAIN;
  }

 private:
  /// No errno value: the datagram came from another process.
  static constexpr int kStranger = -1;

  int receiveAny(std::span<char> buffer, std::size_t* length) {
    sockaddr_nl sender{};
    iovec piece{buffer.data(), buffer.size()};
    msghdr message{};
    message.msg_name = &sender;
    message.msg_namelen = sizeof sender;
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    ssize_t got = ::recvmsg(fd_.get(), &message, MSG_DONTWAIT);
    while (got < 0 && errno == EINTR) got = ::recvmsg(fd_.get(), &message, MSG_DONTWAIT);
    if (got < 0) return errno == EWOULDBLOCK ? EAGAIN : errno;
    if (message.msg_namelen != sizeof sender || sender.nl_family != AF_NETLINK || sender.nl_pid != 0) return kStranger;
    if ((message.msg_flags & MSG_TRUNC) != 0) return EMSGSIZE;
    *length = static_cast<std::size_t>(got);
    return 0;
  }

  /// 0 once there is something to receive, else EAGAIN or another errno value.
  int wait(std::chrono::milliseconds patience) {
    pollfd one{fd_.get(), POLLIN, 0};
    int ready = ::poll(&one, 1, static_cast<int>(patience.count()));
    while (ready < 0 && errno == EINTR) ready = ::poll(&one, 1, static_cast<int>(patience.count()));
    if (ready < 0) return errno;
    return ready == 0 ? EAGAIN : 0;
  }

  UniqueFd fd_;
};

Answer<std::unique_ptr<NetlinkSocket>> openSocket(std::uint32_t groups) {
  UniqueFd fd(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
  if (!fd) return {{errno, {}}, {}};
  if (groups != 0) {
    const int bytes = kNotificationQueueBytes;
    // Without the privilege the queue is as long as net.core.rmem_max allows; overruns are coped with.
    if (::setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) != 0 &&
        ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes) != 0) {
      return {{errno, {}}, {}};
    }
  }
  sockaddr_nl own{};
  own.nl_family = AF_NETLINK;
  own.nl_groups = groups;
  if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0) return {{errno, {}}, {}};
  return {{}, std::make_unique<KernelSocket>(std::move(fd))};
}

class KernelNetlink final : public Netlink {
 public:
  Answer<std::unique_ptr<NetlinkSocket>> openRequests() override { return openSocket(0); }
  Answer<std::unique_ptr<NetlinkSocket>> openLinkNotifications() override { return openSocket(RTMGRP_LINK); }
};

}  // namespace

std::unique_ptr<Netlink> makeKernelNetlink() {
  return std::make_unique<KernelNetlink>();
}

}  // namespace platform
