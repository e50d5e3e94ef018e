// The channel that turns the kernel's notifications about links into observations.
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <memory>
#include <vector>

#include "host/host.h"
#include "host/uniqueFd.h"
#include "linux/linkTable.h"
#include "linux/netlinkSocket.h"

namespace platform {

/// After how long the links are looked at again where looking failed.
inline constexpr std::chrono::seconds kResyncPause{1};
/// Receive errors in a row after which the channel gives its source up.
inline constexpr int kReceiveFailures = 16;

/// Appends the observations of one change to `records`, each a raw record: the link's own, then one
/// per port group.
void appendLinkRecords(const LinkChange& change, std::deque<std::vector<char>>& records);

/// Channel "links". Read by one thread.
class LinksChannel final : public Channel {
 public:
  /// Subscribes, then learns how the links are. Fails where descriptors run out; where the kernel has
  /// no netlink the channel is idle and the log says so once.
  static Answer<std::unique_ptr<Channel>> open(std::shared_ptr<Netlink> netlink, LinkPolicy policy);

  [[nodiscard]] int fd() const override { return poll_.get(); }
  /// As many whole records as fit, together smaller than `capacity`; the rest stays to be read. Length
  /// 0 where nothing that happened is to be observed. KELLIB_ERR_BUFFER_TOO_SMALL where not even the
  /// first record fits.
  int read(void* buffer, std::size_t capacity, std::size_t* length) override;
  /// Drops the records that wait.
  int reset() override;
  [[nodiscard]] const char* name() const override { return "links"; }

 private:
  LinksChannel(std::shared_ptr<Netlink> netlink, LinkPolicy policy);

  int makeDescriptors();
  int watch(int fd);
  void subscribe();
  void collect();
  bool receiveOne();
  void recover(int status);
  void drain();
  void resync();
  void giveUp(int status);
  void add(const std::vector<LinkChange>& changes);
  void signalRest();

  std::shared_ptr<Netlink> netlink_;
  LinkTable table_;
  std::unique_ptr<NetlinkSocket> notifications_;  ///< none: the channel is idle
  std::unique_ptr<char[]> datagram_;
  std::deque<std::vector<char>> pending_;  ///< raw records, oldest first
  std::size_t pendingBytes_ = 0;
  int failures_ = 0;
  bool restSignalled_ = false;
  UniqueFd poll_;   ///< epoll(7) over the three sources, for it never reports a bare error
  UniqueFd rest_;   ///< eventfd(2), readable while records wait
  UniqueFd retry_;  ///< timerfd_create(2), when to look at the links again
};

}  // namespace platform
