// The logger agent, started with the test flag only.
#pragma once

#include "keldAgent.h"

namespace keld {

/// Logs every observation of a fixed list of groups until its stream fails.
void runLogAll(AgentContext& context);

}  // namespace keld
