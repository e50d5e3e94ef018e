#include "linux/linksChannel.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "host/complaints.h"
#include "host/files.h"
#include "host/platformLog.h"
#include "linux/linkRequests.h"
#include "platform/kelemit.h"
#include "platform/kellib.h"

namespace platform {

namespace {

/// What one read takes in at most, so that a storm of notifications cannot hold its thread.
constexpr int kDatagramsPerRead = 256;
constexpr std::size_t kPendingBytes = std::size_t{64} * 1024;
/// Datagrams that are thrown away after an overrun, before the links are looked at afresh.
constexpr int kDatagramsDrained = 16384;

void appendRecord(const KelEmit::Observation& observation, std::deque<std::vector<char>>& records) {
  std::vector<char> record;
  const int status = KelEmit::appendRecord(observation, record);
  if (status == 0) {
    records.push_back(std::move(record));
  } else {
    logOnce("links: cannot make an observation " + observation.id + ": " + errnoText(status));
  }
}

/// Takes the value out of an eventfd or timerfd; false where there was none.
bool takeValue(int fd) {
  std::uint64_t value = 0;
  ssize_t got = ::read(fd, &value, sizeof value);
  while (got < 0 && errno == EINTR) got = ::read(fd, &value, sizeof value);
  return got == static_cast<ssize_t>(sizeof value);
}

}  // namespace

void appendLinkRecords(const LinkChange& change, std::deque<std::vector<char>>& records) {
  if (change.up) {
    appendRecord({"kel.net.qnic.linkstate.up", "NIC %s: link up", {change.nic}, {}}, records);
  } else {
    appendRecord({"kel.net.qnic.linkstate.down", "NIC %s: link down", {change.nic}, {}}, records);
  }
  for (const UplinkTransition& to : change.transitions) {
    if (change.up) {
      appendRecord({"kel.net.pg.uplink.transition.up",
                    "NIC %s: uplink of port group %s is up, %d uplinks up",
                    {change.nic, to.portGroup, to.active},
                    {}},
                   records);
    } else {
      appendRecord({"kel.net.pg.uplink.transition.down",
                    "NIC %s: uplink of port group %s is down, %d of %d uplinks up",
                    {change.nic, to.portGroup, to.active, to.total},
                    {}},
                   records);
    }
  }
}

LinksChannel::LinksChannel(std::shared_ptr<Netlink> netlink, LinkPolicy policy)
    : netlink_(std::move(netlink)),
      table_(std::move(policy)),
      datagram_(std::make_unique<char[]>(kNetlinkDatagramBytes)) {}

Answer<std::unique_ptr<Channel>> LinksChannel::open(std::shared_ptr<Netlink> netlink, LinkPolicy policy) {
  std::unique_ptr<LinksChannel> channel(new LinksChannel(std::move(netlink), std::move(policy)));
  if (const int status = channel->makeDescriptors(); status != 0) return {{status, {}}, {}};
  channel->subscribe();
  return {{}, std::move(channel)};
}

int LinksChannel::makeDescriptors() {
  poll_.reset(::epoll_create1(EPOLL_CLOEXEC));
  if (!poll_) return errno;
  rest_.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!rest_) return errno;
  retry_.reset(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
  if (!retry_) return errno;
  if (const int status = watch(rest_.get()); status != 0) return status;
  return watch(retry_.get());
}

int LinksChannel::watch(int fd) {
  epoll_event interest{};
  interest.events = EPOLLIN;
  interest.data.fd = fd;
  return ::epoll_ctl(poll_.get(), EPOLL_CTL_ADD, fd, &interest) == 0 ? 0 : errno;
}

void LinksChannel::subscribe() {
  auto socket = netlink_->openLinkNotifications();
  if (!socket.ok()) {
    logOnce("links: no netlink (" + reasonOf(socket.outcome) + "); the channel is idle");
    return;
  }
  if (const int status = watch(socket.value->fd()); status != 0) {
    logOnce("links: cannot wait for notifications (" + errnoText(status) + "); the channel is idle");
    return;
  }
  notifications_ = std::move(socket.value);
  // Subscribed first: what changes while the links are being learnt is not missed.
  resync();
}

int LinksChannel::read(void* buffer, std::size_t capacity, std::size_t* length) {
  *length = 0;
  if (pending_.empty()) collect();
  std::size_t filled = 0;
  while (!pending_.empty() && pending_.front().size() < capacity - filled) {
    const std::vector<char>& record = pending_.front();
    std::memcpy(static_cast<char*>(buffer) + filled, record.data(), record.size());
    filled += record.size();
    pendingBytes_ -= record.size();
    pending_.pop_front();
  }
  signalRest();
  if (filled == 0 && !pending_.empty()) return KELLIB_ERR_BUFFER_TOO_SMALL;
  *length = filled;
  return 0;
}

int LinksChannel::reset() {
  if (!pending_.empty()) {
    pendingBytes_ -= pending_.front().size();
    pending_.pop_front();
  }
  signalRest();
  return 0;
}

void LinksChannel::collect() {
  if (takeValue(retry_.get())) resync();
  for (int datagram = 0; datagram < kDatagramsPerRead && pendingBytes_ < kPendingBytes; ++datagram) {
    if (!receiveOne()) break;
  }
}

/// False once nothing more is to be received now.
bool LinksChannel::receiveOne() {
  if (notifications_ == nullptr) return false;
  std::size_t length = 0;
  const int status = notifications_->receive({datagram_.get(), kNetlinkDatagramBytes}, &length, {});
  if (status == EAGAIN) return false;
  if (status != 0) {
    recover(status);
    return false;
  }
  failures_ = 0;
  const LinkDatagram datagram = parseLinkDatagram({datagram_.get(), length});
  if (datagram.malformed) logSparsely("links malformed", "links: a notification is malformed, ignoring what is");
  for (const LinkMessage& message : datagram.links) add(table_.apply(message));
  if (!datagram.overrun) return true;
  recover(ENOBUFS);
  return false;
}

/// Notifications were lost: what is queued is out of date, only a look at all links tells.
void LinksChannel::recover(int status) {
  if (status != ENOBUFS && ++failures_ > kReceiveFailures) {
    giveUp(status);
    return;
  }
  logSparsely("links lost", "links: notifications were lost (" + errnoText(status) + "), looking at all links");
  drain();
  resync();
}

void LinksChannel::drain() {
  std::size_t length = 0;
  for (int datagram = 0; datagram < kDatagramsDrained; ++datagram) {
    const int status = notifications_->receive({datagram_.get(), kNetlinkDatagramBytes}, &length, {});
    if (status != 0 && status != ENOBUFS && status != EMSGSIZE) return;
  }
}

void LinksChannel::resync() {
  const auto dump = dumpLinks(*netlink_);
  if (dump.ok()) {
    add(table_.resync(dump.value));
    return;
  }
  logSparsely("links dump", "links: cannot list the links (" + reasonOf(dump.outcome) + "), trying again");
  itimerspec when{};
  when.it_value.tv_sec = kResyncPause.count();
  if (::timerfd_settime(retry_.get(), 0, &when, nullptr) != 0) {
    logSparsely("links timer", "links: cannot set a timer (" + errnoText(errno) + "); the links stay as last seen");
  }
}

void LinksChannel::giveUp(int status) {
  logOnce("links: receiving fails (" + errnoText(status) + "); the channel is idle from now on");
  // Closing alone would leave it polled where a child process holds a copy.
  (void)::epoll_ctl(poll_.get(), EPOLL_CTL_DEL, notifications_->fd(), nullptr);
  notifications_.reset();
}

void LinksChannel::add(const std::vector<LinkChange>& changes) {
  const std::size_t before = pending_.size();
  for (const LinkChange& change : changes) appendLinkRecords(change, pending_);
  for (std::size_t record = before; record < pending_.size(); ++record) pendingBytes_ += pending_[record].size();
}

/// Has the channel poll readable for as long as records wait.
void LinksChannel::signalRest() {
  if (restSignalled_ == !pending_.empty()) return;
  if (pending_.empty()) {
    restSignalled_ = !takeValue(rest_.get());
  } else {
    const std::uint64_t one = 1;
    restSignalled_ = ::write(rest_.get(), &one, sizeof one) == static_cast<ssize_t>(sizeof one);
  }
}

}  // namespace platform
