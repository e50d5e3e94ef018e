// The virtual SCSI correlator watches the shared virtual disks of clustered virtual machines.
#include "keldCorrelator.h"

namespace keld {

namespace {

// Kept: these lines have no end.
constexpr const char* kNoLimit[] = {"Failed to get args: %d"};
constexpr const char* kNoVm[] = {"Failed to get VM-1 name: %d", "Failed to get VM-2 name: %d"};

// clang-format off
constexpr auto kVscsiRows = table("kel.vscsi.", {
    {"kel.vscsi.shared.vdsk.no.free.slot.available", "%u", VProbKind::problem,
     "@&!*@*@(orn.problem.vscsi.shared.vdsk.no.free.slot.available)No Free slot available. Maximum number of VMs supported in MSCS cluster are %u", kInOrder, kNoLimit},
    {"kel.vscsi.shared.vdsk.add.failure.max.count", "%u", VProbKind::problem,
     "@&!*@*@(orn.problem.vscsi.shared.vdsk.add.failure.max.count)Failed to add shared virtual disk. Maximum number of shared vdsks supported per ORN host are %u", kInOrder, kNoLimit},
    {"kel.vscsi.shared.vdsk.virtual.machine.power.on.failed", "ss", VProbKind::problem,
     "@&!*@*@(orn.problem.vscsi.shared.vdsk.virtual.machine.power.on.failed)Two or more VMs (%s and %s) sharing same virtual disk are not allowed to be Powered-On on same host.", kInOrder, kNoVm},
});
// clang-format on

constexpr const char* kGroups[] = {"vscsi"};

}  // namespace

constinit const CorrelatorInfo kVscsiCorrelator = {"vscsi",
                                                   kGroups,
                                                   {},
                                                   runPlain<kVscsiCorrelator>,
                                                   kVscsiRows,
                                                   {},
                                                   makeCorrelator<RowCorrelator<kVscsiRows, OnUnreadable::silent>>};

}  // namespace keld
