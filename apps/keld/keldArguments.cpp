#include "keldArguments.h"

#include "keldLog.h"

namespace keld {

const char* identifierOf(const Kel* observation) {
  const char* id = nullptr;
  Kel_GetID(observation, &id);
  if (id == nullptr) Log("FAIL: Received NULL kelID\n");
  return id;
}

}  // namespace keld
