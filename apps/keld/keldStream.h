// Observation streams: the pipes through which the main thread feeds the agents.
//
// A raw record has its total length, an unsigned 32-bit little-endian value, at offset 16 of a
// header of 32 bytes; its NUL-terminated identifier follows the header.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "keldTrace.h"
#include "platform/kel.h"

namespace keld {

inline constexpr std::size_t kRecordHeaderSize = 32;
inline constexpr std::size_t kRecordLengthOffset = 16;
/// Header, and at least the NUL of an identifier.
inline constexpr std::size_t kSmallestRecord = kRecordHeaderSize + 1;

/// Which observations a stream takes: those below a group prefix, and those named exactly.
class StreamFilter {
 public:
  static constexpr std::size_t kMaxGroups = 10;
  static constexpr std::size_t kMaxIdentifiers = 10;

  /// Adds the prefix "kel.GROUP". Returns 0, or 1 where the filter is full.
  int addGroup(const char* group);
  /// Adds an exact identifier. Returns 0, or 1 where the filter is full.
  int addIdentifier(const char* identifier);
  [[nodiscard]] bool matches(const char* identifier) const;

 private:
  std::vector<std::string> groups_;
  std::vector<std::string> identifiers_;
};

/// One agent's stream. The write end is used by the main thread under the stream lock, all else by
/// the agent's thread.
class ObservationStream {
 public:
  ObservationStream(std::string agentName, StreamFilter filter);
  ObservationStream(const ObservationStream&) = delete;
  ObservationStream& operator=(const ObservationStream&) = delete;
  ~ObservationStream();

  [[nodiscard]] int readFd() const { return readFd_; }
  /// Reads once, after the read end polled readable. Returns 0 with `*complete`, and the
  /// observation where it is true; 1 where the library could not build it; 2 on a read error.
  int read(Kel** observation, bool* complete);

 private:
  friend class StreamList;
  struct Free {
    void operator()(char* memory) const noexcept;
  };

  int fill();
  int readWanted();
  [[nodiscard]] std::uint32_t totalLength() const;

  std::string agentName_;
  StreamFilter filter_;
  int readFd_ = -1;
  int writeFd_ = -1;
  std::unique_ptr<char, Free> partial_;
  std::uint32_t filled_ = 0;
  std::uint32_t wanted_ = 0;
};

/// All open streams. Lock order: the stream lock, then the trace server's; nothing else under
/// either.
class StreamList {
 public:
  explicit StreamList(TraceServer& trace) : trace_(trace) {}
  StreamList(const StreamList&) = delete;
  StreamList& operator=(const StreamList&) = delete;
  ~StreamList() = default;

  /// Returns 0 or the error of making the lock.
  int initialise();
  /// Opens a stream behind all others. Returns 0, 1 (filter copy failed) or 2 (pipe failed).
  int open(const char* agentName, const StreamFilter& filter, std::unique_ptr<ObservationStream>* stream);
  /// Closes a stream, draining it while the main thread may be blocked writing into it. Returns 0,
  /// or 2 where a descriptor could not be closed.
  int close(std::unique_ptr<ObservationStream> stream);
  /// Traces every record of a batch and writes it to each stream that takes it, the oldest first.
  /// A record that is cut or inconsistent drops the rest. Returns 0 or the errno of a failed write.
  int fanOut(const char* batch, std::size_t length);

 private:
  void lock();
  void lockWhileDraining(const ObservationStream& stream);
  void unlock();

  TraceServer& trace_;
  pthread_mutex_t mutex_{};
  std::vector<ObservationStream*> streams_;  // guarded by mutex_; oldest first
};

}  // namespace keld
