// The correlator of the root file system in memory. Its conditions tend to be reported over and over:
// each is an event only after five minutes of quiet. Whatever it does not know is a failure, too.
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
    if (fullPeriods_.observe(file != nullptr ? file : "", services_.nowSeconds())) {
      kRamdiskFull.post(services_.post, ramdisk, file);
    }
  }

  void inodeTableFull(const Kel* observation) {
    Text file = nullptr, ramdisk = nullptr, application = nullptr, unused = nullptr;
    if (Kel_GetArgs(observation, 0, "%p %p %p %p", &file, &ramdisk, &application, &unused) != 0) return;
    if (inodePeriods_.observe(file != nullptr ? file : "", services_.nowSeconds())) {
      kInodeTableFull.post(services_.post, ramdisk, file, application);
    }
  }

  void failure(const Kel* observation) {
    logObservation(observation);
    if (failurePeriod_.observe(services_.nowSeconds())) kFailure.post(services_.post);
  }

  Services& services_;
  QuietPeriods fullPeriods_;
  QuietPeriods inodePeriods_;
  QuietPeriod failurePeriod_;
};

constexpr const char* kGroups[] = {"memfs"};

}  // namespace

constinit const CorrelatorInfo kMemfsCorrelator = {
    "Memfs", kGroups, {}, runPlain<kMemfsCorrelator>, {}, kMemfsJudged, makeCorrelator<MemfsCorrelator>};

}  // namespace keld
