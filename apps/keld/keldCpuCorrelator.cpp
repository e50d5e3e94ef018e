// The CPU correlator watches machine checks. Corrected errors are counted by page, and a page with too
// many in one counting period is retired; a core whose cache or TLB errors come too often within a day
// loses the processor that reported the last of them. Everything else is one event per observation.
#include <array>
#include <cstring>
#include <map>
#include <memory>
#include <optional>

#include "keldCoreErrors.h"
#include "keldCorrelator.h"
#include "keldHostOption.h"
#include "keldPageErrors.h"
#include "platform/qkctl.h"

namespace keld {

namespace {

using HostCtl::Lib::HostCtlException;

// clang-format off
constexpr auto kCpuRows = table("kel.cpu.", {
    {"kel.cpu.mce.invalid", "", VProbKind::problem,
     "@&!*@*@(orn.problem.cpu.mce.invalid)MCE monitoring will be disabled as an unsupported CPU was detected. Please consult the ORN HCL for information on supported hardware."},
    {"kel.cpu.amd.mce.dram.disabled", "", VProbKind::problem,
     "@&!*@*@(orn.problem.cpu.amd.mce.dram.disabled)DRAM ECC not enabled. Please enable it in BIOS."},
    // Kept: the text ends in a blank.
    {"kel.cpu.intel.ioapic.listing.error", "", VProbKind::problem,
     "@&!*@*@(orn.problem.cpu.intel.ioapic.listing.error)Not all IO-APICs are listed in the DMAR. Not enabling interrupt remapping on this platform. "},
    {"kel.cpu.smp.ht.invalid", "%u %u", VProbKind::problem,
     "@&!*@*@(orn.problem.cpu.smp.ht.invalid)Disabling HyperThreading due to invalid configuration: Number of threads: %d, Number of PCPUs: %d."},
    {"kel.cpu.smp.ht.partner.missing", "%u %u", VProbKind::problem,
     "@&!*@*@(orn.problem.cpu.smp.ht.partner.missing)Disabling HyperThreading due to invalid configuration: HT partner %d is missing from PCPU %d."},
    {"kel.cpu.smp.ht.numpcpus.max", "%u %u", VProbKind::problem,
     "@&!*@*@(orn.problem.cpu.smp.ht.numpcpus.max)Found %d PCPUs, but only using %d of them due to specified limit."},
});

constexpr Event<std::uint64_t> kCorrectedErrorsHigh{VProbKind::problem,
     "@&!*@*@(orn.problem.cpu.page.correctederrors.high)High number of corrected errors on page number %#lx"};
// clang-format on

constexpr const char* kRecordFormat = "%lu %lu %lu %lu %lu %lu %lu %lu";
constexpr const EventInfo* kRecordEvents[] = {&kCorrectedErrorsHigh};
constexpr Judged kCpuJudged[] = {
    {"kel.cpu.mce.log4", kRecordFormat, kRecordEvents},
    {"kel.cpu.nmi.ipi.qkcs", "%lx %lx %lx %x %u", {}},
    {"kel.cpu.nmi.ipi.unknowncs", "%lx %lx %x %x %u", {}},
    {"kel.cpu.nmi.ipi.savebt", "%lx %lx %lx %x %x %u", {}},
};

constexpr const char* kOfflineVendor = "GenuineIntel";
constexpr unsigned kPageShift = 12;
constexpr std::uint32_t kRetiredMask = 0xffff;
constexpr const char* kRetireMode = "NiceRetire";

/// What is used of a machine-check record.
struct Record {
  McStatus status{0};
  std::uint64_t cpu = 0;
  std::uint64_t address = 0;
  std::uint64_t errors = 0;
};

std::optional<Record> readRecord(const Kel* observation) {
  std::array<std::uint64_t, 8> v{};
  if (Kel_GetArgs(observation, 0, kRecordFormat, &v[0], &v[1], &v[2], &v[3], &v[4], &v[5], &v[6], &v[7]) != 0) {
    return std::nullopt;
  }
  return Record{McStatus(v[1]), v[4], v[5], v[7]};
}

/// Whether the processors are of the vendor whose records tell a failing core, and may go offline.
bool mayTakeOffline() {
  VSI_OfflineEnabled enabled = 0;
  if (VSI_Get(VSI_NODE_sched_offline_enabled, nullptr, &enabled, sizeof enabled) != QK_OK || enabled == 0) return false;
  VSI_CpuListEntry entry{};
  try {
    QkCtl::Util::Sysinfo node(VSI_NODE_hardware_cpu_cpuList);
    node.SetInstance(0);
    node.Get(&entry, sizeof entry);
  } catch (const HostCtlException&) {
    return false;  // an entry that was not read names no vendor
  }
  return std::strncmp(entry.vendor, kOfflineVendor, sizeof entry.vendor) == 0;
}

/// Processors per core; nothing where the host does not tell.
std::optional<std::uint32_t> processorsPerCore() {
  VSI_CpuInfo info{};
  if (VSI_Get(VSI_NODE_hardware_cpu_cpuInfo, nullptr, &info, sizeof info) != QK_OK) return std::nullopt;
  if (info.cores == 0 || info.pcpus / info.cores == 0) return std::nullopt;
  return info.pcpus / info.cores;
}

/// False where the host refuses.
bool takeOffline(std::uint64_t cpu) {
  try {
    QkCtl::Util::Sysinfo node(VSI_NODE_sched_pcpus_offline);
    node.SetInstance(static_cast<std::int64_t>(cpu));
    node.Set();
    return true;
  } catch (const HostCtlException&) {
    return false;
  }
}

/// True where the page is retired or about to be, or the host does not know.
bool isRetired(std::uint64_t page) {
  try {
    VSI_PageStatus status = 0;
    QkCtl::Util::Sysinfo node(VSI_NODE_system_pageRetire_MPNStatus);
    node.AddInput(static_cast<std::int64_t>(page));
    node.Get(&status, sizeof status);
    return (status & kRetiredMask) != 0;
  } catch (const HostCtlException&) {
    return true;
  }
}

void requestRetirement(std::uint64_t page) {
  try {
    QkCtl::Util::Sysinfo node(VSI_NODE_system_pageRetire_retireMPNs);
    node.AddInput(static_cast<std::int64_t>(page));
    node.AddInput(1);
    node.AddInput(kRetireMode);
    node.Set();
  } catch (const HostCtlException&) {
    return;  // the next record over the threshold asks again
  }
}

class CpuCorrelator final : public Correlator {
 public:
  explicit CpuCorrelator(Services& services) : services_(services), pageErrors_(PageErrors::start(services.timers)) {}

  [[nodiscard]] HandlerTable handlers() override {
    HandlerTable handlers;
    addRows<kCpuRows>(handlers, services_.post, OnUnreadable::silent);
    handlers.emplace("kel.cpu.mce.log4", [this](const Kel* observation) { correctedError(observation); });
    addIgnored(handlers, kCpuJudged);
    return handlers;
  }

 private:
  void correctedError(const Kel* observation) {
    const auto record = readRecord(observation);
    if (!record) return;
    if (record->status.isCoreError() && mayTakeOffline()) countForCore(*record);
    if (!record->status.addressValid()) return;
    const std::uint64_t page = record->address >> kPageShift;
    if (pageErrors_->add(page, record->errors)) retire(page);
  }

  void countForCore(const Record& record) {
    const auto perCore = processorsPerCore();
    if (!perCore) return;
    const std::uint64_t key = record.cpu / *perCore;
    if (const auto known = coreErrorHistory_.find(key); known != coreErrorHistory_.end() && known->second.offlined()) {
      return;
    }
    const auto option = readIntegerOption("Cpu", "CPUOfflineThreshold");
    const auto threshold = static_cast<std::uint32_t>(option.value_or(0));
    if (threshold == 0) return;
    const std::int64_t now = services_.clock.monotonic().count();
    CoreErrors& core = coreErrorHistory_[key];
    core.add(now, record.status.overflow() ? 2 : 1);
    if (core.reached(threshold, now) && takeOffline(record.cpu)) core.setOfflined();
  }

  void retire(std::uint64_t page) {
    std::uint32_t& mark = pageRetireMarks_[page];
    if (page != 0 && mark == 0) {
      if (isRetired(page))
        mark = 1;
      else
        requestRetirement(page);
      return;
    }
    // Kept: the event goes with the mark's wrap, so in practice never.
    if (++mark == 0) {
      mark = 1;
      kCorrectedErrorsHigh.post(services_.post, page);
    }
  }

  Services& services_;
  std::shared_ptr<PageErrors> pageErrors_;
  CoreErrorHistory coreErrorHistory_;
  /// Not 0 for a page that was seen retired or about to be.
  std::map<std::uint64_t, std::uint32_t> pageRetireMarks_;
};

constexpr const char* kGroups[] = {"cpu"};

}  // namespace

constinit const CorrelatorInfo kCpuCorrelator = {
    "cpu", kGroups, {}, runPlain<kCpuCorrelator>, kCpuRows, kCpuJudged, makeCorrelator<CpuCorrelator>};

}  // namespace keld
