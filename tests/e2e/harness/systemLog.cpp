#include "systemLog.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <regex>

namespace e2e {
namespace {

constexpr const char* kSocket = "/dev/log";
constexpr std::size_t kLongestDatagram = std::size_t{1} << 20;

}  // namespace

LogLine parseLogLine(const std::string& datagram) {
  // syslog(3): <priority>, "Mmm dd hh:mm:ss ", the identity, perhaps [pid], ": ", the message.
  static const std::regex kHead(R"(^<(\d+)>[A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d ([^:\[]+)(\[\d+\])?: )");
  static const std::regex kStamp(R"(^(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z): )");
  LogLine line;
  line.raw = datagram;
  std::string message = datagram;
  std::smatch match;
  if (std::regex_search(datagram, match, kHead)) {
    line.priority = std::stoi(match[1]);
    line.tag = match[2];
    message = match.suffix();
  }
  if (!message.empty() && message.back() == '\n') {
    line.lineFeed = true;
    message.pop_back();
  }
  line.text = message;
  const std::string beginning = message.substr(0, 32);
  if (std::regex_search(beginning, match, kStamp)) {
    line.stamp = match[1];
    line.text = message.substr(static_cast<std::size_t>(match.length(0)));
  }
  return line;
}

SystemLog::SystemLog() : socket_(localSocket(SOCK_DGRAM)), stop_(::eventfd(0, EFD_CLOEXEC)) {
  if (!stop_) throwErrno("eventfd");
  bindLocal(socket_, kSocket);
  ::chmod(kSocket, 0666);
  drainer_ = std::thread([this] { drain(); });
}

SystemLog::~SystemLog() {
  const std::uint64_t one = 1;
  if (::write(stop_.get(), &one, sizeof one) == sizeof one) drainer_.join();
  ::unlink(kSocket);
}

void SystemLog::drain() {
  std::vector<char> buffer(kLongestDatagram);
  std::array<pollfd, 2> watched{{{socket_.get(), POLLIN, 0}, {stop_.get(), POLLIN, 0}}};
  while (true) {
    if (::poll(watched.data(), watched.size(), -1) < 0) continue;
    if (watched[0].revents != 0) {
      const ssize_t got = ::recv(socket_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
      if (got > 0) take(std::string(buffer.data(), static_cast<std::size_t>(got)));
    } else if (watched[1].revents != 0) {
      return;
    }
  }
}

void SystemLog::take(const std::string& datagram) {
  LogLine line = parseLogLine(datagram);
  const std::lock_guard lock(mutex_);
  lines_.push_back(std::move(line));
  arrived_.notify_all();
}

std::vector<LogLine> SystemLog::lines() const {
  const std::lock_guard lock(mutex_);
  return lines_;
}

std::vector<std::string> SystemLog::texts() const {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> texts;
  for (const LogLine& line : lines_) {
    if (!line.stamp.empty()) texts.push_back(line.text);
  }
  return texts;
}

std::size_t SystemLog::count(const std::string& text) const {
  return count([&](const LogLine& line) { return line.text == text; });
}

std::size_t SystemLog::count(const Predicate& fits) const {
  const std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(std::count_if(lines_.begin(), lines_.end(), fits));
}

LogLine SystemLog::waitFor(const std::string& text, std::size_t nth, Deadline deadline) {
  return waitFor(
      "\"" + text + "\"", [&](const LogLine& line) { return line.text == text; }, nth, deadline);
}

LogLine SystemLog::waitFor(const std::string& what, const Predicate& fits, std::size_t nth, Deadline deadline) {
  std::unique_lock lock(mutex_);
  std::size_t seen = 0, at = 0;
  while (true) {
    for (; at < lines_.size(); ++at) {
      if (fits(lines_[at]) && ++seen == nth) return lines_[at];
    }
    if (deadline.passed()) throw HarnessError("not in the system log in time: " + what);
    arrived_.wait_until(lock, deadline.end());
  }
}

}  // namespace e2e
