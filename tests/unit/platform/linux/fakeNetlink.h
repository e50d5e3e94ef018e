// A kernel of the test's making, at the netlink seam.
#pragma once

#include <deque>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "host/uniqueFd.h"
#include "linkRecording.h"
#include "linux/netlinkSocket.h"

namespace linktest {

/// What one receive yields: a datagram, or an errno value.
using Delivery = std::variant<std::vector<char>, int>;

/// Deliveries that wait in a socket; polls readable while there are any.
class Queue {
 public:
  Queue();
  void push(Delivery delivery);
  int take(std::span<char> buffer, std::size_t* length);
  [[nodiscard]] int fd() const { return ready_.get(); }
  [[nodiscard]] std::size_t size() const { return waiting_.size(); }

 private:
  std::deque<Delivery> waiting_;
  platform::UniqueFd ready_;
};

class FakeNetlink final : public platform::Netlink {
 public:
  FakeNetlink() = default;
  /// Answers the first dump and notifies as the recording did.
  explicit FakeNetlink(const std::vector<Frame>& recording);

  platform::Answer<std::unique_ptr<platform::NetlinkSocket>> openRequests() override;
  platform::Answer<std::unique_ptr<platform::NetlinkSocket>> openLinkNotifications() override;

  /// What the next request that has no answer yet is answered with; without one it is met by silence.
  void answer(std::vector<Delivery> deliveries) { answers.push_back(std::move(deliveries)); }
  /// A notification, or a failure to receive one.
  void notify(Delivery delivery) { notifications->push(std::move(delivery)); }

  std::deque<std::vector<Delivery>> answers;
  std::vector<std::vector<char>> requests;  ///< what was sent, in order
  std::shared_ptr<Queue> notifications = std::make_shared<Queue>();
  int refusal = 0;  ///< errno value with which sockets are refused
};

}  // namespace linktest
