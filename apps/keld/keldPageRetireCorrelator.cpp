// The page-retirement correlator watches the memory pages that the kernel selected for retirement, the
// firmware's requests to retire some, and machine checks that the kernel injects into a virtual machine
// for a bad page. A guest that keeps using such a page is killed before it does harm.
#include "keldPageRetireCorrelator.h"

#include <algorithm>
#include <limits>
#include <set>
#include <vector>

#include "keldHostOption.h"
#include "keldLog.h"
#include "platform/qkctl.h"

namespace keld {

namespace {

using HostCtl::Lib::HostCtlException;
constexpr const char* kSource = "apps/keld/keldPageRetireCorrelator";
constexpr int kNoFirmwareOptionLine = 126;
constexpr int kNoThresholdLine = 178;
constexpr int kNoIntervalLine = 189;
constexpr const char* kGroup = "PageRetire";
/// Virtual machines that the host may fail to find before the others have to wait for the next call.
constexpr std::size_t kMaxFailures = 16;

constexpr const char* kExceeded = "kel.pageretire.selectedmpnthreshold.host.exceeded";
constexpr const char* kNotRetired = "kel.pageretire.selectedbutnotretired.high";
constexpr const char* kFirmware = "kel.pageretire.platform.retire.request";
constexpr const char* kInjected = "kel.pageretire.mce.injected";

// The kernel's messages, which are the formats that its observations are read by.
constexpr const char* kExceededFormat = "Number of MPNs selected for retirement is %lu";
constexpr const char* kNotRetiredFormat = "Number of selected but not retired MPNs is high: %lu.";
constexpr const char* kFirmwareFormat =
    "Memory page retirement requested by platform firmware. FRU ID: %s. Refer to System Hardware Log: %s";
constexpr const char* kInjectedFormat = "Injected MCE for PPN %lx into virtual machine %d.";

// clang-format off
constexpr Event<std::uint64_t, std::uint64_t> kThresholdExceeded{VProbKind::problem,
    "@&!*@*@(orn.problem.pageretire.selectedmpnthreshold.host.exceeded)Number of host physical memory pages that have been selected for retirement (%lu) exceeds threshold (%lu)."};
constexpr Event<std::uint64_t> kNotRetiredHigh{VProbKind::problem,
    "@&!*@*@(orn.problem.pageretire.selectedbutnotretired.high)Number of host physical memory pages that have been selected for retirement but could not yet be retired is high: %lu"};
constexpr Event<Text, Text> kFirmwareRequest{VProbKind::problem,
    "@&!*@*@(orn.problem.pageretire.platform.retire.request)Memory page retirement requested by platform firmware. FRU ID: %s. Refer to System Hardware Log: %s"};
constexpr Event<Text, int, std::uint64_t> kKilling{VProbKind::problem,
    "@&!*@*@(orn.problem.pageretire.mce.injected.2)Killing %s because at least %d uncorrectable memory error machine check exceptions were injected for guest physical page %#lx but the virtual machine's operating system kept using the page."};
// clang-format on

constexpr const EventInfo* kExceededEvents[] = {&kThresholdExceeded};
constexpr const EventInfo* kNotRetiredEvents[] = {&kNotRetiredHigh};
constexpr const EventInfo* kFirmwareEvents[] = {&kFirmwareRequest};
constexpr const EventInfo* kInjectedEvents[] = {&kKilling};
constexpr Judged kPageRetireJudged[] = {
    {kExceeded, kExceededFormat, kExceededEvents},
    {kNotRetired, kNotRetiredFormat, kNotRetiredEvents},
    {kFirmware, kFirmwareFormat, kFirmwareEvents},
    {kInjected, kInjectedFormat, kInjectedEvents},
};

/// Reads arguments of which each stays as it is where they cannot be read: the handlers go on with them.
template <typename... Out>
void readWhatIsThere(const Kel* observation, const char* format, Out*... out) {
  static_cast<void>(Kel_GetArgs(observation, 0, format, out...));
}

bool isFrom(const Kel* observation, const char* wanted) {
  const char* id = nullptr;
  Kel_GetID(observation, &id);
  return Kel_IsID(id, wanted);
}

std::uint64_t readThreshold() {
  VSI_PageRetireThreshold threshold = 0;
  if (VSI_Get(VSI_NODE_system_pageRetire_threshold, nullptr, &threshold, sizeof threshold) != QK_OK) {
    Panic("NOT_REACHED %s:%d\n", kSource, kNoThresholdLine);
  }
  return threshold;
}

std::uint64_t readInterval() {
  const auto interval = readIntegerOption(kGroup, "ThresholdInterval");
  if (!interval) Panic("NOT_REACHED %s:%d\n", kSource, kNoIntervalLine);
  return static_cast<std::uint64_t>(*interval);
}

}  // namespace

PageRetireCorrelator::PageRetireCorrelator(Services& services)
    : services_(services), threshold_(readThreshold()), intervalPercent_(readInterval()) {}

HandlerTable PageRetireCorrelator::handlers() {
  return {{kExceeded, [this](const Kel* observation) { thresholdExceeded(observation); }},
          {kNotRetired, [this](const Kel* observation) { notRetiredHigh(observation); }},
          {kFirmware, [this](const Kel* observation) { firmwareRequest(observation); }},
          {kInjected, [this](const Kel* observation) { injected(observation); }}};
}

void PageRetireCorrelator::thresholdExceeded(const Kel* observation) {
  if (!isFrom(observation, kExceeded)) return;
  std::uint64_t count = 0;
  readWhatIsThere(observation, kExceededFormat, &count);
  if (count <= threshold_) return;
  // Kept: product and difference wrap, so that a step beyond the count reports every count.
  const std::uint64_t step = threshold_ * intervalPercent_ / 100;
  if (count - step < lastReported_) return;
  kThresholdExceeded.post(services_.post, count, threshold_);
  lastReported_ = count;
}

void PageRetireCorrelator::notRetiredHigh(const Kel* observation) {
  if (!isFrom(observation, kNotRetired)) return;
  std::uint64_t count = 0;
  readWhatIsThere(observation, kNotRetiredFormat, &count);
  if (notRetiredReported_) return;
  kNotRetiredHigh.post(services_.post, count);
  notRetiredReported_ = true;
}

void PageRetireCorrelator::firmwareRequest(const Kel* observation) {
  const auto logging = readIntegerOption(kGroup, "ApeiLoggingEnabled");
  if (!logging) Panic("NOT_REACHED %s:%d\n", kSource, kNoFirmwareOptionLine);
  if (static_cast<std::uint32_t>(*logging) == 0) return;
  Text unit = nullptr, reference = nullptr;
  readWhatIsThere(observation, kFirmwareFormat, &unit, &reference);
  if (isFrom(observation, kFirmware)) kFirmwareRequest.post(services_.post, unit, reference);
}

void PageRetireCorrelator::injected(const Kel* observation) {
  const std::int64_t now = services_.nowSeconds();
  injections_.expire(now);
  if (!isFrom(observation, kInjected)) return;
  std::uint64_t page = 0;
  std::int32_t world = 0;
  readWhatIsThere(observation, kInjectedFormat, &page, &world);
  injections_.add(world, page, now);
  killRepeated();
}

void PageRetireCorrelator::killRepeated() {
  std::vector<InjectionLog::Repeated> repeated = injections_.repeated();
  // Where the last call gave up, this one begins.
  const auto next =
      std::find_if(repeated.begin(), repeated.end(), [&](const auto& one) { return one.world >= resume_; });
  std::rotate(repeated.begin(), next, repeated.end());
  resume_ = std::numeric_limits<InjectionLog::World>::min();
  // Kept: one that failed is asked for again by the next call, not by each of its injections.
  std::set<InjectionLog::World> failed;
  for (const InjectionLog::Repeated& one : repeated) {
    if (injections_.killed(one.world) || failed.contains(one.world)) continue;
    if (failed.size() == kMaxFailures) {
      resume_ = one.world;
      return;
    }
    if (!kill(one)) failed.insert(one.world);
  }
}

/// False where the host fails.
bool PageRetireCorrelator::kill(const InjectionLog::Repeated& repeated) {
  try {
    const auto machine = QkCtl::Resource::ResourceInfoImpl().GetVirtualMachineByWorldId(repeated.world);
    kKilling.post(services_.post, machine->GetDisplayName().c_str(), static_cast<int>(repeated.injections),
                  repeated.page);
    injections_.setKilled(repeated.world);
    machine->Kill(0);
    return true;
  } catch (const HostCtlException&) {
    return false;
  }
}

namespace {

constexpr const char* kGroups[] = {"pageretire"};

}  // namespace

constinit const CorrelatorInfo kPageRetireCorrelator = {"pageretire",
                                                        kGroups,
                                                        {},
                                                        runPlain<kPageRetireCorrelator>,
                                                        {},
                                                        kPageRetireJudged,
                                                        makeCorrelator<PageRetireCorrelator>};

}  // namespace keld
