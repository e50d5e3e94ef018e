#include "keldRow.h"

#include "keldLog.h"

namespace keld {

void logUnreadable(OnUnreadable how, const Kel* observation, int status) {
  const char* id = nullptr;
  Kel_GetID(observation, &id);
  if (how == OnUnreadable::failedToGetParams) Log("Failed to get params for correlation %s: %d\n", id, status);
  if (how == OnUnreadable::failedToCorrelate) Log("Failed to correlate %s: %d\n", id, status);
}

void addIgnored(HandlerTable& handlers, std::span<const Judged> judged) {
  for (const Judged& known : judged) {
    if (known.events.empty()) handlers.emplace(known.observation, [](const Kel*) {});
  }
}

void logUnreadable(const char* text, int status) {
  Log(text, status);
}

}  // namespace keld
