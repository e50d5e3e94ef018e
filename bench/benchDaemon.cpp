// The daemon with four more correlators of a few rows each.
#include "keldAgentStarter.h"
#include "keldLoop.h"
#include "keldRow.h"

namespace {

using keld::VProbKind;

constexpr auto kRows1 =
    keld::table("kel.bench1.", {{"kel.bench1.handled", "s", VProbKind::audit, "@&!*@*@(orn.audit.bench.handled)%s"},
                                {"kel.bench1.x.marker", "s", VProbKind::audit, "@&!*@*@(orn.audit.bench.marker)%s"}});
constexpr auto kRows2 =
    keld::table("kel.bench2.", {{"kel.bench2.handled", "s", VProbKind::audit, "@&!*@*@(orn.audit.bench.handled)%s"},
                                {"kel.bench2.x.marker", "s", VProbKind::audit, "@&!*@*@(orn.audit.bench.marker)%s"}});
constexpr auto kRows3 =
    keld::table("kel.bench3.", {{"kel.bench3.handled", "s", VProbKind::audit, "@&!*@*@(orn.audit.bench.handled)%s"},
                                {"kel.bench3.x.marker", "s", VProbKind::audit, "@&!*@*@(orn.audit.bench.marker)%s"}});
constexpr auto kRows4 =
    keld::table("kel.bench4.", {{"kel.bench4.handled", "s", VProbKind::audit, "@&!*@*@(orn.audit.bench.handled)%s"},
                                {"kel.bench4.x.marker", "s", VProbKind::audit, "@&!*@*@(orn.audit.bench.marker)%s"}});

constexpr const char* kGroups[] = {"bench1", "bench2", "bench3", "bench4"};

template <const auto& kRows, std::size_t kGroup>
void run(keld::AgentContext& context) {
  keld::HandlerTable handlers;
  keld::addRows<kRows>(handlers, context.services.post, keld::OnUnreadable::silent);
  keld::runCorrelator(context, kGroups[kGroup], kGroups[kGroup], keld::ignoreObservation, handlers);
}

int startAll(keld::AgentRegistry& agents, bool withTestAgents) {
  agents.start(run<kRows1, 0>);
  agents.start(run<kRows2, 1>);
  agents.start(run<kRows3, 2>);
  agents.start(run<kRows4, 3>);
  return keld::startAgents(agents, withTestAgents);
}

}  // namespace

int main(int argc, char** argv) {
  keld::runDaemon(argc, argv, startAll, false);
}
