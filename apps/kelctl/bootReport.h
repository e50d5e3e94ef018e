// What a boot report says of the reason that was recorded before the host went down. Pure functions.
#pragma once

#include <optional>
#include <string>

#include "configstore/read.h"
#include "platform/kelemit.h"

namespace kelctl {

/// The observation that reports a record; without one, that the reason is not known. Always one that
/// fits into a batch: what cannot be said of a record, as its text is too long or holds a NUL, is left
/// unsaid.
KelEmit::Observation bootObservation(const std::optional<platform::StoredObject>& record);

/// The `kelctl emit` line, quoted for bash(1), that emits an observation of strings. Control characters
/// are shown by their codes.
std::string emitLine(const KelEmit::Observation& observation);

}  // namespace kelctl
