#include "eventReceiver.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>

#include <array>

namespace e2e {
namespace {

Descriptor listenAt(const std::string& path, int backlog) {
  Descriptor listener = localSocket(SOCK_STREAM);
  bindLocal(listener, path);
  if (::listen(listener.get(), backlog) != 0) throwErrno("listen " + path);
  return listener;
}

std::string readToEnd(const Descriptor& connection) {
  std::string bytes;
  std::array<char, 65536> piece{};
  ssize_t got = 0;
  while ((got = ::read(connection.get(), piece.data(), piece.size())) > 0 || (got < 0 && errno == EINTR)) {
    if (got > 0) bytes.append(piece.data(), static_cast<std::size_t>(got));
  }
  return bytes;
}

}  // namespace

EventReceiver::EventReceiver(std::string path)
    : path_(std::move(path)), listener_(listenAt(path_, SOMAXCONN)), stop_(::eventfd(0, EFD_CLOEXEC)) {
  if (!stop_) throwErrno("eventfd");
  receiver_ = std::thread([this] { receive(); });
}

EventReceiver::~EventReceiver() {
  const std::uint64_t one = 1;
  if (::write(stop_.get(), &one, sizeof one) == sizeof one) receiver_.join();
  ::unlink(path_.c_str());
}

void EventReceiver::receive() {
  std::array<pollfd, 2> watched{{{listener_.get(), POLLIN, 0}, {stop_.get(), POLLIN, 0}}};
  while (true) {
    if (::poll(watched.data(), watched.size(), -1) < 0) continue;
    if (watched[1].revents != 0) return;
    const Descriptor connection(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!connection) continue;
    std::string bytes = readToEnd(connection);
    const std::lock_guard lock(mutex_);
    connections_.push_back(std::move(bytes));
    arrived_.notify_all();
  }
}

std::vector<std::string> EventReceiver::connections() const {
  const std::lock_guard lock(mutex_);
  return connections_;
}

std::vector<EventRecord> EventReceiver::waitForCount(std::size_t count, Deadline deadline) {
  std::unique_lock lock(mutex_);
  if (!arrived_.wait_until(lock, deadline.end(), [&] { return connections_.size() >= count; })) {
    throw HarnessError("events received in time: " + std::to_string(connections_.size()) + " of " +
                       std::to_string(count));
  }
  std::vector<EventRecord> records;
  for (std::size_t n = 0; n < count; ++n) records.push_back(decodeEventRecord(connections_[n]));
  return records;
}

EventRecord EventReceiver::waitFor(const std::string& name, Deadline deadline) {
  std::unique_lock lock(mutex_);
  for (std::size_t at = 0;; arrived_.wait_until(lock, deadline.end())) {
    for (; at < connections_.size(); ++at) {
      EventRecord record = decodeEventRecord(connections_[at]);
      if (record.name == name) return record;
    }
    if (deadline.passed()) throw HarnessError("event not received in time: " + name);
  }
}

StalledReceiver::StalledReceiver(std::string path) : path_(std::move(path)), listener_(listenAt(path_, 0)) {
  while (true) {
    Descriptor connection = localSocket(SOCK_STREAM | SOCK_NONBLOCK);
    if (const int error = connectLocal(connection, path_); error == EAGAIN) return;
    waiting_.push_back(std::move(connection));
  }
}

StalledReceiver::~StalledReceiver() {
  ::unlink(path_.c_str());
}

}  // namespace e2e
