// What the distributed storage layer reports that is one event each.
#pragma once

#include "keldRow.h"

namespace keld {

// clang-format off
/// Reported even where the device's name cannot be read: the condition matters more than the name.
inline constexpr auto kDstorNameRows = table("kel.dstor.", {
    {"kel.dstor.dom.init.failed.status", "%p", VProbKind::problem,
     "@&!*@*@(orn.problem.dstor.dom.init.failed.status)Dstor Distributed Object Manager failed to initialize. While the ORNi host might still be part of the Dstor cluster, some of the Dstor related services might fail until this problem is resolved. Failure Status: %s."},
    {"kel.dstor.pdl.online", "%p", VProbKind::clear,
     "@&!*@*@(orn.clear.kel.dstor.pdl.online)Dstor device %s has come online."},
    {"kel.dstor.pdl.offline", "%p", VProbKind::problem,
     "@&!*@*@(orn.problem.kel.dstor.pdl.offline)Dstor device %s has gone offline."},
    {"kel.dstor.ldgm.diskerror", "%p", VProbKind::problem,
     "@&!*@*@(orn.problem.kel.dstor.ldgm.diskerror)Dstor device %s is under permanent error."},
    {"kel.dstor.ldgm.diskpropagatedpermerror", "%p", VProbKind::problem,
     "@&!*@*@(orn.problem.kel.dstor.ldgm.diskpropagatedpermerror)Dstor device %s is under propagated permanent error."},
    {"kel.dstor.ldgm.diskunhealthy", "%p", VProbKind::problem,
     "@&!*@*@(orn.problem.kel.dstor.ldgm.diskunhealthy)Dstor device %s is unhealthy."},
    {"kel.dstor.ldgm.diskgrouplogcongested", "%p", VProbKind::problem,
     "@&!*@*@(orn.problem.kel.dstor.ldgm.diskgrouplogcongested)Dstor diskgroup %s log is congested."},
    {"kel.dstor.ldgm.diskpropagatederror", "%p", VProbKind::problem,
     "@&!*@*@(orn.problem.kel.dstor.ldgm.diskpropagatederror)Dstor device %s is under propagated error."},
    {"kel.dstor.dom.component.datacomponent.on.witness.host", "%p", VProbKind::problem,
     "@&!*@*@(orn.problem.dstor.dom.component.datacomponent.on.witness.host)Data component %s found on witness host is ignored."},
    {"kel.dstor.ldgm.stuckio", "%p", VProbKind::problem,
     "@&!*@*@(orn.problem.kel.dstor.ldgm.stuckio)Suspended I/Os detected on disk %s"},
    {"kel.dstor.rdt.rdma.change", "%p", VProbKind::audit,
     "@&!*@*@(orn.audit.dstor.rdma.changed)Dstor RDMA changed for qknic %s."},
    {"kel.dstor.ldgm.devicerepair", "%p", VProbKind::problem,
     "@&!*@*@(orn.problem.kel.dstor.ldgm.devicerepair)Device %s is in offline state and is getting repaired."},
    {"kel.dstor.ldgm.metadataURE", "%p", VProbKind::problem,
     "@&!*@*@(orn.problem.kel.dstor.ldgm.metadataURE)Device %s encountered unrecoverable read error and it is in unhealthy state and it will get evacuated and rebuild. If this device part of dedup diskgroup then entire disk group will be evacuated and rebuild."},
    {"kel.dstor.ldgm.UREEvacuationFailed", "%p", VProbKind::problem,
     "@&!*@*@(orn.problem.kel.dstor.ldgm.UREEvacuationFailed)Evacuation has failed for device %s due to insufficient resources, rebuild will be skipped. Please make resource available for evacuation."},
    {"kel.dstor.ldgm.stuckiotimeout", "%p", VProbKind::problem,
     "@&!*@*@(orn.problem.kel.dstor.ldgm.stuckiotimeout)Dstor device %s detected I/O timeout error. This may lead to stuck I/O."},
    {"kel.dstor.ldgm.stuckiooffline", "%p", VProbKind::problem,
     "@&!*@*@(orn.problem.kel.dstor.ldgm.stuckiooffline)Dstor device %s detected stuck I/O error. Marking the device as offline"},
    {"kel.dstor.ldgm.stuckiopropagated", "%p", VProbKind::problem,
     "@&!*@*@(orn.problem.kel.dstor.ldgm.stuckiopropagated)Dstor device %s is under propagated stuck I/O error. Marking the device as offline."},
});

inline constexpr auto kDstorFigureRows = table("kel.dstor.", {
    {"kel.dstor.ldgm.congestionthreshold", "%p %p %u %u", VProbKind::problem,
     "@&!*@*@(orn.problem.dstor.ldgm.congestionthreshold)LDGM %s Congestion State: %s. Congestion Threshold: %u Current Congestion: %u."},
    {"kel.dstor.ldgm.disklimit2", "%p %u %u", VProbKind::problem,
     "@&!*@*@(orn.problem.kel.dstor.ldgm.disklimit2)Failed to add disk %s to disk group. The system has reached the maximum amount of disks allowed (%d) for the current amount of memory (%d GB). Add more memory."},
    {"kel.dstor.ldgm.diskgrouplimit", "%p %u %u", VProbKind::problem,
     "@&!*@*@(orn.problem.kel.dstor.ldgm.diskgrouplimit)Failed to create new disk group %s. The system has reached the maximum amount of disks groups allowed (%d) for the current amount of memory (%d GB). Add more memory."},
    {"kel.dstor.ldgm.componentthreshold", "%p %u %u %u", VProbKind::problem,
     "@&!*@*@(orn.problem.kel.dstor.ldgm.componentthreshold)Dstor Node: %s reached threshold of %u %% opened components (%u of %u)."},
    {"kel.dstor.dom.nospaceduringresync", "%p %p %u", VProbKind::problem,
     "@&!*@*@(orn.problem.kel.dstor.dom.nospaceduringresync)Resync encountered no space error for component %s on disk %s. Resync will resume once space is freed up on this disk. Need around %uMB to resync the component on this disk"},
    {"kel.dstor.dom.resyncdecisiondelayed", "%p %p %p", VProbKind::problem,
     "@&!*@*@(orn.problem.kel.dstor.dom.resyncdecisiondelayed)Resync is delayed for component %s on disk %s until data availability is regained for object %s on the remote site."},
    {"kel.dstor.ldgm.devicerebuild", "%p %p %p", VProbKind::audit,
     "@&!*@*@(orn.audit.kel.dstor.ldgm.devicerebuild)Device %s is added back successfully after MEDIUM error. Old UUID %s New UUID %s."},
    {"kel.dstor.ldgm.diskgrouprebuild", "%p %p %p", VProbKind::audit,
     "@&!*@*@(orn.audit.kel.dstor.ldgm.diskgrouprebuild)Diskgroup %s is rebuilt successfully after MEDIUM error. Old UUID %s New UUID %s."},
});
// clang-format on

inline constexpr auto kDstorRows = joinTables(kDstorNameRows, kDstorFigureRows);

}  // namespace keld
