#include "traceClient.h"

#include <poll.h>

#include <array>

namespace e2e {

TraceLine parseTraceLine(const std::string& raw) {
  TraceLine line;
  line.raw = raw;
  std::size_t from = 0;
  for (std::string* field : {&line.time, &line.direction, &line.stamp, &line.id}) {
    const std::size_t comma = raw.find(',', from);
    if (comma == std::string::npos) return line;
    *field = raw.substr(from, comma - from);
    from = comma + 1;
  }
  line.rest = raw.substr(from - 1);
  return line;
}

TraceClient::TraceClient(const std::string& path) : fd_(localSocket(SOCK_STREAM)) {
  if (const int error = connectLocal(fd_, path); error != 0) {
    errno = error;
    throwErrno("connect " + path);
  }
}

std::string TraceClient::nextRaw(Deadline deadline) {
  std::size_t searched = taken_;
  while (true) {
    if (const std::size_t end = buffer_.find('\n', searched); end != std::string::npos) {
      std::string line = buffer_.substr(taken_, end - taken_);
      taken_ = end + 1;
      if (taken_ > (std::size_t{1} << 20)) {
        buffer_.erase(0, taken_);
        taken_ = 0;
      }
      return line;
    }
    searched = buffer_.size();
    pollfd watched{fd_.get(), POLLIN, 0};
    if (::poll(&watched, 1, deadline.leftMs()) < 0 && errno == EINTR) continue;
    if (watched.revents == 0) throw HarnessError("no trace line in time");
    std::array<char, 65536> piece{};
    const ssize_t got = ::read(fd_.get(), piece.data(), piece.size());
    if (got <= 0) throw HarnessError("the trace connection has ended");
    buffer_.append(piece.data(), static_cast<std::size_t>(got));
  }
}

std::vector<std::string> TraceClient::history(Deadline deadline) {
  std::vector<std::string> lines;
  while (true) {
    std::string line = nextRaw(deadline);
    if (line.empty()) return lines;
    lines.push_back(std::move(line));
  }
}

std::vector<TraceLine> TraceClient::readThrough(const std::string& direction, const std::string& id,
                                                Deadline deadline) {
  std::vector<TraceLine> lines;
  try {
    do lines.push_back(next(deadline));
    while (lines.back().direction != direction || lines.back().id != id);
  } catch (const HarnessError& error) {
    throw HarnessError("waiting for " + direction + " " + id + ": " + error.what());
  }
  return lines;
}

TraceLine TraceClient::waitFor(const std::string& direction, const std::string& id, Deadline deadline) {
  return readThrough(direction, id, deadline).back();
}

void TraceClient::write(const std::string& bytes) {
  if (::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(bytes.size())) {
    throwErrno("send to the trace socket");
  }
}

}  // namespace e2e
