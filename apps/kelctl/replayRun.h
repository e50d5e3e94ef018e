// A capture's file, run from beginning to end.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "replayEngine.h"

namespace kelctl {

struct ReplayInput {
  std::optional<std::string> content;  ///< the capture itself, called by the name of `file`
  std::string file;                    ///< "-": standard input
  std::optional<std::string> host;     ///< "model:FILE", in the place of what the capture says of the host
  Json options = Json::object();       ///< go before all others
  std::optional<WallTime> until;       ///< the capture ends there
  std::optional<double> speed;         ///< so many times as fast as it happened; as fast as can be without
  bool strict = false;                 ///< the first line that cannot be read ends the replay
  bool progress = false;               ///< say on standard error how far it is
};

/// Called with each item after it was run.
using SeeItem = std::function<void(const CaptureItem&)>;

/// Runs it. Lines that cannot be read or run are left out, each with a complaint on standard error, at most
/// twenty of them. Returns how many there were. Throws Failure where the file cannot be read or, being strict,
/// at the first bad line; OutputClosed as `see` and the watcher do.
std::uint64_t replay(const ReplayInput& input, ReplayWatcher& watcher, const SeeItem& see = {});

/// Reads "GROUP/NAME=VALUE" into an object of options. Throws UsageError.
void addOption(Json& options, const std::string& text);

/// Reads a moment: seconds since the epoch with or without a fraction, or UTC as "2026-01-01T00:00:00Z", the
/// time of day as short as one likes. Throws UsageError, naming `option`.
WallTime parseTime(const std::string& option, const std::string& text);

}  // namespace kelctl
