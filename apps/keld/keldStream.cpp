#include "keldStream.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "keldLog.h"

namespace keld {

namespace {

constexpr int kIncomplete = 11;
constexpr int kOutOfMemory = 12;
/// How long an agent that ends waits for more to drain before it tries for the stream lock again.
constexpr int kDrainPollMilliseconds = 5;

std::uint32_t recordLength(const char* record) {
  std::uint32_t length = 0;
  std::memcpy(&length, record + kRecordLengthOffset, sizeof length);
  return length;
}

/// Writes a whole record, going on where a write is interrupted or short. Returns 0 or the errno.
int writeWhole(int fd, const char* data, std::size_t length) {
  while (length != 0) {
    const ssize_t written = write(fd, data, length);
    if (written < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    data += written;
    length -= static_cast<std::size_t>(written);
  }
  return 0;
}

}  // namespace

int StreamFilter::addGroup(const char* group) {
  if (groups_.size() >= kMaxGroups) return 1;
  groups_.push_back(std::string("kel.") + group);
  return 0;
}

int StreamFilter::addIdentifier(const char* identifier) {
  if (identifiers_.size() >= kMaxIdentifiers) return 1;
  identifiers_.emplace_back(identifier);
  return 0;
}

bool StreamFilter::matches(const char* identifier) const {
  const auto below = [identifier](const std::string& prefix) {
    return std::strncmp(identifier, prefix.c_str(), prefix.size()) == 0 && identifier[prefix.size()] == '.';
  };
  const auto same = [identifier](const std::string& exact) { return Kel_IsID(identifier, exact.c_str()); };
  return std::ranges::any_of(groups_, below) || std::ranges::any_of(identifiers_, same);
}

void ObservationStream::Free::operator()(char* memory) const noexcept {
  std::free(memory);
}

ObservationStream::ObservationStream(std::string agentName, StreamFilter filter)
    : agentName_(std::move(agentName)), filter_(std::move(filter)) {}

ObservationStream::~ObservationStream() {
  if (readFd_ >= 0) ::close(readFd_);
  if (writeFd_ >= 0) ::close(writeFd_);
}

std::uint32_t ObservationStream::totalLength() const {
  return recordLength(partial_.get());
}

// One read towards what is wanted. Returns 0 once it is all there.
int ObservationStream::readWanted() {
  ssize_t got = 0;
  do {
    got = ::read(readFd_, partial_.get() + filled_, wanted_);
  } while (got < 0 && errno == EINTR);
  if (got < 0) return errno;
  if (got == 0) {
    Panic("EOF trying to read %d bytes from stream %p\n", static_cast<int>(wanted_), static_cast<void*>(this));
  }
  filled_ += static_cast<std::uint32_t>(got);
  wanted_ -= static_cast<std::uint32_t>(got);
  return wanted_ == 0 ? 0 : kIncomplete;
}

int ObservationStream::fill() {
  if (!partial_) {
    partial_.reset(static_cast<char*>(std::malloc(kRecordHeaderSize)));
    if (!partial_) return kOutOfMemory;
    filled_ = 0;
    wanted_ = kRecordHeaderSize;
  }
  if (filled_ < kRecordHeaderSize) {
    if (const int status = readWanted(); status != 0) return status;
  }
  if (filled_ == kRecordHeaderSize) {
    const std::uint32_t total = totalLength();
    char* grown = static_cast<char*>(std::realloc(partial_.get(), total));
    if (grown == nullptr) return kOutOfMemory;
    static_cast<void>(partial_.release());
    partial_.reset(grown);
    wanted_ = total - static_cast<std::uint32_t>(kRecordHeaderSize);
  }
  return readWanted();
}

int ObservationStream::read(Kel** observation, bool* complete) {
  *complete = false;
  const int status = fill();
  if (status == kIncomplete) return 0;
  if (status != 0) return 2;
  Kel* made = Kel_MakeKel(partial_.get(), totalLength());
  if (made == nullptr) return 1;
  static_cast<void>(partial_.release());
  *observation = made;
  *complete = true;
  return 0;
}

int StreamList::initialise() {
  return pthread_mutex_init(&mutex_, nullptr);
}

void StreamList::lock() {
  if (const int error = pthread_mutex_lock(&mutex_); error != 0) {
    Panic("Failed to acquire stream lock: %s\n", std::strerror(error));
  }
}

void StreamList::unlock() {
  if (const int error = pthread_mutex_unlock(&mutex_); error != 0) {
    Panic("Failed to release stream lock: %s\n", std::strerror(error));
  }
}

// The main thread holds the lock while it writes into this very pipe, which may be full.
void StreamList::lockWhileDraining(const ObservationStream& stream) {
  char discarded[4096];
  for (int error = pthread_mutex_trylock(&mutex_); error != 0; error = pthread_mutex_trylock(&mutex_)) {
    if (error != EBUSY) Panic("Failed to acquire stream lock: %s\n", std::strerror(error));
    pollfd readable{stream.readFd_, POLLIN, 0};
    if (poll(&readable, 1, kDrainPollMilliseconds) > 0 && read(stream.readFd_, discarded, sizeof discarded) < 0 &&
        errno != EINTR) {
      return lock();
    }
  }
}

int StreamList::open(const char* agentName, const StreamFilter& filter, std::unique_ptr<ObservationStream>* stream) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return 2;
  try {
    *stream = std::make_unique<ObservationStream>(agentName, filter);
    (*stream)->readFd_ = ends[0];
    (*stream)->writeFd_ = ends[1];
  } catch (const std::bad_alloc&) {
    ::close(ends[0]);
    ::close(ends[1]);
    return 1;
  }
  lock();
  try {
    streams_.push_back(stream->get());
  } catch (const std::bad_alloc&) {
    unlock();
    stream->reset();
    return 1;
  }
  unlock();
  return 0;
}

int StreamList::close(std::unique_ptr<ObservationStream> stream) {
  lockWhileDraining(*stream);
  std::erase(streams_, stream.get());
  int status = ::close(std::exchange(stream->readFd_, -1));
  if (status == 0) status = ::close(std::exchange(stream->writeFd_, -1));
  unlock();
  return status == 0 ? 0 : 2;
}

int StreamList::fanOut(const char* batch, std::size_t length) {
  lock();
  int status = 0;
  while (status == 0 && length >= kSmallestRecord) {
    const std::size_t total = recordLength(batch);
    if (total < kSmallestRecord || total > length) break;
    const char* id = batch + kRecordHeaderSize;
    if (std::memchr(id, '\0', total - kRecordHeaderSize) == nullptr) break;
    trace_.Trace_Observation(batch, total);
    for (ObservationStream* stream : streams_) {
      if (!stream->filter_.matches(id)) continue;
      status = writeWhole(stream->writeFd_, batch, total);
      if (status != 0) break;
    }
    batch += total;
    length -= total;
  }
  unlock();
  return status;
}

}  // namespace keld
