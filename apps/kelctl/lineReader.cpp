#include "lineReader.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

#include "failure.h"
#include "host/files.h"

namespace kelctl {

LineReader::Fill LineReader::fill() {
  constexpr std::size_t kChunkBytes = 65536;
  buffer_.erase(0, begin_);
  begin_ = 0;
  while (true) {
    pollfd set[] = {{fd_, POLLIN, 0}, {stop_.fd(), POLLIN, 0}};
    if (::poll(set, 2, -1) < 0) {
      if (errno == EINTR) continue;
      throw Failure("cannot wait for input: " + platform::errnoText(errno));
    }
    if (set[1].revents != 0) return Fill::stopped;
    char chunk[kChunkBytes];
    const ssize_t got = ::read(fd_, chunk, sizeof chunk);
    if (got > 0) {
      buffer_.append(chunk, static_cast<std::size_t>(got));
      return Fill::some;
    }
    if (got == 0) return Fill::end;
    if (errno != EINTR && errno != EAGAIN) throw Failure("cannot read: " + platform::errnoText(errno));
  }
}

LineReader::Step LineReader::next(std::string& line) {
  std::size_t searched = begin_;
  while (true) {
    const std::size_t end = buffer_.find('\n', searched);
    if (end != std::string::npos || ended_) {
      const std::size_t length = std::min(end, buffer_.size()) - begin_;
      if (end == std::string::npos && length == 0 && !skipping_) return Step::end;
      const bool tooLong = skipping_ || length > kMaxLineBytes;
      if (!tooLong) line.assign(buffer_, begin_, length);
      begin_ = std::min(end, buffer_.size() - 1) + 1;
      skipping_ = false;
      return tooLong ? Step::tooLong : Step::line;
    }
    if (buffer_.size() - begin_ > kMaxLineBytes) {
      skipping_ = true;
      begin_ = buffer_.size();
    }
    searched = buffer_.size() - begin_;
    const Fill filled = fill();
    if (filled == Fill::stopped) return Step::stopped;
    ended_ = filled == Fill::end;
  }
}

}  // namespace kelctl
