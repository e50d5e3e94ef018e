#include "fakeNetlink.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <stdexcept>

namespace linktest {

namespace {

using platform::NetlinkSocket;

class FakeRequests final : public NetlinkSocket {
 public:
  explicit FakeRequests(FakeNetlink& netlink) : netlink_(netlink) {}

  [[nodiscard]] int fd() const override { return queue_.fd(); }

  int send(std::span<const char> request) override {
    netlink_.requests.emplace_back(request.begin(), request.end());
    if (netlink_.answers.empty()) return 0;
    for (Delivery& delivery : netlink_.answers.front()) queue_.push(std::move(delivery));
    netlink_.answers.pop_front();
    return 0;
  }

  int receive(std::span<char> buffer, std::size_t* length, std::chrono::milliseconds) override {
    return queue_.take(buffer, length);
  }

 private:
  FakeNetlink& netlink_;
  Queue queue_;
};

class FakeNotifications final : public NetlinkSocket {
 public:
  explicit FakeNotifications(std::shared_ptr<Queue> queue) : queue_(std::move(queue)) {}

  [[nodiscard]] int fd() const override { return queue_->fd(); }
  int send(std::span<const char>) override { return EOPNOTSUPP; }
  int receive(std::span<char> buffer, std::size_t* length, std::chrono::milliseconds) override {
    return queue_->take(buffer, length);
  }

 private:
  std::shared_ptr<Queue> queue_;
};

}  // namespace

Queue::Queue() : ready_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE)) {
  if (!ready_) throw std::runtime_error("eventfd");
}

void Queue::push(Delivery delivery) {
  waiting_.push_back(std::move(delivery));
  const std::uint64_t one = 1;
  if (::write(ready_.get(), &one, sizeof one) != sizeof one) throw std::runtime_error("eventfd");
}

int Queue::take(std::span<char> buffer, std::size_t* length) {
  if (waiting_.empty()) return EAGAIN;
  std::uint64_t one = 0;
  if (::read(ready_.get(), &one, sizeof one) != sizeof one) throw std::runtime_error("eventfd");
  const Delivery delivery = std::move(waiting_.front());
  waiting_.pop_front();
  if (const int* const status = std::get_if<int>(&delivery)) return *status;
  const auto& datagram = std::get<std::vector<char>>(delivery);
  if (datagram.size() > buffer.size()) return EMSGSIZE;
  std::copy(datagram.begin(), datagram.end(), buffer.begin());
  *length = datagram.size();
  return 0;
}

FakeNetlink::FakeNetlink(const std::vector<Frame>& recording) {
  std::vector<Delivery> dump;
  for (const Frame& frame : recording) {
    if (frame.kind == Frame::kDump) {
      dump.emplace_back(frame.bytes);
    } else {
      notify(frame.bytes);
    }
  }
  answer(std::move(dump));
}

platform::Answer<std::unique_ptr<NetlinkSocket>> FakeNetlink::openRequests() {
  if (refusal != 0) return {{refusal, {}}, {}};
  return {{}, std::make_unique<FakeRequests>(*this)};
}

platform::Answer<std::unique_ptr<NetlinkSocket>> FakeNetlink::openLinkNotifications() {
  if (refusal != 0) return {{refusal, {}}, {}};
  return {{}, std::make_unique<FakeNotifications>(notifications)};
}

}  // namespace linktest
