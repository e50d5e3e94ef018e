// What host services and injectors do: send batches of raw records to the daemon.
#pragma once

#include <string>
#include <vector>

#include "descriptor.h"
#include "observation.h"
#include "workspace.h"

namespace e2e {

using Batch = std::vector<char>;
using Arguments = std::vector<KelEmit::Argument>;

/// The time stamp of observations that are given none, microseconds.
inline constexpr std::uint64_t kStampUs = 1'767'225'600'123'456;

/// A batch of one record.
Batch record(const std::string& id, const Arguments& arguments = {}, const std::string& message = {},
             std::uint64_t stampUs = kStampUs);
/// One record of exactly `bytes` bytes.
Batch recordOfSize(const std::string& id, std::size_t bytes);
/// The records of one batch behind those of another.
Batch joined(Batch first, const Batch& second);

/// A connection to one context. Belongs to one thread.
class Emitter {
 public:
  /// Both throw where the daemon does not take the connection.
  static Emitter toContext(const Workspace& workspace, unsigned number = 0);
  static Emitter toUserContext(const Workspace& workspace);

  /// Sends one batch, waiting while the receiver's queue is full.
  void send(const Batch& batch) const;
  void send(const std::string& id, const Arguments& arguments = {}) const { send(record(id, arguments)); }
  /// Returns 0, EAGAIN where the receiver's queue is full, or another errno value.
  [[nodiscard]] int trySend(const Batch& batch) const;
  /// True once the daemon has closed the connection.
  [[nodiscard]] bool closedByPeer(Deadline deadline) const;
  void shutDown(int how) const;
  void hangUp() { fd_.close(); }

 private:
  explicit Emitter(Descriptor fd) : fd_(std::move(fd)) {}

  Descriptor fd_;
};

}  // namespace e2e
