// From the host's outcomes to kernel statuses.
#pragma once

#include "host/host.h"
#include "platform/vsi.h"

namespace platform {

/// The kernel status of an outcome: QK_ERRNO_BASE + n for errno value n; a status that already has a
/// kernel status's form stays as it is; QK_FAILURE for anything else.
QK_ReturnStatus kernelStatus(const Outcome& outcome);

}  // namespace platform
