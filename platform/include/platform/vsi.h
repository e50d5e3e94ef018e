// The kernel's system-information interface: typed nodes that are read and set.
//
// Every function may be called from any thread, on parameter lists of its own.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/signature.h"

/// A kernel status: 0 is success, failures have 0xbad in their high bits.
using QK_ReturnStatus = std::uint32_t;
inline constexpr QK_ReturnStatus QK_OK = 0;
inline constexpr QK_ReturnStatus QK_FAILURE = 0xbad0001;
inline constexpr QK_ReturnStatus QK_NOT_FOUND = 0xbad0003;
inline constexpr QK_ReturnStatus QK_BAD_PARAM = 0xbad0007;
inline constexpr QK_ReturnStatus QK_NO_MEMORY = 0xbad0014;
inline constexpr QK_ReturnStatus QK_NOT_SUPPORTED = 0xbad001e;
/// A failure that carries errno value n is QK_ERRNO_BASE + n.
inline constexpr QK_ReturnStatus QK_ERRNO_BASE = 0xbad1000;

enum VSI_NodeID {
  VSI_NODE_config_intOpts,
  VSI_NODE_system_systemUuid,
  VSI_NODE_net_pNics_linkFlapping,
  VSI_NODE_vm_vmmGroupInfo,
  VSI_NODE_hardware_cpu_cpuInfo,
  VSI_NODE_hardware_cpu_cpuList,
  VSI_NODE_sched_offline_enabled,
  VSI_NODE_sched_pcpus_offline,
  VSI_NODE_system_pageRetire_threshold,
  VSI_NODE_system_pageRetire_MPNStatus,
  VSI_NODE_system_pageRetire_retireMPNs,
};

/// The value of VSI_NODE_config_intOpts. Its instance is two strings, group and name; setting it takes
/// one integer.
struct VSI_IntOption {
  char reserved[24];
  std::int64_t value;
};
static_assert(sizeof(VSI_IntOption) == 32);

/// Length of the value of VSI_NODE_system_systemUuid.
inline constexpr std::size_t VSI_SYSTEM_UUID_SIZE = 56;

/// The value of VSI_NODE_vm_vmmGroupInfo; the instance is the number of the monitor group.
struct VSI_VmmGroupInfo {
  std::uint32_t groupId;
  std::uint32_t worldId;
  char displayName[128];  ///< NUL-terminated, cut to fit
  char reserved[3260];
};
static_assert(sizeof(VSI_VmmGroupInfo) == 3396);

/// The value of VSI_NODE_hardware_cpu_cpuInfo.
struct VSI_CpuInfo {
  char reserved0[24];
  std::uint32_t cores;
  std::uint32_t pcpus;
  char reserved32[8];
};
static_assert(sizeof(VSI_CpuInfo) == 40 && offsetof(VSI_CpuInfo, cores) == 24 && offsetof(VSI_CpuInfo, pcpus) == 28);

/// The value of VSI_NODE_hardware_cpu_cpuList; the instance is the number of a processor.
struct VSI_CpuListEntry {
  char reserved0[28];
  char vendor[16];  ///< NUL-terminated, cut to fit
  char reserved44[184];
};
static_assert(sizeof(VSI_CpuListEntry) == 228 && offsetof(VSI_CpuListEntry, vendor) == 28);

/// The value of VSI_NODE_sched_offline_enabled: not 0 where processors may be taken offline.
using VSI_OfflineEnabled = std::uint8_t;
// VSI_NODE_sched_pcpus_offline is set, without input, for the processor whose number is the instance.

/// The value of VSI_NODE_system_pageRetire_threshold: a count of pages.
using VSI_PageRetireThreshold = std::uint64_t;
/// The value of VSI_NODE_system_pageRetire_MPNStatus for the page number that is the input. Its low 16
/// bits are not 0 where the page is retired or about to be.
using VSI_PageStatus = std::uint32_t;
// VSI_NODE_system_pageRetire_retireMPNs is set to a page number, a count and a mode ("NiceRetire").

/// An ordered list of strings and integers that names an instance or carries a value.
struct VSI_ParamList;

/// A new empty list, nullptr when memory is exhausted.
VSI_ParamList* VSI_ParamListCreate();
/// Releases a list; nullptr is allowed.
void VSI_ParamListDestroy(VSI_ParamList* list);
QK_ReturnStatus VSI_ParamListAddString(VSI_ParamList* list, const char* value);
QK_ReturnStatus VSI_ParamListAddInt(VSI_ParamList* list, std::int64_t value);

/// Reads a node's value for an instance (nullptr: the only one) into `out`, exactly `size` bytes.
/// Returns QK_BAD_PARAM where the size is not the value's; `out` is untouched on failure.
QK_ReturnStatus VSI_Get(VSI_NodeID node, const VSI_ParamList* instance, void* out, std::size_t size);

/// The same for a node that is asked with `input`.
QK_ReturnStatus VSI_GetWithInput(VSI_NodeID node, const VSI_ParamList* instance, const VSI_ParamList* input, void* out,
                                 std::size_t size);

/// Sets a node of an instance to the values in `input`.
QK_ReturnStatus VSI_Set(VSI_NodeID node, const VSI_ParamList* instance, const VSI_ParamList* input);

/// The errno value of a kernel status; 0 for QK_OK, EIO where none fits.
int QK_ReturnStatusToErrno(QK_ReturnStatus status);

/// Compares an interface signature with the library's own. Use VSI_CheckSig.
int VSI_CheckSignature(const char* signature, char* kernelBuild, std::size_t kernelBuildSize,
                       const char** ownBuildDate);

/// Asks whether the caller was built against the interface of the running platform. Returns 0 when
/// it was. Either way `kernelBuild` gets the running kernel's build text, cut to its size, and
/// `*ownBuildDate` the caller's signature. The signature is compiled in where this is called.
inline int VSI_CheckSig(char* kernelBuild, std::size_t kernelBuildSize, const char** ownBuildDate) {
  return VSI_CheckSignature(PLATFORM_INTERFACE_SIGNATURE, kernelBuild, kernelBuildSize, ownBuildDate);
}
