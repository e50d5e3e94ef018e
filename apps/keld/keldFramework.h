// What all correlators share: tables of handlers, dispatch, and the loop of a correlator's thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "keldAgent.h"
#include "keldAside.h"
#include "keldDecision.h"
#include "keldPost.h"
#include "keldTimer.h"
#include "platform/clock.h"
#include "platform/kel.h"

namespace keld {

/// Takes one observation, which stays the caller's.
using Handler = std::function<void(const Kel*)>;
/// Full identifiers ("kel.net.firewall.disabled") and their handlers; never changed once built.
using HandlerTable = std::map<std::string, Handler, std::less<>>;

/// What a correlator is given; everything outlives it.
struct Services {
  Clock& clock;
  Post& post;
  Timers& timers;
  Aside* aside = nullptr;                 ///< none: such work is done at once
  DecisionListener* decisions = nullptr;  ///< none: nobody asks why

  /// Has work done that would hold up the caller's thread, unless more of it comes before.
  void doAside(std::function<void()> work) const {
    if (aside != nullptr) {
      aside->doLatest(std::move(work));
    } else {
      work();
    }
  }
  /// Seconds of the host's clock since the epoch, for hold-offs.
  [[nodiscard]] std::int64_t nowSeconds() const { return clock.wallSeconds().time_since_epoch().count(); }
};

/// Default handlers of the two kinds.
void ignoreObservation(const Kel* observation);
void reportUnknownObservation(const Kel* observation);

/// Hands an observation to the handler of its identifier, logging it first, or to `fallback`.
/// Standard exceptions of a handler end here.
void dispatchObservation(const Handler& fallback, const HandlerTable& handlers, const Kel* observation);

/// Runs a correlator on the calling agent thread until the agent is stopped or its stream fails:
/// subscribes to "kel.GROUP" for each group and to the exact identifiers, and dispatches.
void runCorrelator(AgentContext& context, const char* nameWord, std::span<const char* const> groups,
                   std::span<const char* const> identifiers, const Handler& fallback, const HandlerTable& handlers);
void runCorrelator(AgentContext& context, const char* nameWord, const char* group, const Handler& fallback,
                   const HandlerTable& handlers);

/// As runCorrelator; calls `wake`, never at the same time as a handler, whenever one of `extra`
/// (descriptors to poll, at most 4) is readable, after draining up to 10 bytes of the first.
void runCorrelatorWithWakeup(AgentContext& context, const char* nameWord, const char* group, const Handler& fallback,
                             const HandlerTable& handlers, const std::function<void()>& wake,
                             std::span<const int> extra);

}  // namespace keld
