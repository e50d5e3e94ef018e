// The all-paths-down correlator watches devices and file systems that lost every path.
#include "keldCorrelator.h"

namespace keld {

namespace {

// clang-format off
constexpr auto kApdRows = table("kel.storage.apd.", {
    {"kel.storage.apd.start", "s", VProbKind::problem,
     "@&!*@*@(orn.problem.storage.apd.start)Device or filesystem with identifier [%s] has entered the All Paths Down state."},
    {"kel.storage.apd.exit", "s", VProbKind::clear,
     "@&!*@*@(orn.clear.storage.apd.exit)Device or filesystem with identifier [%s] has exited the All Paths Down state."},
    {"kel.storage.apd.timeout", "si", VProbKind::problem,
     "@&!*@*@(orn.problem.storage.apd.timeout)Device or filesystem with identifier [%s] has entered the All Paths Down Timeout state after being in the All Paths Down state for %d seconds. I/Os will now be fast failed."},
});
// clang-format on

constexpr const char* kGroups[] = {"storage.apd"};

}  // namespace

constinit const CorrelatorInfo kApdCorrelator = {"APD",
                                                 kGroups,
                                                 {},
                                                 runPlain<kApdCorrelator>,
                                                 kApdRows,
                                                 {},
                                                 makeCorrelator<RowCorrelator<kApdRows, OnUnreadable::silent>>};

}  // namespace keld
