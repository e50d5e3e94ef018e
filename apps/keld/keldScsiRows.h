// The storage correlator's rows and events.
#pragma once

#include "keldRow.h"

namespace keld {

// clang-format off
/// Rows that name an observation whose parameters they could not get.
inline constexpr auto kScsiParameterRows = table("kel.scsi.", {
    {"kel.scsi.device.too.many.io.error", "%p %hu", VProbKind::problem,
     "@&!*@*@(orn.problem.scsi.device.too.many.io.error)Too many errors observed for device %s errPercentage %hu"},
    {"kel.scsi.device.invalid.xcopy.request", "%p %d %d %d %p %d %d %d %p", VProbKind::problem,
     "@&!*@*@(orn.problem.scsi.device.invalid.xcopy.request)Invalid XCOPY request for device %s. Host %#x, Device %#x, Plugin %#x, %s sense, sense.key = %#x, sense.asc = %#x, sense.ascq = %#x: %s"},
    {"kel.scsi.apd.event.descriptor.alloc.failed", "", VProbKind::problem,
     "@&!*@*@(orn.problem.scsi.apd.event.descriptor.alloc.failed)No memory to allocate APD (All Paths Down) event subsystem"},
    {"kel.scsi.device.filter.attach.failed", "s", VProbKind::problem,
     "@&!*@*@(orn.problem.scsi.device.filter.attach.failed)Failed to attach filters to device '%s' during registration. Plugin load failed or the filter rules are incorrect."},
    {"kel.scsi.device.detach.failed", "s", VProbKind::problem,
     "@&!*@*@(orn.problem.scsi.device.detach.failed)Detach failed for device :%s. Exceeded the number of devices that can be detached, please cleanup stale detach entries."},
});

/// Rows that name an observation which they could not correlate.
inline constexpr auto kScsiCorrelateRows = table("kel.scsi.", {
    {"kel.scsi.device.io.latency.improved", "%p %lu %lu", VProbKind::clear,
     "@&!*@*@(orn.clear.scsi.device.io.latency.improved)Device %s performance has improved. I/O latency reduced from %ld microseconds to %ld microseconds."},
    {"kel.scsi.device.io.latency.high", "%p %lu %lu", VProbKind::problem,
     "@&!*@*@(orn.problem.scsi.device.io.latency.high)Device %s performance has deteriorated. I/O latency increased from average value of %ld microseconds to %ld microseconds."},
    {"kel.scsi.device.io.bad.plugin.type", "%p %p", VProbKind::problem,
     "@&!*@*@(orn.problem.scsi.device.io.bad.plugin.type)Bad Plugin type for device %s, plugin %s"},
    {"kel.scsi.device.io.inquiry.failed", "%p %p", VProbKind::problem,
     "@&!*@*@(orn.problem.scsi.device.io.inquiry.failed)Failed to get standard inquiry for device %s from Plugin %s."},
    {"kel.scsi.device.is.pseudo.failed", "%p %p", VProbKind::problem,
     "@&!*@*@(orn.problem.scsi.device.is.pseudo.failed)Failed to verify if the device %s from plugin %s is a pseudo device"},
    {"kel.scsi.device.is.ssd.failed", "%p %p", VProbKind::problem,
     "@&!*@*@(orn.problem.scsi.device.is.ssd.failed)Failed to verify if the device %s from plugin %s is a Solid State Disk device"},
    {"kel.scsi.device.is.local.failed", "%p %p", VProbKind::problem,
     "@&!*@*@(orn.problem.scsi.device.is.local.failed)Failed to verify if the device %s from plugin %s is a local - not shared - device"},
    {"kel.scsi.device.close.failed", "%p %p", VProbKind::problem,
     "@&!*@*@(orn.problem.scsi.device.close.failed)Failed to close the device %s properly, plugin %s"},
    {"kel.scsi.device.io.qerr.change.config", "%d %p %d", VProbKind::problem,
     "@&!*@*@(orn.problem.scsi.device.io.qerr.change.config)QErr set to 0x%x for device %s. This may cause unexpected behavior. The system is not configured to change the Qerr setting of device. The Qerr value supported by system is 0x%x. Please check the SCSI ChangeQErrSetting configuration value for ORN."},
    {"kel.scsi.device.io.qerr.changed", "%d %p %d", VProbKind::problem,
     "@&!*@*@(orn.problem.scsi.device.io.qerr.changed)QErr set to 0x%x for device %s. This may cause unexpected behavior. The device was originally configured to the supported QErr setting of 0x%x, but this has been changed and could not be reset."},
    {"kel.scsi.unsupported.plugin.type", "i", VProbKind::problem,
     "@&!*@*@(orn.problem.scsi.unsupported.plugin.type)Scsi Device Allocation not supported for plugin type %x"},
});

inline constexpr const char* kNoDeviceName[] = {"Failed to get device name: %d\n"};
inline constexpr const char* kNoPathName[] = {"Failed to get path name: %d\n"};
inline constexpr const char* kNoOptionOrPath[] = {"Failed to get NMP SATP options: %d\n", "Failed to get path name: %d\n"};
inline constexpr const char* kNoPathLimit[] = {"Failed to get path limit reached path count: %d\n",
                                               "Failed to get path limit reached path name: %d\n"};
inline constexpr const char* kNoDeviceLimit[] = {"Failed to get device limit reached device count: %d\n",
                                                 "Failed to get device limit reached plugin name: %d\n"};

/// Rows that say which argument is missing.
inline constexpr auto kScsiNamedRows = table("kel.scsi.", {
    {"kel.scsi.device.nmp.satp.option.failed", "ss", VProbKind::problem,
     "@&!*@*@(orn.problem.scsi.device.nmp.satp.option.failed)Invalid config parameter: \"%s\" provided in the nmp satp claimrule, this setting was not applied while claiming the path %s", kInOrder, kNoOptionOrPath},
    {"kel.scsi.device.state.on", "s", VProbKind::clear,
     "@&!*@*@(orn.clear.scsi.device.state.on)Device: %s  has been turned on administratively", kInOrder, kNoDeviceName},
    {"kel.scsi.device.state.off", "s", VProbKind::problem,
     "@&!*@*@(orn.problem.scsi.device.state.off)Device: %s  has been turned off administratively", kInOrder, kNoDeviceName},
    {"kel.scsi.device.state.permanentloss.deviceonline", "s", VProbKind::clear,
     "@&!*@*@(orn.clear.scsi.device.state.permanentloss.deviceonline)Device: %s, that was permanently inaccessible, is now online. No data consistency guarantees.", kInOrder, kNoDeviceName},
    {"kel.scsi.device.state.permanentloss.pluggedback", "s", VProbKind::problem,
     "@&!*@*@(orn.problem.scsi.device.state.permanentloss.pluggedback)Device: %s has been plugged back in after being marked permanently inaccessible. No data consistency guarantees.", kInOrder, kNoDeviceName},
    {"kel.scsi.scsipath.limitreached", "is", VProbKind::problem,
     "@&!*@*@(orn.problem.scsi.scsipath.limitreached)The maximum number of supported paths of %d has been reached. Path %s could not be added.", kInOrder, kNoPathLimit},
    {"kel.scsi.device.limitreached", "is", VProbKind::problem,
     "@&!*@*@(orn.problem.scsi.device.limitreached)The maximum number of supported devices of %d has been reached. A device from plugin %s could not be created.", kInOrder, kNoDeviceLimit},
});

inline constexpr auto kScsiRows = joinTables(kScsiParameterRows, kScsiCorrelateRows, kScsiNamedRows);

inline constexpr Event<Text, Text, Text> kPathConnectivityLost{VProbKind::problem,
     "@&!*@*@(orn.problem.storage.connectivity.lost)Lost connectivity to storage device %s. Path %s is down. Affected datastores: %s."};
inline constexpr Event<Text, Text, Text> kPathRedundancyLost{VProbKind::problem,
     "@&!*@*@(orn.problem.storage.redundancy.lost)Lost path redundancy to storage device %s. Path %s is down. Affected datastores: %s."};
inline constexpr Event<Text, Text, Text> kPathRedundancyDegraded{VProbKind::problem,
     "@&!*@*@(orn.problem.storage.redundancy.degraded)Path redundancy to storage device %s degraded. Path %s is down. Affected datastores: %s."};
inline constexpr Event<Text, Text, Text> kPathConnectivityRestored{VProbKind::clear,
     "@&!*@*@(orn.clear.storage.connectivity.restored)Connectivity to storage device %s (Datastores: %s) restored. Path %s is active again."};
inline constexpr Event<Text, Text, Text> kPathRedundancyRestored{VProbKind::clear,
     "@&!*@*@(orn.clear.storage.redundancy.restored)Path redundancy to storage device %s (Datastores: %s) restored. Path %s is active again."};
inline constexpr Event<Text, Text, Text> kFrequentPathStateChanges{VProbKind::problem,
     "@&!*@*@(orn.problem.storage.connectivity.pathstatechanges)Frequent path state changes are occurring for path %s. This may indicate a storage problem. Affected device: %s. Affected datastores: %s."};
inline constexpr Event<Text, Text, Text> kFrequentPathResets{VProbKind::problem,
     "@&!*@*@(orn.problem.storage.connectivity.pathpor)Frequent PowerOn Reset Unit Attentions are occurring on path %s. This may indicate a storage problem. Affected device: %s. Affected datastores: %s."};
inline constexpr Event<Text, Text> kFrequentDeviceResets{VProbKind::problem,
     "@&!*@*@(orn.problem.storage.connectivity.devicepor)Frequent PowerOn Reset Unit Attentions are occurring on device %s. This may indicate a storage problem. Affected datastores: %s."};
inline constexpr Event<Text, Text> kPermanentLoss{VProbKind::problem,
     "@&!*@*@(orn.problem.scsi.device.state.permanentloss)Device: %s has been removed or is permanently inaccessible. Affected datastores (if any): %s."};
inline constexpr Event<Text, Text> kPermanentLossReserved{VProbKind::problem,
     "@&!*@*@(orn.problem.scsi.device.state.permanentloss.withreservationheld)Device: %s has been removed or is permanently inaccessible while holding a reservation. Affected datastores (if any): %s."};
inline constexpr Event<Text, Text> kPermanentLossNoOpens{VProbKind::problem,
     "@&!*@*@(orn.problem.scsi.device.state.permanentloss.noopens)Permanently inaccessible device: %s has no more opens. It is now safe to unmount datastores (if any): %s and delete the device"};
inline constexpr Event<Text, Text> kThinAtQuota{VProbKind::problem,
     "@&!*@*@(orn.problem.scsi.device.thinprov.atquota)Space utilization on thin-provisioned device %s exceeded configured threshold. Affected datastores (if any): %s."};
inline constexpr Event<Text> kBadPathUnsafe{VProbKind::problem,
     "@&!*@*@(orn.problem.scsi.scsipath.badpath.unsafepe)Sanity check failed for path %s. Could not safely determine if the path is to a Dyndisk PE. Path dropped."};
inline constexpr Event<Text, Text> kBadPathUnreachable{VProbKind::problem,
     "@&!*@*@(orn.problem.scsi.scsipath.badpath.unreachpe)Sanity check failed for path %s. The path is to a Dyndisk PE, but it goes out of adapter %s which is not PE capable. Path dropped."};
// clang-format on

/// A device that is lost or full, and the datastores on it.
struct AffectingRow {
  std::string_view observation;
  const Event<Text, Text>* event;
  const char* unreadable;
  const EventInfo* info[1];  // the event again, for the catalogue

  consteval AffectingRow(std::string_view o, const Event<Text, Text>* e, const char* u)
      : observation(o), event(e), unreadable(u), info{e} {}
};
inline constexpr AffectingRow kAffectingRows[] = {
    {"kel.scsi.device.state.permanentloss", &kPermanentLoss, kNoDeviceName[0]},
    {"kel.scsi.device.state.permanentloss.withreservationheld", &kPermanentLossReserved, kNoDeviceName[0]},
    {"kel.scsi.device.state.permanentloss.noopens", &kPermanentLossNoOpens, kNoDeviceName[0]},
    {"kel.scsi.device.thinprov.atquota", &kThinAtQuota, "Failed to get thin provisioned device name: %d\n"},
};

inline constexpr const EventInfo* kPathDownEvents[] = {&kPathConnectivityLost, &kPathRedundancyLost,
                                                       &kPathRedundancyDegraded, &kFrequentPathStateChanges};
inline constexpr const EventInfo* kPathUpEvents[] = {&kPathConnectivityRestored, &kPathRedundancyRestored,
                                                     &kFrequentPathStateChanges};
inline constexpr const EventInfo* kPathChangeEvents[] = {&kFrequentPathStateChanges};
inline constexpr const EventInfo* kResetEvents[] = {&kFrequentPathResets, &kFrequentDeviceResets};
inline constexpr const EventInfo* kBadPathUnsafeEvents[] = {&kBadPathUnsafe};
inline constexpr const EventInfo* kBadPathUnreachableEvents[] = {&kBadPathUnreachable};

/// What the correlator's own handlers watch, for the catalogue.
inline constexpr Judged kScsiJudged[] = {
    {"kel.scsi.scsipath.pathstate.dead", "ss", kPathDownEvents},
    {"kel.scsi.scsipath.pathstate.off", "ss", kPathDownEvents},
    {"kel.scsi.scsipath.pathstate.on", "ss", kPathUpEvents},
    {"kel.scsi.scsipath.pathstate.standby", "ss", kPathUpEvents},
    {"kel.scsi.scsipath.add", "s", kPathChangeEvents},
    {"kel.scsi.scsipath.remove", "s", {}},
    {"kel.scsi.scsipath.por", "s", kResetEvents},
    {"kel.scsi.scsipath.badpath.unsafepe", "s", kBadPathUnsafeEvents},
    {"kel.scsi.scsipath.badpath.unreachpe", "ss", kBadPathUnreachableEvents},
    {kAffectingRows[0].observation, "s", kAffectingRows[0].info},
    {kAffectingRows[1].observation, "s", kAffectingRows[1].info},
    {kAffectingRows[2].observation, "s", kAffectingRows[2].info},
    {kAffectingRows[3].observation, "s", kAffectingRows[3].info},
};

}  // namespace keld
