// What became of the batches of a context.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/kellib.h"

namespace platform {

/// Batches since the context was opened; a user context counts those of all its connections.
struct ContextCounters {
  std::uint64_t delivered = 0;
  std::uint64_t malformed = 0;  ///< dropped: breaks the rule of a batch, an empty one included
  std::uint64_t forbidden = 0;  ///< dropped: its sender may not emit what it holds
  std::uint64_t oversized = 0;  ///< dropped: too long to be delivered, or given up by a reset

  bool operator==(const ContextCounters&) const = default;
};

/// The counters of an open context; any thread.
ContextCounters contextCounters(KelLib_Handle handle);

/// The counters as they are kept: written by the reader, read by any thread.
struct CounterCells {
  std::atomic<std::uint64_t> delivered{0};
  std::atomic<std::uint64_t> malformed{0};
  std::atomic<std::uint64_t> forbidden{0};
  std::atomic<std::uint64_t> oversized{0};

  [[nodiscard]] ContextCounters snapshot() const {
    return {delivered.load(std::memory_order_relaxed), malformed.load(std::memory_order_relaxed),
            forbidden.load(std::memory_order_relaxed), oversized.load(std::memory_order_relaxed)};
  }
};

}  // namespace platform
