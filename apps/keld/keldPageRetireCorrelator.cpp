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
#include "keldText.h"
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

// What the decisions are about, beside virtual machines.
constexpr std::string_view kSelectedPages = "selected pages";
constexpr std::string_view kUnretiredPages = "pages not retired";
constexpr std::string_view kFirmwareRequests = "firmware requests";

constexpr Decides<std::int64_t, std::int64_t> kSelectedBelow{DecisionKind::counts, "pageretire.selected.below",
                                                             "{}, which is not above the threshold of {}"};
constexpr Decides<std::int64_t, std::int64_t, std::int64_t> kSelectedHeld{
    DecisionKind::holds, "pageretire.selected.held", "{}, which is not {} more than the {} reported last"};
constexpr Decides<std::int64_t, std::int64_t> kSelectedFirst{DecisionKind::concludes, "pageretire.selected.first",
                                                             "{}, which is above the threshold of {}: first report"};
constexpr Decides<std::int64_t, std::int64_t, std::int64_t, std::int64_t> kSelectedGrown{
    DecisionKind::concludes, "pageretire.selected.grown",
    "{}, which is above the threshold of {} and at least {} more than the {} reported last"};
constexpr Decides<std::int64_t, std::int64_t, std::int64_t> kSelectedAlways{
    DecisionKind::concludes, "pageretire.selected.always",
    "{}, which is above the threshold of {}; below the step of {} every count is reported"};
constexpr Decides<std::int64_t> kUnretiredFirst{DecisionKind::concludes, "pageretire.not-retired.first",
                                                "{}: reported, once for all"};
constexpr Decides<std::int64_t> kUnretiredHeld{DecisionKind::holds, "pageretire.not-retired.held",
                                               "{}: held back, they were reported once"};
constexpr Decides<> kFirmwareOff{DecisionKind::holds, "pageretire.firmware.off",
                                 "PageRetire/ApeiLoggingEnabled is 0: not reported"};
constexpr Decides<std::int64_t> kFirmwareOn{DecisionKind::concludes, "pageretire.firmware.on",
                                            "PageRetire/ApeiLoggingEnabled is {}: reported"};
constexpr Decides<std::int64_t, std::string_view, std::int64_t, std::int64_t, std::string_view> kKill{
    DecisionKind::concludes, "pageretire.injected.kill",
    "{} injections for page {}, killed from {} over {} s on: killing {}"};
constexpr Decides<> kVmKilled{DecisionKind::acts, "pageretire.injected.killed", "killed"};
constexpr Decides<> kKillRefused{DecisionKind::acts, "pageretire.injected.kill-refused",
                                 "the host refused to kill it and is not asked again while injections are kept"};
constexpr Decides<std::int64_t, std::string_view> kVmNotFound{
    DecisionKind::holds, "pageretire.injected.not-found",
    "{} injections for page {}, but the host does not find or name it: the next injection asks again"};
constexpr Decides<std::string_view> kKilledForOther{DecisionKind::holds, "pageretire.injected.killed-for-other",
                                                    "its killing was asked for because of another page than {}"};
constexpr Decides<std::string_view> kNotFoundForOther{
    DecisionKind::holds, "pageretire.injected.not-found-for-other",
    "the host failed for another page than {}: the next injection asks again"};
constexpr Decides<std::int64_t, std::string_view, std::int64_t> kKillWaits{
    DecisionKind::holds, "pageretire.injected.kill-waits",
    "{} injections for page {}, but the host failed for {} others: the next injection begins here"};

constexpr const Decision* kPageRetireDecisions[] = {
    &kSelectedBelow,    &kSelectedHeld, &kSelectedFirst, &kSelectedGrown,    &kSelectedAlways,    &kUnretiredFirst,
    &kUnretiredHeld,    &kFirmwareOff,  &kFirmwareOn,    &kInjectionCounted, &kInjectionOfKilled, &kInjectionExpired,
    &kKillForgotten,    &kKill,         &kVmKilled,      &kKillRefused,      &kVmNotFound,        &kKilledForOther,
    &kNotFoundForOther, &kKillWaits};

/// Numbers are told as signed ones.
std::int64_t told(std::uint64_t number) {
  return static_cast<std::int64_t>(number);
}

/// Reads arguments of which each stays as it is where they cannot be read: the handlers go on with them.
template <typename... Out>
void readWhatIsThere(const Kel* observation, const char* format, Out*... out) {
  static_cast<void>(Kel_GetArgs(observation, 0, format, out...));
}

// What is said of a virtual machine whose guest keeps using a page; put together only where somebody listens.
template <typename... A>
void tellRepeated(DecisionListener* decisions, const InjectionLog::Repeated& repeated,
                  const Decides<std::int64_t, std::string_view, A...>& decision, std::type_identity_t<A>... values) {
  if (decisions == nullptr) return;
  decision.report(decisions, InjectionLog::subject(repeated.world), static_cast<std::int64_t>(repeated.injections),
                  hexText(repeated.page), values...);
}
void tellPage(DecisionListener* decisions, const InjectionLog::Repeated& repeated,
              const Decides<std::string_view>& decision) {
  if (decisions != nullptr) {
    decision.report(decisions, InjectionLog::subject(repeated.world), hexText(repeated.page));
  }
}
void tellMachine(DecisionListener* decisions, const InjectionLog::Repeated& repeated, const Decides<>& decision) {
  if (decisions != nullptr) decision.report(decisions, InjectionLog::subject(repeated.world));
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
    : services_(services),
      threshold_(readThreshold()),
      intervalPercent_(readInterval()),
      injections_(services.decisions) {}

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
  DecisionListener* const decisions = services_.decisions;
  if (count <= threshold_) {
    kSelectedBelow.report(decisions, kSelectedPages, told(count), told(threshold_));
    return;
  }
  // Kept: product and difference wrap, so that a step beyond the count reports every count.
  const std::uint64_t step = threshold_ * intervalPercent_ / 100;
  if (count - step < lastReported_) {
    kSelectedHeld.report(decisions, kSelectedPages, told(count), told(step), told(lastReported_));
    return;
  }
  if (step > count)
    kSelectedAlways.report(decisions, kSelectedPages, told(count), told(threshold_), told(step));
  else if (lastReported_ == 0)
    kSelectedFirst.report(decisions, kSelectedPages, told(count), told(threshold_));
  else
    kSelectedGrown.report(decisions, kSelectedPages, told(count), told(threshold_), told(step), told(lastReported_));
  kThresholdExceeded.post(services_.post, count, threshold_);
  lastReported_ = count;
}

void PageRetireCorrelator::notRetiredHigh(const Kel* observation) {
  if (!isFrom(observation, kNotRetired)) return;
  std::uint64_t count = 0;
  readWhatIsThere(observation, kNotRetiredFormat, &count);
  if (notRetiredReported_) {
    kUnretiredHeld.report(services_.decisions, kUnretiredPages, told(count));
    return;
  }
  kUnretiredFirst.report(services_.decisions, kUnretiredPages, told(count));
  kNotRetiredHigh.post(services_.post, count);
  notRetiredReported_ = true;
}

void PageRetireCorrelator::firmwareRequest(const Kel* observation) {
  const auto logging = readIntegerOption(kGroup, "ApeiLoggingEnabled");
  if (!logging) Panic("NOT_REACHED %s:%d\n", kSource, kNoFirmwareOptionLine);
  const auto enabled = static_cast<std::uint32_t>(*logging);
  if (enabled == 0) {
    kFirmwareOff.report(services_.decisions, kFirmwareRequests);
    return;
  }
  Text unit = nullptr, reference = nullptr;
  readWhatIsThere(observation, kFirmwareFormat, &unit, &reference);
  if (!isFrom(observation, kFirmware)) return;
  kFirmwareOn.report(services_.decisions, kFirmwareRequests, enabled);
  kFirmwareRequest.post(services_.post, unit, reference);
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
    if (injections_.killed(one.world)) {
      tellPage(services_.decisions, one, kKilledForOther);
      continue;
    }
    if (failed.contains(one.world)) {
      tellPage(services_.decisions, one, kNotFoundForOther);
      continue;
    }
    if (failed.size() == kMaxFailures) {
      resume_ = one.world;
      tellWaiting(std::span(repeated).subspan(static_cast<std::size_t>(&one - repeated.data())), failed);
      return;
    }
    if (!kill(one)) failed.insert(one.world);
  }
}

/// Those behind the virtual machines that failed, for which this call did nothing.
void PageRetireCorrelator::tellWaiting(std::span<const InjectionLog::Repeated> waiting,
                                       const std::set<InjectionLog::World>& failed) const {
  if (services_.decisions == nullptr) return;
  for (const InjectionLog::Repeated& one : waiting) {
    if (injections_.killed(one.world) || failed.contains(one.world)) continue;
    tellRepeated(services_.decisions, one, kKillWaits, kMaxFailures);
  }
}

/// False where the host fails.
bool PageRetireCorrelator::kill(const InjectionLog::Repeated& repeated) {
  DecisionListener* const decisions = services_.decisions;
  bool asked = false;
  try {
    const auto machine = QkCtl::Resource::ResourceInfoImpl().GetVirtualMachineByWorldId(repeated.world);
    const auto& name = machine->GetDisplayName();
    tellRepeated(decisions, repeated, kKill, InjectionLog::kMinInjections, InjectionLog::kMinSpreadSeconds, name);
    kKilling.post(services_.post, name.c_str(), static_cast<int>(repeated.injections), repeated.page);
    injections_.setKilled(repeated.world);
    asked = true;
    machine->Kill(0);
    tellMachine(decisions, repeated, kVmKilled);
    return true;
  } catch (const HostCtlException&) {
    if (asked)
      tellMachine(decisions, repeated, kKillRefused);
    else
      tellRepeated(decisions, repeated, kVmNotFound);
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
                                                        makeCorrelator<PageRetireCorrelator>,
                                                        kPageRetireDecisions};

}  // namespace keld
