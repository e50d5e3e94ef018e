// The management agent's end of the event socket: one connection per record, several at once.
#pragma once

#include <poll.h>
#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/uniqueFd.h"

namespace kelctl {

/// Owns the event socket for as long as it lives. Used by one thread.
class EventListener {
 public:
  /// Bytes that one connection may bring; a record has far fewer.
  static constexpr std::size_t kMaxConnectionBytes = 65536;
  /// How long one connection may take. A sender gives up after 5 seconds itself.
  static constexpr std::chrono::seconds kConnectionTime{10};
  static constexpr std::size_t kMaxConnections = 64;

  using Moment = std::chrono::steady_clock::time_point;

  enum class Step {
    record,   ///< one connection has ended in order
    refused,  ///< one connection brought too much, or took too long
    expired,  ///< the time is over
    stopped,  ///< a watched descriptor has something to say
  };

  /// Makes the socket at `path`, owner-only but for the group that platform.conf names, in the place of one
  /// that nobody listens at. Throws Failure where somebody does, or where it cannot be made.
  explicit EventListener(std::string path);
  EventListener(const EventListener&) = delete;
  EventListener& operator=(const EventListener&) = delete;
  /// Removes the socket, unless another one is in its place.
  ~EventListener();

  /// Serves connections until one has brought `bytes`, in the order in which they came as far as
  /// their senders finish in it; until `due`; or until one of `watched` is ready or broken.
  Step next(std::string& bytes, std::optional<Moment> due, const std::vector<pollfd>& watched);

 private:
  struct Connection {
    platform::UniqueFd fd;
    Moment due;
    std::string bytes;
    bool ended = false;
    bool refused = false;
  };

  void bindAndListen();
  std::optional<Step> takeFinished(std::string& bytes);
  [[nodiscard]] std::optional<Moment> nextDue(std::optional<Moment> due) const;
  void acceptOne();
  static void receive(Connection& connection);

  std::string path_;
  platform::UniqueFd listener_;
  dev_t device_ = 0;  // of the socket's file, with inode_
  ino_t inode_ = 0;
  std::list<Connection> connections_;  // in the order in which they came
};

}  // namespace kelctl
