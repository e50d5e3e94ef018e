// The clock correlator watches the discipline of the system clock: parameters set, state reset, large
// steps, synchronisation gained and lost. Each identifier is reported at most once an hour; a loss of
// synchronisation lets the next regain be reported however soon it comes.
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

constexpr const char* kSynchronised = "kel.clock.correction.adjtime.sync";

constexpr auto kClockRows = joinTables(kParameterRows, kDeltaRows, kSyncRows);

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
    const std::int64_t now = services_.nowSeconds();
    if (!holdOff.allows(id, now)) return;
    if (!translate(services_.post, OnUnreadable::silent, observation)) return;
    if (loss) holdOff.rearm(kSynchronised);
    holdOff.posted(id, now);
  }

  Services& services_;
  HourlyHoldOff parameters_;
  HourlyHoldOff deltas_;
  HourlyHoldOff synchronisation_;
};

constexpr const char* kGroups[] = {"clock"};

}  // namespace

constinit const CorrelatorInfo kClockCorrelator = {
    "Clock", kGroups, {}, runPlain<kClockCorrelator>, kClockRows, {}, makeCorrelator<ClockCorrelator>};

}  // namespace keld
