#include "keldLogAll.h"

#include <cstdlib>

#include "keldLog.h"
#include "platform/str.h"

namespace keld {

void runLogAll(AgentContext& context) {
  // Kept: one group more than a filter holds, so that this agent always ends at its initialisation.
  static constexpr const char* kGroups[] = {"user", "internal", "external", "net",  "scsi",   "cvfs",
                                            "cpu",  "hardware", "mem",      "test", "migrate"};
  char* formatted = Str_Asprintf(nullptr, "%sLogger", "LogAll");
  const std::string name = formatted != nullptr ? formatted : "LogAll";
  std::free(formatted);

  AgentScope agent(context.streams);
  if (agent.initialise(name, kGroups, {}) != 0) return;
  context.start.settle();
  Kel* observation = nullptr;
  while (agent.waitNext(&observation) == 0) {
    logObservation(observation);
    Kel_Free(observation);
  }
}

}  // namespace keld
