// Records gathered into batches, one datagram each.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <vector>

#include "emitWords.h"

namespace kelctl {

/// Keeps records in order. One batch is open at a time; it goes out when it is full, when the next
/// record is for another context, and at flush().
class EmitBatcher {
 public:
  /// A batch is always shorter than this.
  static constexpr std::size_t kBatchLimitBytes = 131072;

  /// Sends one batch into a kernel context; throws Failure where that fails.
  using Send = std::function<void(const EmitTarget&, const std::vector<char>&)>;
  /// Sends one batch to the user-level context, whose library writes the records itself.
  using SendToUser = std::function<void(std::span<const KelEmit::Observation>)>;

  EmitBatcher(Send send, SendToUser sendToUser) : send_(std::move(send)), sendToUser_(std::move(sendToUser)) {}

  /// Why no batch can take `observation`; nothing where one can.
  [[nodiscard]] static std::optional<WordsError> check(const KelEmit::Observation& observation);

  /// Adds one record, which check() has passed; the open batch goes out once it has `perBatch` records.
  void add(const KelEmit::Observation& observation, const EmitTarget& target, std::uint64_t perBatch);
  /// Sends what is gathered.
  void flush();

 private:
  Send send_;
  SendToUser sendToUser_;
  EmitTarget target_;
  std::uint64_t records_ = 0;
  std::vector<char> batch_;
  std::vector<KelEmit::Observation> observations_;  // those of batch_, where it is for the user-level context
  std::vector<char> record_;
};

}  // namespace kelctl
