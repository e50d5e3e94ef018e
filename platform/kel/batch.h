// The rule that a batch must fulfil before the daemon sees it.
#pragma once

#include <cstddef>

namespace platform {

/// Batches of this many bytes and more are never delivered: the daemon's buffer grows no further.
inline constexpr std::size_t kBatchLimitBytes = 131072;

/// Who sent a batch. The unprivileged may emit "kel.user." and "kel.external." only.
enum class Emitter { privileged, unprivileged };

enum class BatchVerdict { sound, malformed, forbidden };

/// Walks the records of a batch: every one a well-formed record with an identifier, together exactly
/// `length` bytes, at least one. One bad record spoils the whole batch.
BatchVerdict checkBatch(const void* batch, std::size_t length, Emitter emitter);

}  // namespace platform
