// The VFAT correlator watches volumes that run full, the host's scratch partition among them. A volume
// is reported again only after five minutes of quiet.
#include "keldVfatCorrelator.h"

#include <unistd.h>

#include <array>
#include <optional>
#include <string_view>
#include <utility>

namespace keld {

namespace {

/// As much of the link's target as is looked at.
constexpr std::size_t kTargetBytes = 4095;

// clang-format off
constexpr Event<Text, Text> kScratchFull{VProbKind::problem,
    "@&!*@*@(orn.problem.vfat.filesystem.full.scratch)The host's scratch partition, which is the VFAT filesystem %s (UUID %s), is full."};
constexpr Event<Text, Text> kOtherFull{VProbKind::problem,
    "@&!*@*@(orn.problem.vfat.filesystem.full.other)The VFAT filesystem %s (UUID %s) is full."};
// clang-format on

constexpr const EventInfo* kFullEvents[] = {&kScratchFull, &kOtherFull};
constexpr Judged kVfatJudged[] = {{"kel.vfat.filesystem.full", "%p %p", kFullEvents}};

namespace why {

using Number = std::int64_t;
using Name = std::string_view;

constexpr Decides<Name, Number> kNever{DecisionKind::concludes, "vfat.quiet.never",
                                       "{}: never seen before, so not held off; limit {} s", -2};
constexpr Decides<Name, Number, Number> kOver{DecisionKind::concludes, "vfat.quiet.over",
                                              "{}: not held off, last seen {} s ago, limit {} s", -3};
constexpr Decides<Name, Number, Number> kHeld{DecisionKind::holds, "vfat.quiet.held",
                                              "{}: held off, last seen {} s ago, limit {} s", -3};
constexpr Decides<Name, Number, Number> kAhead{
    DecisionKind::holds, "vfat.quiet.ahead",
    "{}: held off, last seen {} s ahead of the clock, which was set back; limit {} s", -3};
constexpr Decides<> kScratch{DecisionKind::concludes, "vfat.scratch", "its UUID is that of the scratch partition"};
constexpr Decides<Name> kOther{DecisionKind::concludes, "vfat.other",
                               "its UUID is not that of the scratch partition, \"{}\""};

constexpr HoldOffDecisions kQuiet{kNever, kOver, kHeld, kAhead};
constexpr const Decision* kAll[] = {&kNever, &kOver, &kHeld, &kAhead, &kScratch, &kOther};

}  // namespace why

}  // namespace

VfatCorrelator::VfatCorrelator(Services& services, std::string scratch)
    : services_(services), scratch_(std::move(scratch)) {}

HandlerTable VfatCorrelator::handlers() {
  return {{"kel.vfat.filesystem.full", [this](const Kel* observation) { full(observation); }}};
}

void VfatCorrelator::full(const Kel* observation) {
  Text name = nullptr, uuid = nullptr;
  if (Kel_GetArgs(observation, 0, "%p %p", &name, &uuid) != 0) return;
  const std::string key = uuid != nullptr ? uuid : "";
  DecisionListener* const decisions = services_.decisions;
  const std::int64_t now = services_.nowSeconds();
  const auto age = decisions != nullptr ? quietPeriods_.quiet(key, now) : std::nullopt;
  const bool quiet = quietPeriods_.observe(key, now);
  why::kQuiet.report(decisions, key, "full", quiet, age, QuietPeriod::kQuietSeconds, now);
  if (!quiet) return;
  const std::string scratch = scratchUuid();
  if (key == scratch) {
    why::kScratch.report(decisions, key);
    kScratchFull.post(services_.post, name, uuid);
  } else {
    why::kOther.report(decisions, key, scratch);
    kOtherFull.post(services_.post, name, uuid);
  }
}

/// Read afresh each time: the scratch partition may be moved while the daemon runs.
std::string VfatCorrelator::scratchUuid() const {
  std::array<char, kTargetBytes> target{};
  const ssize_t length = readlink(scratch_.c_str(), target.data(), target.size());
  const std::string path = length >= 0 ? std::string(target.data(), static_cast<std::size_t>(length)) : scratch_;
  return path.substr(path.rfind('/') + 1);
}

namespace {

constexpr const char* kGroups[] = {"vfat"};

}  // namespace

constinit const CorrelatorInfo kVfatCorrelator = {
    "Vfat", kGroups, {}, runPlain<kVfatCorrelator>, {}, kVfatJudged, makeCorrelator<VfatCorrelator>, why::kAll};

}  // namespace keld
