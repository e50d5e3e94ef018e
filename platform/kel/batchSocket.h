// A socket on which batches arrive, one a message: a kernel context's injection socket or a host
// service's connection.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/host.h"
#include "kel/counters.h"
#include "kel/dropLog.h"

namespace platform {

/// Reads a socket under the rules of KelLib_ReadFromFd: what breaks the rule of a batch or is not
/// allowed to its sender is consumed, counted and mentioned in the log, and what waits behind it is
/// looked at. A read is one system call for each batch and allocates nothing for one that fits. A
/// batch that the reader's buffer has no room for is kept here, off the socket, until it is read or
/// reset: a reader that is answered KELLIB_ERR_BUFFER_TOO_SMALL does either before it waits for input
/// again. One thread.
class BatchSocket final : public Channel {
 public:
  enum class Kind { injection, connection };

  /// Drops in one read, after which the caller sees to its other descriptors first. A connection whose
  /// peer is gone is read to its end instead: its reader closes it as soon as a read brings nothing.
  static constexpr int kDropsPerRead = 64;

  /// `fd` stays the caller's, is non-blocking and tells the credentials of senders.
  BatchSocket(int fd, Kind kind, std::string name, std::shared_ptr<CounterCells> counters);

  [[nodiscard]] int fd() const override { return fd_; }
  int read(void* buffer, std::size_t capacity, std::size_t* length) override;
  int reset() override;
  [[nodiscard]] const char* name() const override { return name_.c_str(); }

 private:
  enum class Step { finished, dropped };
  struct Kept {
    std::size_t length = 0;
    BatchSender sender;
    std::vector<char> bytes;  ///< empty where it is longer than any reader's buffer
  };

  Step take(void* buffer, std::size_t capacity, std::size_t* length, int* status);
  Step takeKept(void* buffer, std::size_t capacity, std::size_t* length, int* status);
  void keep(const void* buffer, std::size_t capacity, std::size_t length, const BatchSender& sender);
  Step deliver(const void* batch, std::size_t size, const BatchSender& sender, std::size_t* length);
  Step judge(const void* batch, std::size_t length, const BatchSender& sender);
  void recordDrop(std::atomic<std::uint64_t>& counter, const char* why, std::size_t length, const BatchSender& sender);
  [[nodiscard]] bool peerIsGone() const;

  int fd_;
  Kind kind_;
  uid_t ownUser_;
  std::string name_;
  std::shared_ptr<CounterCells> counters_;
  std::optional<Kept> kept_;
};

}  // namespace platform
