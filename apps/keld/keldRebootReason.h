// The reason of the last reboot or power-off, kept where it outlives the host's restart.
#pragma once

#include <string>

#include "platform/clock.h"

namespace keld {

struct RebootReason {
  std::string type;  ///< "REBOOT" or "POWEROFF"
  std::string user;
  std::string subsystem;
  std::string reason;
};

/// Records `reason`, requested at `when` (shown in local time), in the host's configuration store in
/// place of the last one. A store that fails costs the record, without a word: the event that tells of
/// the request has gone out by then. Any thread.
void recordRebootReason(const RebootReason& reason, WallSeconds when);

}  // namespace keld
