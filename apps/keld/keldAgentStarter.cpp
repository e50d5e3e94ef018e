#include "keldAgentStarter.h"

#include "keldCorrelator.h"
#include "keldLogAll.h"
#include "keldTestCorrelator.h"

namespace keld {

int startAgents(AgentRegistry& agents, bool withTestAgents) {
  for (const CorrelatorInfo* correlator : correlators()) agents.start(correlator->entry);
  if (withTestAgents) {
    agents.start(runLogAll);
    agents.start(kTestCorrelator.entry);
  }
  return 0;
}

}  // namespace keld
