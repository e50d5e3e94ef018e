// What the self-test sends: the start marker, the 21 observations, the corruption markers with malformed
// batches between them, and the end marker.
#pragma once

#include <cstddef>
#include <vector>

#include "platform/kelemit.h"

namespace kelctl {

using Batch = std::vector<char>;

/// How many observations the daemon compares, and so how many numbered PASS lines a good run has.
inline constexpr std::size_t kSelftestObservations = 21;

/// The observations that the daemon's self-test compares, in its order.
const std::vector<KelEmit::Observation>& selftestObservations();

/// Batches each of which breaks the rule of a batch in a way of its own, so that the observation library
/// drops it whole (docs/formats/observation-record.md). The last one is empty.
std::vector<Batch> malformedBatches();

/// All of it, one batch a message, for one socket: what waits behind a malformed batch is read after it.
std::vector<Batch> selftestBatches();

}  // namespace kelctl
