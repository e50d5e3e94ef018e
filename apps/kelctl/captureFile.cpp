#include "captureFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "console.h"
#include "failure.h"
#include "host/files.h"
#include "traceLine.h"

namespace kelctl {

namespace {

constexpr const char* kStandardOutput = "-";
constexpr std::size_t kChunkBytes = 65536;

template <typename Call>
auto retryInterrupted(Call call) {
  auto result = call();
  while (result < 0 && errno == EINTR) result = call();
  return result;
}

}  // namespace

CaptureFile::CaptureFile(CaptureFileOptions options, std::function<std::string()> header)
    : options_(std::move(options)), header_(std::move(header)) {
  if (options_.path == kStandardOutput) {
    openStandardOutput();
  } else {
    openFile();
  }
  addHere(header_());
  headerBytes_ = size_ + buffer_.size();
  flush();
}

int CaptureFile::outputFd() const {
  return options_.path == kStandardOutput ? fd_.get() : -1;
}

void CaptureFile::openStandardOutput() {
  fd_.reset(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0));
  if (!fd_) throw Failure("cannot use standard output: " + platform::errnoText(errno));
}

void CaptureFile::openFile() {
  constexpr mode_t kOwnerOnly = 0600;
  int flags = O_CREAT | O_CLOEXEC | O_NOCTTY | O_APPEND;
  flags |= options_.append ? O_RDWR : O_WRONLY;
  if (!options_.append && !options_.force) flags |= O_EXCL;
  platform::UniqueFd fd(retryInterrupted([&] { return ::open(options_.path.c_str(), flags, kOwnerOnly); }));
  if (!fd && errno == EEXIST) {
    throw Failure(fmt::format("{} is there already; --append adds to it, --force replaces it", options_.path));
  }
  if (!fd) throw Failure(fmt::format("cannot make {}: {}", options_.path, platform::errnoText(errno)));
  adopt(std::move(fd));
  if (!regular_) return;
  if (options_.append) cutTornLine();
  if (!options_.force) return;
  if (::fchmod(fd_.get(), kOwnerOnly) != 0 || ::ftruncate(fd_.get(), 0) != 0) {
    throw Failure(fmt::format("cannot replace {}: {}", options_.path, platform::errnoText(errno)));
  }
  size_ = 0;
}

void CaptureFile::adopt(platform::UniqueFd fd) {
  struct stat facts {};
  if (::fstat(fd.get(), &facts) != 0) {
    throw Failure(fmt::format("cannot use {}: {}", options_.path, platform::errnoText(errno)));
  }
  regular_ = S_ISREG(facts.st_mode);
  if (!regular_ && (options_.append || options_.rotateBytes)) {
    throw Failure(options_.path + " is no regular file: it takes neither --append nor --rotate");
  }
  // Two captures in one file would take its size for their own.
  if (regular_ && ::flock(fd.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
    throw Failure("another capture writes to " + options_.path);
  }
  fd_ = std::move(fd);
  size_ = regular_ ? static_cast<std::uint64_t>(facts.st_size) : 0;
}

// With a line feed added, half a line could read as another one. Whether a line feed ends the last line shows
// only from the first one on: strings may hold some.
void CaptureFile::cutTornLine() {
  TraceSplitter splitter;
  bool first = true;
  const auto take = [&](std::string_view entry) {
    if (first && !entry.starts_with('#') && !parseTraceLine(entry)) {
      throw Failure(options_.path + " is no capture, so nothing is added to it");
    }
    first = false;
    return true;
  };
  char chunk[kChunkBytes];
  off_t at = 0;
  while (const ssize_t got = retryInterrupted([&] { return ::pread(fd_.get(), chunk, sizeof chunk, at); })) {
    if (got < 0) throw Failure(fmt::format("cannot read {}: {}", options_.path, platform::errnoText(errno)));
    splitter.feed(std::string_view(chunk, static_cast<std::size_t>(got)), take);
    at += got;
  }
  size_ = static_cast<std::uint64_t>(at) - splitter.pending();
  if (splitter.pending() == 0) return;
  if (first) throw Failure(options_.path + " is no capture, so nothing is added to it");
  if (::ftruncate(fd_.get(), static_cast<off_t>(size_)) != 0) {
    throw Failure(fmt::format("cannot cut {}: {}", options_.path, platform::errnoText(errno)));
  }
  complain(fmt::format("{}: cut off {} bytes of a line that was not finished", options_.path, splitter.pending()));
}

void CaptureFile::add(std::string_view line) {
  const std::uint64_t size = size_ + buffer_.size();
  if (options_.rotateBytes && size >= *options_.rotateBytes && size > headerBytes_) rotate();
  addHere(line);
}

void CaptureFile::addHere(std::string_view line) {
  buffer_ += line;
  ends_.push_back(buffer_.size());
}

std::string CaptureFile::older(std::uint64_t number) const {
  return fmt::format("{}.{}", options_.path, number);
}

void CaptureFile::rotate() {
  flush();
  for (std::uint64_t number = options_.keep; number > 0; --number) {
    const std::string from = number == 1 ? options_.path : older(number - 1);
    if (std::rename(from.c_str(), older(number).c_str()) == 0 || errno == ENOENT) continue;
    throw Failure(fmt::format("cannot rename {}: {}", from, platform::errnoText(errno)));
  }
  // The next one is nobody's yet, whatever was asked of the first.
  options_.force = false;
  options_.append = false;
  openFile();
  addHere(header_());
  headerBytes_ = size_ + buffer_.size();
}

void CaptureFile::flush() {
  std::size_t written = 0;
  while (written < buffer_.size()) {
    const ssize_t put = ::write(fd_.get(), buffer_.data() + written, buffer_.size() - written);
    if (put > 0) {
      written += static_cast<std::size_t>(put);
    } else if (put < 0 && errno == EAGAIN) {
      pollfd full{fd_.get(), POLLOUT, 0};
      (void)::poll(&full, 1, -1);
    } else if (put == 0 || errno != EINTR) {
      fail(put == 0 ? ENOSPC : errno, written);
    }
  }
  size_ += buffer_.size();
  buffer_.clear();
  ends_.clear();
}

void CaptureFile::fail(int error, std::size_t written) {
  if (error == EPIPE) throw OutputClosed();
  const auto beyond = std::upper_bound(ends_.begin(), ends_.end(), written);
  const std::size_t whole = beyond == ends_.begin() ? 0 : *std::prev(beyond);
  const char* left = "";
  if (regular_) {
    const bool cut = ::ftruncate(fd_.get(), static_cast<off_t>(size_ + whole)) == 0;
    left = cut ? "; the capture ends with the last line that fits" : "; its last line is cut";
  }
  throw Failure(fmt::format("cannot write to {}: {}{}",
                            options_.path == kStandardOutput ? "standard output" : options_.path,
                            platform::errnoText(error), left));
}

}  // namespace kelctl
