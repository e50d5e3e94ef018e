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

void listenerShutdown(Post& post, const Kel* observation) {
  Text status = nullptr;
  if (Kel_GetArgs(observation, 0, "%p", &status) != 0) return;
  kListenerShutdown.post(post, status != nullptr ? status : "unknown");
}

class MigrateCorrelator final : public Correlator {
 public:
  explicit MigrateCorrelator(Services& services) : post_(services.post) {}

  [[nodiscard]] HandlerTable handlers() override {
    HandlerTable handlers;
    addRows<kMigrateRows>(handlers, post_, OnUnreadable::silent);
    handlers.emplace(kMigrateJudged[0].observation,
                     [this](const Kel* observation) { listenerShutdown(post_, observation); });
    return handlers;
  }

 private:
  Post& post_;
};

constexpr const char* kGroups[] = {"migrate"};

}  // namespace

constinit const CorrelatorInfo kMigrateCorrelator = {"migrate",
                                                     kGroups,
                                                     {},
                                                     runPlain<kMigrateCorrelator>,
                                                     kMigrateRows,
                                                     kMigrateJudged,
                                                     makeCorrelator<MigrateCorrelator>};

}  // namespace keld
