// Which agents the daemon starts, and in which order.
#pragma once

#include "keldAgent.h"

namespace keld {

/// Starts every correlator in order and, with the test flag, the logger and the test correlator.
/// Each has finished or failed its initialisation when this returns. Returns 0.
int startAgents(AgentRegistry& agents, bool withTestAgents);

}  // namespace keld
