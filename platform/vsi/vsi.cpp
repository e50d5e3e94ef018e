#include "platform/vsi.h"

#include <cerrno>
#include <cstring>
#include <new>
#include <string>
#include <string_view>

#include "host/guarded.h"
#include "host/host.h"
#include "host/options.h"
#include "vsi/paramList.h"
#include "vsi/status.h"

namespace {

using platform::Answer;
using platform::currentHost;
using platform::kernelStatus;

/// Most elements of a list; no node takes more than a few.
constexpr std::size_t kListElements = 64;
/// Largest errno value that a kernel status carries.
constexpr QK_ReturnStatus kErrnoMax = 4095;
/// What all kernel failures have in their high bits.
constexpr QK_ReturnStatus kFailureMark = 0xbad0000;

template <typename Call>
QK_ReturnStatus guarded(const Call& call) {
  return platform::guarded<QK_ReturnStatus>("system information", {QK_NO_MEMORY, QK_FAILURE}, call);
}

const std::string* stringAt(const VSI_ParamList* list, std::size_t index) {
  return list != nullptr && index < list->elements.size() ? std::get_if<std::string>(&list->elements[index]) : nullptr;
}

const std::int64_t* intAt(const VSI_ParamList* list, std::size_t index) {
  return list != nullptr && index < list->elements.size() ? std::get_if<std::int64_t>(&list->elements[index]) : nullptr;
}

bool hasLength(const VSI_ParamList* list, std::size_t length) {
  return (list == nullptr ? 0 : list->elements.size()) == length;
}

/// The option that two strings name, empty where the list is of another form.
std::string optionName(const VSI_ParamList* instance) {
  const std::string* const group = stringAt(instance, 0);
  const std::string* const name = stringAt(instance, 1);
  if (group == nullptr || name == nullptr || !hasLength(instance, 2)) return {};
  return *group + "/" + *name;
}

template <typename Value>
QK_ReturnStatus give(const Value& value, void* out) {
  std::memcpy(out, &value, sizeof value);
  return QK_OK;
}

QK_ReturnStatus getOption(const VSI_ParamList* instance, void* out, std::size_t size) {
  const std::string name = optionName(instance);
  if (name.empty() || size != sizeof(VSI_IntOption)) return QK_BAD_PARAM;
  const auto option = platform::readOption(name);
  if (!option.ok()) return kernelStatus(option.outcome);
  VSI_IntOption record{};
  record.value = option.value.value;
  return give(record, out);
}

QK_ReturnStatus getSystemUuid(const VSI_ParamList* instance, void* out, std::size_t size) {
  if (!hasLength(instance, 0) || size != VSI_SYSTEM_UUID_SIZE) return QK_BAD_PARAM;
  const Answer<std::string> uuid = currentHost().systemUuid();
  if (!uuid.ok()) return kernelStatus(uuid.outcome);
  if (uuid.value.size() != size) return QK_FAILURE;
  std::memcpy(out, uuid.value.data(), size);
  return QK_OK;
}

/// The longest beginning of `text` that fits into `bytes` without cutting a UTF-8 sequence.
std::string_view cutToFit(std::string_view text, std::size_t bytes) {
  if (text.size() <= bytes) return text;
  while (bytes > 0 && (static_cast<unsigned char>(text[bytes]) & 0xc0) == 0x80) --bytes;
  return text.substr(0, bytes);
}

QK_ReturnStatus getVmmGroupInfo(const VSI_ParamList* instance, void* out, std::size_t size) {
  const std::int64_t* const groupId = intAt(instance, 0);
  if (groupId == nullptr || !hasLength(instance, 1) || size != sizeof(VSI_VmmGroupInfo)) return QK_BAD_PARAM;
  const Answer<std::string> name = currentHost().vmNameOfGroup(*groupId);
  if (!name.ok()) return kernelStatus(name.outcome);
  VSI_VmmGroupInfo info{};
  info.groupId = static_cast<std::uint32_t>(*groupId);
  const std::string_view shown = cutToFit(name.value, sizeof info.displayName - 1);
  std::memcpy(info.displayName, shown.data(), shown.size());
  return give(info, out);
}

QK_ReturnStatus getCpuInfo(const VSI_ParamList* instance, void* out, std::size_t size) {
  if (!hasLength(instance, 0) || size != sizeof(VSI_CpuInfo)) return QK_BAD_PARAM;
  const auto counts = currentHost().cpuCounts();
  if (!counts.ok()) return kernelStatus(counts.outcome);
  VSI_CpuInfo info{};
  info.cores = counts.value.cores;
  info.pcpus = counts.value.pcpus;
  return give(info, out);
}

QK_ReturnStatus getCpuListEntry(const VSI_ParamList* instance, void* out, std::size_t size) {
  // All processors of a host are of one vendor.
  if (intAt(instance, 0) == nullptr || !hasLength(instance, 1) || size != sizeof(VSI_CpuListEntry)) return QK_BAD_PARAM;
  const Answer<std::string> vendor = currentHost().cpuVendor();
  if (!vendor.ok()) return kernelStatus(vendor.outcome);
  VSI_CpuListEntry entry{};
  const std::string_view shown = cutToFit(vendor.value, sizeof entry.vendor - 1);
  std::memcpy(entry.vendor, shown.data(), shown.size());
  return give(entry, out);
}

QK_ReturnStatus getOfflineEnabled(const VSI_ParamList* instance, void* out, std::size_t size) {
  if (!hasLength(instance, 0) || size != sizeof(VSI_OfflineEnabled)) return QK_BAD_PARAM;
  const Answer<bool> enabled = currentHost().cpuOfflineEnabled();
  if (!enabled.ok()) return kernelStatus(enabled.outcome);
  return give(static_cast<VSI_OfflineEnabled>(enabled.value ? 1 : 0), out);
}

QK_ReturnStatus getPageRetireThreshold(const VSI_ParamList* instance, void* out, std::size_t size) {
  if (!hasLength(instance, 0) || size != sizeof(VSI_PageRetireThreshold)) return QK_BAD_PARAM;
  const Answer<std::uint64_t> threshold = currentHost().pageRetireThreshold();
  if (!threshold.ok()) return kernelStatus(threshold.outcome);
  return give(VSI_PageRetireThreshold{threshold.value}, out);
}

QK_ReturnStatus getPageStatus(const VSI_ParamList* instance, const VSI_ParamList* input, void* out, std::size_t size) {
  const std::int64_t* const page = intAt(input, 0);
  if (!hasLength(instance, 0) || page == nullptr || !hasLength(input, 1)) return QK_BAD_PARAM;
  if (size != sizeof(VSI_PageStatus)) return QK_BAD_PARAM;
  const Answer<std::uint32_t> status = currentHost().pageStatus(static_cast<std::uint64_t>(*page));
  if (!status.ok()) return kernelStatus(status.outcome);
  return give(VSI_PageStatus{status.value}, out);
}

QK_ReturnStatus setCpuOffline(const VSI_ParamList* instance, const VSI_ParamList* input) {
  const std::int64_t* const cpu = intAt(instance, 0);
  if (cpu == nullptr || !hasLength(instance, 1) || !hasLength(input, 0)) return QK_BAD_PARAM;
  return kernelStatus(currentHost().cpuOffline(*cpu));
}

QK_ReturnStatus setRetiredPages(const VSI_ParamList* instance, const VSI_ParamList* input) {
  const std::int64_t* const page = intAt(input, 0);
  const std::int64_t* const count = intAt(input, 1);
  const std::string* const mode = stringAt(input, 2);
  if (page == nullptr || count == nullptr || mode == nullptr) return QK_BAD_PARAM;
  if (!hasLength(instance, 0) || !hasLength(input, 3)) return QK_BAD_PARAM;
  return kernelStatus(currentHost().pageRetire(static_cast<std::uint64_t>(*page), *count, *mode));
}

QK_ReturnStatus setOption(const VSI_ParamList* instance, const VSI_ParamList* input) {
  const std::string name = optionName(instance);
  const std::int64_t* const value = intAt(input, 0);
  if (name.empty() || value == nullptr || !hasLength(input, 1)) return QK_BAD_PARAM;
  return kernelStatus(platform::setOption(name, *value));
}

QK_ReturnStatus setLinkFlapping(const VSI_ParamList* instance, const VSI_ParamList* input) {
  const std::string* const nic = stringAt(instance, 0);
  const std::int64_t* const flapping = intAt(input, 0);
  if (nic == nullptr || !hasLength(instance, 1)) return QK_BAD_PARAM;
  if (flapping == nullptr || *flapping != 1 || !hasLength(input, 1)) return QK_BAD_PARAM;
  return kernelStatus(currentHost().nicDown(*nic));
}

}  // namespace

namespace platform {

QK_ReturnStatus kernelStatus(const Outcome& outcome) {
  if (outcome.ok()) return QK_OK;
  const auto status = static_cast<QK_ReturnStatus>(outcome.status);
  if (outcome.status > 0 && status <= kErrnoMax) return QK_ERRNO_BASE + status;
  return (status & 0xffff0000) == kFailureMark ? status : QK_FAILURE;
}

}  // namespace platform

VSI_ParamList* VSI_ParamListCreate() {
  return new (std::nothrow) VSI_ParamList;
}

void VSI_ParamListDestroy(VSI_ParamList* list) {
  delete list;
}

QK_ReturnStatus VSI_ParamListAddString(VSI_ParamList* list, const char* value) {
  if (list == nullptr || value == nullptr || list->elements.size() >= kListElements) return QK_BAD_PARAM;
  return guarded([&] {
    list->elements.emplace_back(std::string(value));
    return QK_OK;
  });
}

QK_ReturnStatus VSI_ParamListAddInt(VSI_ParamList* list, std::int64_t value) {
  if (list == nullptr || list->elements.size() >= kListElements) return QK_BAD_PARAM;
  return guarded([&] {
    list->elements.emplace_back(value);
    return QK_OK;
  });
}

QK_ReturnStatus VSI_Get(VSI_NodeID node, const VSI_ParamList* instance, void* out, std::size_t size) {
  if (out == nullptr) return QK_BAD_PARAM;
  return guarded([&]() -> QK_ReturnStatus {
    switch (node) {
      case VSI_NODE_config_intOpts:
        return getOption(instance, out, size);
      case VSI_NODE_system_systemUuid:
        return getSystemUuid(instance, out, size);
      case VSI_NODE_vm_vmmGroupInfo:
        return getVmmGroupInfo(instance, out, size);
      case VSI_NODE_hardware_cpu_cpuInfo:
        return getCpuInfo(instance, out, size);
      case VSI_NODE_hardware_cpu_cpuList:
        return getCpuListEntry(instance, out, size);
      case VSI_NODE_sched_offline_enabled:
        return getOfflineEnabled(instance, out, size);
      case VSI_NODE_system_pageRetire_threshold:
        return getPageRetireThreshold(instance, out, size);
      default:
        return QK_NOT_SUPPORTED;
    }
  });
}

QK_ReturnStatus VSI_GetWithInput(VSI_NodeID node, const VSI_ParamList* instance, const VSI_ParamList* input, void* out,
                                 std::size_t size) {
  if (node != VSI_NODE_system_pageRetire_MPNStatus) {
    return hasLength(input, 0) ? VSI_Get(node, instance, out, size) : QK_BAD_PARAM;
  }
  if (out == nullptr) return QK_BAD_PARAM;
  return guarded([&] { return getPageStatus(instance, input, out, size); });
}

QK_ReturnStatus VSI_Set(VSI_NodeID node, const VSI_ParamList* instance, const VSI_ParamList* input) {
  return guarded([&]() -> QK_ReturnStatus {
    switch (node) {
      case VSI_NODE_config_intOpts:
        return setOption(instance, input);
      case VSI_NODE_net_pNics_linkFlapping:
        return setLinkFlapping(instance, input);
      case VSI_NODE_sched_pcpus_offline:
        return setCpuOffline(instance, input);
      case VSI_NODE_system_pageRetire_retireMPNs:
        return setRetiredPages(instance, input);
      default:
        return QK_NOT_SUPPORTED;
    }
  });
}

int QK_ReturnStatusToErrno(QK_ReturnStatus status) {
  if (status > QK_ERRNO_BASE && status <= QK_ERRNO_BASE + kErrnoMax) return static_cast<int>(status - QK_ERRNO_BASE);
  switch (status) {
    case QK_OK:
      return 0;
    case QK_NOT_FOUND:
      return ENOENT;
    case QK_BAD_PARAM:
      return EINVAL;
    case QK_NO_MEMORY:
      return ENOMEM;
    case QK_NOT_SUPPORTED:
      return ENOTSUP;
    default:
      return EIO;
  }
}

int VSI_CheckSignature(const char* signature, char* kernelBuild, std::size_t kernelBuildSize,
                       const char** ownBuildDate) {
  if (ownBuildDate != nullptr) *ownBuildDate = signature;
  std::string build;
  bool matches = false;
  const QK_ReturnStatus status = guarded([&] {
    build = currentHost().kernelBuild();
    matches = currentHost().buildMatches();
    return QK_OK;
  });
  if (kernelBuild != nullptr && kernelBuildSize > 0) {
    const std::string_view shown = cutToFit(build, kernelBuildSize - 1);
    std::memcpy(kernelBuild, shown.data(), shown.size());
    kernelBuild[shown.size()] = '\0';
  }
  if (status != QK_OK) return QK_ReturnStatusToErrno(status);
  const bool sameInterface = signature != nullptr && std::string_view(signature) == PLATFORM_INTERFACE_SIGNATURE;
  return matches && sameInterface ? 0 : EINVAL;
}
