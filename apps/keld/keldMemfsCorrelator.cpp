// The correlator of the root file system in memory. Its conditions tend to be reported over and over:
// each is an event only after five minutes of quiet. Whatever it does not know is a failure, too.
#include <optional>
#include <string_view>

#include "keldCorrelator.h"
#include "keldHoldOff.h"
#include "keldLog.h"

namespace keld {

namespace {

// clang-format off
constexpr Event<Text, Text> kRamdiskFull{VProbKind::problem,
    "@&!*@*@(orn.problem.memfs.ramdisk.full)The ramdisk '%s' is full.  As a result, the file %s could not be written."};
constexpr Event<Text, Text, Text> kInodeTableFull{VProbKind::problem,
    "@&!*@*@(orn.problem.memfs.ramdisk.inodetable.full)The file table of the ramdisk '%s' is full.  As a result, the file %s could not be created by the application '%s'."};
constexpr Event<> kFailure{VProbKind::problem,
    "@&!*@*@(orn.problem.memfs.failure)An operation on the root filesystem has failed."};
// clang-format on

constexpr const EventInfo* kRamdiskFullEvents[] = {&kRamdiskFull};
constexpr const EventInfo* kInodeTableFullEvents[] = {&kInodeTableFull};
constexpr const EventInfo* kFailureEvents[] = {&kFailure};
constexpr Judged kMemfsJudged[] = {
    {"kel.memfs.tardisk.readonlyfile", "", {}},
    {"kel.memfs.ramdisk.full", "%p %p", kRamdiskFullEvents},
    {"kel.memfs.ramdisk.inodetable.full", "%p %p %p %p", kInodeTableFullEvents},
    {"kel.memfs.*", "", kFailureEvents},
};

namespace why {

using Number = std::int64_t;
using Name = std::string_view;

constexpr Decides<Name, Number> kNever{DecisionKind::concludes, "memfs.quiet.never",
                                       "{}: never seen before, so not held off; limit {} s", -2};
constexpr Decides<Name, Number, Number> kOver{DecisionKind::concludes, "memfs.quiet.over",
                                              "{}: not held off, last seen {} s ago, limit {} s", -3};
constexpr Decides<Name, Number, Number> kHeld{DecisionKind::holds, "memfs.quiet.held",
                                              "{}: held off, last seen {} s ago, limit {} s", -3};
constexpr Decides<Name, Number, Number> kAhead{
    DecisionKind::holds, "memfs.quiet.ahead",
    "{}: held off, last seen {} s ahead of the clock, which was set back; limit {} s", -3};

constexpr HoldOffDecisions kQuiet{kNever, kOver, kHeld, kAhead};
constexpr const Decision* kAll[] = {&kNever, &kOver, &kHeld, &kAhead};

}  // namespace why

class MemfsCorrelator final : public Correlator {
 public:
  explicit MemfsCorrelator(Services& services) : services_(services) {}

  [[nodiscard]] HandlerTable handlers() override {
    return {{"kel.memfs.tardisk.readonlyfile", [](const Kel*) {}},
            {"kel.memfs.ramdisk.full", [this](const Kel* observation) { ramdiskFull(observation); }},
            {"kel.memfs.ramdisk.inodetable.full", [this](const Kel* observation) { inodeTableFull(observation); }}};
  }
  [[nodiscard]] Handler fallback() override {
    return [this](const Kel* observation) { failure(observation); };
  }

 private:
  void ramdiskFull(const Kel* observation) {
    Text file = nullptr, ramdisk = nullptr;
    if (Kel_GetArgs(observation, 0, "%p %p", &file, &ramdisk) != 0) return;
    if (quiet(fullPeriods_, file != nullptr ? file : "", "ramdisk full")) {
      kRamdiskFull.post(services_.post, ramdisk, file);
    }
  }

  void inodeTableFull(const Kel* observation) {
    Text file = nullptr, ramdisk = nullptr, application = nullptr, unused = nullptr;
    if (Kel_GetArgs(observation, 0, "%p %p %p %p", &file, &ramdisk, &application, &unused) != 0) return;
    if (quiet(inodePeriods_, file != nullptr ? file : "", "file table full")) {
      kInodeTableFull.post(services_.post, ramdisk, file, application);
    }
  }

  void failure(const Kel* observation) {
    logObservation(observation);
    DecisionListener* const decisions = services_.decisions;
    const std::int64_t now = services_.nowSeconds();
    const auto age = failurePeriod_.quiet(now);
    const bool quiet = failurePeriod_.observe(now);
    why::kQuiet.report(decisions, "", "failure", quiet, age, QuietPeriod::kQuietSeconds, now);
    if (quiet) kFailure.post(services_.post);
  }

  /// Whether the observation of `file` is to be reported.
  bool quiet(QuietPeriods& periods, std::string_view file, std::string_view what) {
    DecisionListener* const decisions = services_.decisions;
    const std::int64_t now = services_.nowSeconds();
    const auto age = decisions != nullptr ? periods.quiet(file, now) : std::nullopt;
    const bool quiet = periods.observe(file, now);
    why::kQuiet.report(decisions, file, what, quiet, age, QuietPeriod::kQuietSeconds, now);
    return quiet;
  }

  Services& services_;
  QuietPeriods fullPeriods_;
  QuietPeriods inodePeriods_;
  QuietPeriod failurePeriod_;
};

constexpr const char* kGroups[] = {"memfs"};

}  // namespace

constinit const CorrelatorInfo kMemfsCorrelator = {
    "Memfs", kGroups, {}, runPlain<kMemfsCorrelator>, {}, kMemfsJudged, makeCorrelator<MemfsCorrelator>, why::kAll};

}  // namespace keld
