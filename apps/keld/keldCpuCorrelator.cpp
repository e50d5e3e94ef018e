// The CPU correlator watches machine checks. Corrected errors are counted by page, and a page with too
// many in one counting period is retired; a core whose cache or TLB errors come too often within a day
// loses the processor that reported the last of them. Everything else is one event per observation.
#include <array>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "keldCoreErrors.h"
#include "keldCorrelator.h"
#include "keldHostOption.h"
#include "keldPageErrors.h"
#include "keldText.h"
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

// Of a processor.
constexpr Decides<std::string_view> kOtherKind{
    DecisionKind::holds, "cpu.core.other-kind",
    "error code {} is no cache or TLB error of level 0 or 1 and is counted for no core"};
constexpr Decides<> kEnabledUnreadable{DecisionKind::holds, "cpu.core.enabled-unreadable",
                                       "whether processors may be taken offline cannot be read: counted for no core"};
constexpr Decides<> kNotEnabled{DecisionKind::holds, "cpu.core.not-enabled",
                                "the host does not let processors be taken offline: counted for no core"};
constexpr Decides<> kVendorUnreadable{DecisionKind::holds, "cpu.core.vendor-unreadable",
                                      "the processors' vendor cannot be read: counted for no core"};
constexpr Decides<std::string_view, std::string_view> kOtherVendor{
    DecisionKind::holds, "cpu.core.other-vendor", "the processors' vendor is \"{}\", not \"{}\": counted for no core"};
constexpr Decides<> kCountsUnreadable{DecisionKind::holds, "cpu.core.counts-unreadable",
                                      "how many processors a core has cannot be read: counted for no core"};
constexpr Decides<std::int64_t, std::int64_t> kCountsUnusable{
    DecisionKind::holds, "cpu.core.counts-unusable",
    "{} processors and {} cores do not tell how many a core has: counted for no core"};
constexpr Decides<> kNoAddress{DecisionKind::holds, "cpu.page.no-address",
                               "the record has no valid address and is counted for no page"};
// Of a core.
constexpr Decides<> kCoreOffline{DecisionKind::holds, "cpu.core.offline",
                                 "one of its processors was taken offline: counted no more"};
constexpr Decides<> kThresholdUnreadable{DecisionKind::holds, "cpu.core.threshold-unreadable",
                                         "Cpu/CPUOfflineThreshold cannot be read: not counted"};
constexpr Decides<> kThresholdZero{DecisionKind::holds, "cpu.core.threshold-zero",
                                   "Cpu/CPUOfflineThreshold is 0: not counted"};
constexpr Decides<std::int64_t, std::int64_t> kCoreBelow{DecisionKind::counts, "cpu.core.below",
                                                         "CPU errors within a day: {} of {}", CoreErrors::kDaySeconds};
constexpr Decides<std::int64_t, std::int64_t, std::int64_t> kTakenOffline{
    DecisionKind::acts, "cpu.core.taken-offline", "CPU errors within a day: {} of {}, CPU {} was taken offline"};
constexpr Decides<std::int64_t, std::int64_t, std::int64_t> kOfflineRefused{
    DecisionKind::acts, "cpu.core.refused",
    "CPU errors within a day: {} of {}, but the host refused to take CPU {} offline: the next error asks again"};
// Of a page over the threshold.
constexpr Decides<> kPageZero{DecisionKind::holds, "cpu.page.zero", "the retirement of page 0 is never asked for"};
constexpr Decides<std::int64_t> kPageMarked{
    DecisionKind::holds, "cpu.page.marked",
    "marked as retired or about to be: not asked for again; records over the threshold since: {}"};
constexpr Decides<std::int64_t> kPageRetired{DecisionKind::holds, "cpu.page.retired",
                                             "status {}: retired or about to be, marked"};
constexpr Decides<> kStatusUnreadable{DecisionKind::holds, "cpu.page.status-unreadable",
                                      "the status cannot be read: taken for retired, marked"};
constexpr Decides<> kRetirementAsked{DecisionKind::acts, "cpu.page.asked",
                                     "neither retired nor about to be: retirement is asked for"};
constexpr Decides<> kRetirementRefused{
    DecisionKind::acts, "cpu.page.refused",
    "the host refused to retire it: asked again with the next record over the threshold"};
constexpr Decides<> kMarkWrapped{DecisionKind::concludes, "cpu.page.wrapped",
                                 "over the threshold more often than can be counted: reported"};

constexpr const Decision* kCpuDecisions[] = {
    &kOtherKind,         &kEnabledUnreadable, &kNotEnabled,   &kVendorUnreadable,  &kOtherVendor,
    &kCountsUnreadable,  &kCountsUnusable,    &kNoAddress,    &kCoreOffline,       &kThresholdUnreadable,
    &kThresholdZero,     &kCoreBelow,         &kTakenOffline, &kOfflineRefused,    &kPageCapped,
    &kPageBelow,         &kPageOver,          &kPageCleared,  &kPageOptionChanged, &kPageOptionUnreadable,
    &kPageZero,          &kPageMarked,        &kPageRetired,  &kStatusUnreadable,  &kRetirementAsked,
    &kRetirementRefused, &kMarkWrapped};

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

/// Says of a processor; its name is made only where somebody listens.
template <typename... A>
void reportProcessor(DecisionListener* decisions, std::uint64_t cpu, const Decides<A...>& decision,
                     std::type_identity_t<A>... values) {
  if (decisions != nullptr) decision.report(decisions, "CPU " + std::to_string(cpu), values...);
}

/// Whether the processors are of the vendor whose records tell a failing core, and may go offline;
/// where not, that is said of `cpu`.
bool mayTakeOffline(DecisionListener* decisions, std::uint64_t cpu) {
  VSI_OfflineEnabled enabled = 0;
  if (VSI_Get(VSI_NODE_sched_offline_enabled, nullptr, &enabled, sizeof enabled) != QK_OK) {
    reportProcessor(decisions, cpu, kEnabledUnreadable);
    return false;
  }
  if (enabled == 0) {
    reportProcessor(decisions, cpu, kNotEnabled);
    return false;
  }
  VSI_CpuListEntry entry{};
  try {
    QkCtl::Util::Sysinfo node(VSI_NODE_hardware_cpu_cpuList);
    node.SetInstance(0);
    node.Get(&entry, sizeof entry);
  } catch (const HostCtlException&) {
    reportProcessor(decisions, cpu, kVendorUnreadable);
    return false;  // an entry that was not read names no vendor
  }
  if (std::strncmp(entry.vendor, kOfflineVendor, sizeof entry.vendor) == 0) return true;
  if (decisions != nullptr) {
    const std::string_view vendor(entry.vendor, strnlen(entry.vendor, sizeof entry.vendor));
    reportProcessor(decisions, cpu, kOtherVendor, vendor, kOfflineVendor);
  }
  return false;
}

/// Processors per core; nothing where the host does not tell, which is said of `cpu`.
std::optional<std::uint32_t> processorsPerCore(DecisionListener* decisions, std::uint64_t cpu) {
  VSI_CpuInfo info{};
  if (VSI_Get(VSI_NODE_hardware_cpu_cpuInfo, nullptr, &info, sizeof info) != QK_OK) {
    reportProcessor(decisions, cpu, kCountsUnreadable);
    return std::nullopt;
  }
  if (info.cores == 0 || info.pcpus / info.cores == 0) {
    reportProcessor(decisions, cpu, kCountsUnusable, info.pcpus, info.cores);
    return std::nullopt;
  }
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

/// Says of a page; its number is written only where somebody listens.
template <typename... A>
void reportPage(DecisionListener* decisions, std::uint64_t page, const Decides<A...>& decision,
                std::type_identity_t<A>... values) {
  if (decisions != nullptr) decision.report(decisions, hexText(page), values...);
}

/// True where the page is retired or about to be, or the host does not know, and that is said.
bool isRetired(DecisionListener* decisions, std::uint64_t page) {
  try {
    VSI_PageStatus status = 0;
    QkCtl::Util::Sysinfo node(VSI_NODE_system_pageRetire_MPNStatus);
    node.AddInput(static_cast<std::int64_t>(page));
    node.Get(&status, sizeof status);
    if ((status & kRetiredMask) == 0) return false;
    reportPage(decisions, page, kPageRetired, status & kRetiredMask);
    return true;
  } catch (const HostCtlException&) {
    reportPage(decisions, page, kStatusUnreadable);
    return true;
  }
}

void requestRetirement(DecisionListener* decisions, std::uint64_t page) {
  try {
    QkCtl::Util::Sysinfo node(VSI_NODE_system_pageRetire_retireMPNs);
    node.AddInput(static_cast<std::int64_t>(page));
    node.AddInput(1);
    node.AddInput(kRetireMode);
    node.Set();
    reportPage(decisions, page, kRetirementAsked);
  } catch (const HostCtlException&) {
    reportPage(decisions, page, kRetirementRefused);
  }
}

class CpuCorrelator final : public Correlator {
 public:
  explicit CpuCorrelator(Services& services)
      : services_(services), pageErrors_(PageErrors::start(services.timers, services.decisions)) {}

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
    if (isForCore(*record)) countForCore(*record);
    if (!record->status.addressValid()) {
      reportProcessor(services_.decisions, record->cpu, kNoAddress);
      return;
    }
    const std::uint64_t page = record->address >> kPageShift;
    if (pageErrors_->add(page, record->errors)) retire(page);
  }

  [[nodiscard]] bool isForCore(const Record& record) const {
    if (record.status.isCoreError()) return mayTakeOffline(services_.decisions, record.cpu);
    if (services_.decisions != nullptr) {
      reportProcessor(services_.decisions, record.cpu, kOtherKind, hexText(record.status.code()));
    }
    return false;
  }

  void countForCore(const Record& record) {
    const auto perCore = processorsPerCore(services_.decisions, record.cpu);
    if (!perCore) return;
    const std::uint64_t key = record.cpu / *perCore;
    if (const auto known = coreErrorHistory_.find(key); known != coreErrorHistory_.end() && known->second.offlined()) {
      reportCore(key, kCoreOffline);
      return;
    }
    const auto option = readIntegerOption("Cpu", "CPUOfflineThreshold");
    const auto threshold = static_cast<std::uint32_t>(option.value_or(0));
    if (threshold == 0) {
      reportCore(key, option ? kThresholdZero : kThresholdUnreadable);
      return;
    }
    const std::int64_t now = services_.clock.monotonic().count();
    CoreErrors& core = coreErrorHistory_[key];
    core.add(now, record.status.overflow() ? 2 : 1);
    const bool reached = core.reached(threshold, now);
    const bool taken = reached && takeOffline(record.cpu);
    if (taken) core.setOfflined();
    if (services_.decisions == nullptr) return;
    const std::int64_t errors = core.withinDay(now), needed = CoreErrors::needed(threshold);
    const auto cpu = static_cast<std::int64_t>(record.cpu);
    if (reached)
      reportCore(key, taken ? kTakenOffline : kOfflineRefused, errors, needed, cpu);
    else
      reportCore(key, kCoreBelow, errors, needed);
  }

  template <typename... A>
  void reportCore(std::uint64_t core, const Decides<A...>& decision, std::type_identity_t<A>... values) const {
    if (services_.decisions != nullptr) {
      decision.report(services_.decisions, "core " + std::to_string(core), values...);
    }
  }

  void retire(std::uint64_t page) {
    std::uint32_t& mark = pageRetireMarks_[page];
    if (page != 0 && mark == 0) {
      if (isRetired(services_.decisions, page))
        mark = 1;
      else
        requestRetirement(services_.decisions, page);
      return;
    }
    // Kept: the event goes with the mark's wrap, so in practice never.
    if (++mark == 0) {
      mark = 1;
      reportPage(services_.decisions, page, kMarkWrapped);
      kCorrectedErrorsHigh.post(services_.post, page);
    } else if (page == 0) {
      reportPage(services_.decisions, page, kPageZero);
    } else {
      reportPage(services_.decisions, page, kPageMarked, mark - 1);
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
    "cpu", kGroups, {}, runPlain<kCpuCorrelator>, kCpuRows, kCpuJudged, makeCorrelator<CpuCorrelator>, kCpuDecisions};

}  // namespace keld
