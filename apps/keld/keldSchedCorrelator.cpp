// The scheduler's correlator watches what the scheduler could not give a virtual machine.
#include "keldCorrelator.h"

namespace keld {

namespace {

constexpr const char* kNoVm[] = {"Failed to arg: %d\n"};

// clang-format off
constexpr auto kSchedRows = table("kel.sched.", {
    {"kel.sched.latency.abort", "s", VProbKind::problem,
     "@&!*@*@(orn.problem.sched.latency.abort)Unable to apply latency-sensitivity setting to virtual machine %s. No valid placement on the host.", kInOrder, kNoVm},
    {"kel.sched.qos.cmt.notsupported", "s", VProbKind::problem,
     "@&!*@*@(orn.problem.sched.qos.cmt.notsupported)Unable to support L3 cache monitoring for virtual machine %s. No processor capabilities.", kInOrder, kNoVm},
    {"kel.sched.qos.cmt.noresource", "s", VProbKind::problem,
     "@&!*@*@(orn.problem.sched.qos.cmt.noresource)Unable to support L3 cache monitoring for virtual machine %s. Out of resources.", kInOrder, kNoVm},
    {"kel.sched.qos.cat.notsupported", "s", VProbKind::problem,
     "@&!*@*@(orn.problem.sched.qos.cat.notsupported)Unable to support L3 cache allocation for virtual machine %s. No processor capabilities.", kInOrder, kNoVm},
    {"kel.sched.qos.cat.noresource", "s", VProbKind::problem,
     "@&!*@*@(orn.problem.sched.qos.cat.noresource)Unable to support L3 cache allocation for virtual machine %s. Out of resources.", kInOrder, kNoVm},
});
// clang-format on

constexpr const char* kGroups[] = {"sched"};

}  // namespace

constinit const CorrelatorInfo kSchedCorrelator = {"sched",
                                                   kGroups,
                                                   {},
                                                   runPlain<kSchedCorrelator>,
                                                   kSchedRows,
                                                   {},
                                                   makeCorrelator<RowCorrelator<kSchedRows, OnUnreadable::silent>>};

}  // namespace keld
