// The migration correlator watches what live migration needs of the host.
#include "keldCorrelator.h"

namespace keld {

namespace {

// clang-format off
constexpr auto kMigrateRows = table("kel.migrate.", {
    {"kel.migrate.skyhop.default.heap.create.failed", "", VProbKind::problem,
     "@&!*@*@(orn.problem.migrate.skyhop.default.heap.create.failed)Failed to create default migration heap. This may be a result of severe host memory pressure, or virtual address space exhaustion. Migration may still be possible, but will be unreliable in cases of extreme host memory pressure."},
});

constexpr Event<Text> kListenerShutdown{VProbKind::problem,
     "@&!*@*@(orn.problem.migrate.skyhop.server.pending.cnx.listen.socket.shutdown)The ORNi host's Skyhop network server encountered an error while monitoring incoming network connections. Shutting down listener socket. Skyhops may no longer be possible with this host until Skyhop is manually re-enabled. Failure status: %s"};
// clang-format on

constexpr const EventInfo* kListenerEvents[] = {&kListenerShutdown};
constexpr Judged kMigrateJudged[] = {
    {"kel.migrate.skyhop.server.pending.cnx.listen.socket.shutdown", "%p", kListenerEvents}};

constexpr Decides<> kStatusUnknown{DecisionKind::concludes, "migrate.listener.unknown",
                                   "no status was given: reported as unknown"};
constexpr Decides<std::string_view> kStatusKnown{DecisionKind::concludes, "migrate.listener.status",
                                                 "reported with status {}"};
constexpr std::string_view kListener = "listener socket";
constexpr const Decision* kMigrateDecisions[] = {&kStatusUnknown, &kStatusKnown};

void listenerShutdown(const Services& services, const Kel* observation) {
  Text status = nullptr;
  if (Kel_GetArgs(observation, 0, "%p", &status) != 0) return;
  if (status != nullptr)
    kStatusKnown.report(services.decisions, kListener, status);
  else
    kStatusUnknown.report(services.decisions, kListener);
  kListenerShutdown.post(services.post, status != nullptr ? status : "unknown");
}

class MigrateCorrelator final : public Correlator {
 public:
  explicit MigrateCorrelator(Services& services) : services_(services) {}

  [[nodiscard]] HandlerTable handlers() override {
    HandlerTable handlers;
    addRows<kMigrateRows>(handlers, services_.post, OnUnreadable::silent);
    handlers.emplace(kMigrateJudged[0].observation,
                     [this](const Kel* observation) { listenerShutdown(services_, observation); });
    return handlers;
  }

 private:
  Services& services_;
};

constexpr const char* kGroups[] = {"migrate"};

}  // namespace

constinit const CorrelatorInfo kMigrateCorrelator = {"migrate",
                                                     kGroups,
                                                     {},
                                                     runPlain<kMigrateCorrelator>,
                                                     kMigrateRows,
                                                     kMigrateJudged,
                                                     makeCorrelator<MigrateCorrelator>,
                                                     kMigrateDecisions};

}  // namespace keld
