// The VFAT correlator watches volumes that run full, the host's scratch partition among them. A volume
// is reported again only after five minutes of quiet.
#include "keldVfatCorrelator.h"

#include <unistd.h>

#include <array>
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
  if (!quietPeriods_.observe(key, services_.nowSeconds())) return;
  const auto& event = key == scratchUuid() ? kScratchFull : kOtherFull;
  event.post(services_.post, name, uuid);
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
    "Vfat", kGroups, {}, runPlain<kVfatCorrelator>, {}, kVfatJudged, makeCorrelator<VfatCorrelator>};

}  // namespace keld
