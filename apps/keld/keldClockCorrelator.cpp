// The clock correlator watches the discipline of the system clock: parameters set, state reset, large
// steps, synchronisation gained and lost. Each identifier is reported at most once an hour; a loss of
// synchronisation lets the next regain be reported however soon it comes.
#include <optional>
#include <string_view>

#include "keldArguments.h"
#include "keldCorrelator.h"
#include "keldHoldOff.h"
#include "keldLog.h"

namespace keld {

namespace {

// clang-format off
constexpr auto kParameterRows = table("kel.clock.", {
    {"kel.clock.state.reset", "", VProbKind::problem,
     "@&!*@*@(orn.problem.clock.state.reset)resetting system clock state"},
    {"kel.clock.parameter.set.maxNegPhaseCorrection", "%d", VProbKind::problem,
     "@&!*@*@(orn.problem.clock.parameter.set.maxNegPhaseCorrection)setting system clock parameter maxNegPhaseCorrection to %d"},
    {"kel.clock.parameter.set.maxPosPhaseCorrection", "%d", VProbKind::problem,
     "@&!*@*@(orn.problem.clock.parameter.set.maxPosPhaseCorrection)setting system clock parameter maxPosPhaseCorrection to %d"},
    {"kel.clock.parameter.set.numLargeCorrections", "%d", VProbKind::problem,
     "@&!*@*@(orn.problem.clock.parameter.set.numLargeCorrections)setting system clock parameter numLargeCorrections to %d"},
    {"kel.clock.parameter.set.maxLargeCorrections", "%d", VProbKind::problem,
     "@&!*@*@(orn.problem.clock.parameter.set.maxLargeCorrections)setting system clock parameter maxLargeCorrections to %d"},
});
constexpr auto kDeltaRows = table("kel.clock.", {
    {"kel.clock.correction.delta.warning", "%d %d %d %d %d %d", VProbKind::problem,
     "@&!*@*@(orn.problem.clock.correction.delta.warning)system clock stepped to %d.%09d, but delta %d > %d seconds, %d/%d large corrections"},
    {"kel.clock.correction.delta.failed", "%d %d %d %d %d", VProbKind::problem,
     "@&!*@*@(orn.problem.clock.correction.delta.failed)system clock step to %d.%09d failed, delta %d > %d seconds, number of large corrections > %d"},
    {"kel.clock.correction.delta.allowed", "%d %d %d %d", VProbKind::problem,
     "@&!*@*@(orn.problem.clock.correction.delta.allowed)system clock stepped to %d.%09d, but delta %d > %d seconds"},
});
constexpr auto kSyncRows = table("kel.clock.", {
    {"kel.clock.correction.step.unsync", "%d %d", VProbKind::problem,
     "@&!*@*@(orn.problem.clock.correction.step.unsync)system clock stepped to %d.%09d, lost sync to upstream time servers"},
    {"kel.clock.correction.adjtime.sync", "", VProbKind::problem,
     "@&!*@*@(orn.problem.clock.correction.adjtime.sync)system clock synchronized to upstream time servers"},
    {"kel.clock.correction.adjtime.unsync", "", VProbKind::problem,
     "@&!*@*@(orn.problem.clock.correction.adjtime.unsync)system clock lost synchronization to upstream time servers"},
    {"kel.clock.correction.adjtime.lostsync", "", VProbKind::problem,
     "@&!*@*@(orn.problem.clock.correction.adjtime.lostsync)system clock apparently no longer synchronized to upstream time servers"},
});
// clang-format on

constexpr std::string_view kGroupPrefix = "kel.clock.";
constexpr const char* kSynchronised = "kel.clock.correction.adjtime.sync";

constexpr auto kClockRows = joinTables(kParameterRows, kDeltaRows, kSyncRows);

namespace why {

using Number = std::int64_t;

constexpr Decides<> kNever{DecisionKind::concludes, "clock.never", "never posted before, so not held off"};
constexpr Decides<> kFree{DecisionKind::concludes, "clock.free",
                          "never posted before, or not since the last loss of synchronisation, so not held off"};
constexpr Decides<Number, Number> kOver{DecisionKind::concludes, "clock.over",
                                        "not held off: last posted {} s ago, limit {} s"};
constexpr Decides<Number> kBegins{DecisionKind::concludes, "clock.begins", "posted: held off for {} s from now on", -1};
constexpr Decides<Number, Number> kHeld{DecisionKind::holds, "clock.held",
                                        "held off: last posted {} s ago, limit {} s"};
constexpr Decides<Number, Number> kAhead{
    DecisionKind::holds, "clock.ahead",
    "held off: last posted {} s ahead of the clock, which was set back; limit {} s"};
constexpr Decides<std::string_view> kRearmed{DecisionKind::forgets, "clock.rearmed",
                                             "held off no longer: {} was posted, a loss of synchronisation"};

constexpr const Decision* kAll[] = {&kNever, &kFree, &kOver, &kBegins, &kHeld, &kAhead, &kRearmed};

}  // namespace why

void reportUnknown(const Kel* observation) {
  if (const char* const id = identifierOf(observation)) Log("No system clock correlator for %s\n", id);
}

class ClockCorrelator final : public Correlator {
 public:
  explicit ClockCorrelator(Services& services) : services_(services) {}

  [[nodiscard]] HandlerTable handlers() override {
    HandlerTable handlers;
    add<kParameterRows>(handlers, parameters_, false);
    add<kDeltaRows>(handlers, deltas_, false);
    add<kSyncRows>(handlers, synchronisation_, true);
    return handlers;
  }
  [[nodiscard]] Handler fallback() override { return reportUnknown; }

 private:
  /// Rows that share a hold-off; those `aboutSync` but the regain itself are losses.
  template <const auto& kRows>
  void add(HandlerTable& handlers, HourlyHoldOff& holdOff, bool aboutSync) {
    static constexpr auto kTranslations = translations<kRows>();
    for (std::size_t n = 0; n < kRows.size(); ++n) {
      const std::string id(kRows[n].observation);
      const bool loss = aboutSync && id != kSynchronised;
      handlers.emplace(id, [this, id, loss, &holdOff, translate = kTranslations[n]](const Kel* observation) {
        report(id, loss, holdOff, translate, observation);
      });
    }
  }

  void report(const std::string& id, bool loss, HourlyHoldOff& holdOff, Translate translate, const Kel* observation) {
    const char* given = nullptr;
    Kel_GetID(observation, &given);
    if (given == nullptr) return;
    DecisionListener* const decisions = services_.decisions;
    const std::string_view subject = shortName(id);
    const std::int64_t now = services_.nowSeconds();
    const bool allowed = holdOff.allows(id, now);
    if (decisions != nullptr) tell(id, allowed, holdOff.age(id, now), now);
    if (!allowed) return;
    if (!translate(services_.post, OnUnreadable::silent, observation)) return;
    why::kBegins.report(decisions, subject, HourlyHoldOff::kPeriodSeconds);
    if (loss) {
      why::kRearmed.report(decisions, shortName(kSynchronised), subject);
      holdOff.rearm(kSynchronised);
    }
    holdOff.posted(id, now);
  }

  static std::string_view shortName(std::string_view id) { return id.substr(kGroupPrefix.size()); }

  void tell(const std::string& id, bool allowed, std::optional<std::int64_t> age, std::int64_t now) const {
    constexpr std::int64_t kLimit = HourlyHoldOff::kPeriodSeconds;
    DecisionListener* const decisions = services_.decisions;
    const std::string_view subject = shortName(id);
    if (allowed && !age) {
      (id == kSynchronised ? why::kFree : why::kNever).report(decisions, subject);
    } else if (allowed) {
      why::kOver.report(decisions, subject, *age, kLimit);
    } else if (const std::int64_t ago = age.value_or(now); ago < 0) {
      why::kAhead.report(decisions, subject, -ago, kLimit);
    } else {
      why::kHeld.report(decisions, subject, ago, kLimit);
    }
  }

  Services& services_;
  HourlyHoldOff parameters_;
  HourlyHoldOff deltas_;
  HourlyHoldOff synchronisation_;
};

constexpr const char* kGroups[] = {"clock"};

}  // namespace

constinit const CorrelatorInfo kClockCorrelator = {
    "Clock", kGroups, {}, runPlain<kClockCorrelator>, kClockRows, {}, makeCorrelator<ClockCorrelator>, why::kAll};

}  // namespace keld
