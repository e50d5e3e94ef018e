// The hot-plug correlator watches physical disks that come, go or are about to fail. None of its
// events is ever cleared: what the disk's owner did about it is not seen from here.
#include "keldCorrelator.h"

namespace keld {

namespace {

// clang-format off
constexpr auto kHcmRows = table("kel.hcm.", {
    {"kel.hcm.event.disk.insertion", "%p", VProbKind::audit,
     "@&!*@*@(orn.audit.hcm.event.disk.insertion)A physical disk has been inserted (%s)."},
    {"kel.hcm.event.disk.removal", "%p", VProbKind::audit,
     "@&!*@*@(orn.audit.hcm.event.disk.removal)A physical disk has been removed (%s)."},
    {"kel.hcm.event.disk.predictive.failure", "%p", VProbKind::problem,
     "@&!*@*@(orn.problem.hcm.event.disk.predictive.failure)A physical disk has a predictive failure (%s)."},
});
// clang-format on

constexpr const char* kGroups[] = {"hcm"};

}  // namespace

constinit const CorrelatorInfo kHcmCorrelator = {"HCM",
                                                 kGroups,
                                                 {},
                                                 runPlain<kHcmCorrelator>,
                                                 kHcmRows,
                                                 {},
                                                 makeCorrelator<RowCorrelator<kHcmRows, OnUnreadable::silent>>};

}  // namespace keld
