// The storage correlator watches the paths to storage devices. A usable path ("on", "standby") that goes
// down is reported with what it leaves of its device's redundancy, and its return only where the loss
// was. Paths that change or reset ten times in a short while are reported as a problem of their own.
//
//              on, standby ── off, dead (1) ──▶ reported down, unless the state is 0
//                   ▲                                    │
//                   └──────── on, standby (2) ───────────┘
//
// (1) state 1: connectivity lost, 2: redundancy lost, 3: degraded.
// (2) state 2: connectivity restored, 3: redundancy restored.
#include "keldScsiCorrelator.h"

#include <optional>

#include "keldArguments.h"
#include "keldLog.h"
#include "keldScsiRows.h"
#include "keldStorage.h"

namespace keld {

namespace {

constexpr const char* kSource = "apps/keld/keldScsiCorrelator";
constexpr int kImpossibleStateLine = 1050;
constexpr const char* kUnknown = "Unknown";
constexpr const char* kNone = "None";

constexpr std::uint32_t kNotTold = 0;
constexpr std::uint32_t kNoUsablePath = 1;
constexpr std::uint32_t kOneUsablePath = 2;
constexpr std::uint32_t kMoreUsablePaths = 3;

namespace why {

using Number = std::int64_t;
using Name = std::string_view;

constexpr Decides<Name> kWasNotUsable{DecisionKind::holds, "scsi.path.was-not-usable",
                                      "no event: previous state \"{}\" was not usable"};
constexpr Decides<Name> kWasNotDown{DecisionKind::holds, "scsi.path.was-not-down",
                                    "no event: previous state \"{}\" was not down"};
constexpr Decides<> kPathUnknown{DecisionKind::holds, "scsi.path.unknown",
                                 "no event: the path's device cannot be looked up"};
constexpr Decides<Name> kDeviceUnknown{DecisionKind::holds, "scsi.path.device-unknown",
                                       "no event: device {} cannot be looked up"};
constexpr Decides<Number, Name> kRedundancyNotTold{DecisionKind::holds, "scsi.path.redundancy-not-told",
                                                   "no event: redundancy state {} of device {} tells nothing"};
constexpr Decides<Number, Name> kConnectivityLost{DecisionKind::concludes, "scsi.path.connectivity-lost",
                                                  "redundancy state {} of device {}: connectivity lost"};
constexpr Decides<Number, Name> kRedundancyLost{DecisionKind::concludes, "scsi.path.redundancy-lost",
                                                "redundancy state {} of device {}: redundancy lost"};
constexpr Decides<Number, Name> kRedundancyDegraded{DecisionKind::concludes, "scsi.path.redundancy-degraded",
                                                    "redundancy state {} of device {}: redundancy degraded"};
constexpr Decides<Number, Name> kOddState{
    DecisionKind::holds, "scsi.path.odd-state",
    "no event: redundancy state {} of device {} is none that is reported; the path counts as reported down"};
constexpr Decides<Name> kNotReportedDown{DecisionKind::holds, "scsi.path.not-reported-down",
                                         "no event: the path was not reported down for device {}"};
constexpr Decides<Name> kMarkDropped{DecisionKind::forgets, "scsi.path.mark-dropped",
                                     "no longer counts as reported down for device {}"};
constexpr Decides<Number, Name> kStillLost{DecisionKind::holds, "scsi.path.still-lost",
                                           "no event: redundancy state {} of device {}: no usable path"};
constexpr Decides<Number, Name> kConnectivityRestored{DecisionKind::concludes, "scsi.path.connectivity-restored",
                                                      "redundancy state {} of device {}: connectivity restored"};
constexpr Decides<Number, Name> kRedundancyRestored{DecisionKind::concludes, "scsi.path.redundancy-restored",
                                                    "redundancy state {} of device {}: redundancy restored"};
constexpr Decides<Name> kFrequentChanges{DecisionKind::concludes, "scsi.frequency.changes",
                                         "frequent state changes reported, device {}"};
constexpr Decides<Name> kFrequentResets{DecisionKind::concludes, "scsi.frequency.path-resets",
                                        "frequent power-on resets reported, device {}"};
constexpr Decides<> kFrequentDeviceResets{DecisionKind::concludes, "scsi.frequency.device-resets",
                                          "frequent power-on resets reported of the device, as no path has this name"};

constexpr const Decision* kAll[] = {
    &kWasNotUsable,
    &kWasNotDown,
    &kPathUnknown,
    &kDeviceUnknown,
    &kRedundancyNotTold,
    &kConnectivityLost,
    &kRedundancyLost,
    &kRedundancyDegraded,
    &kOddState,
    &kNotReportedDown,
    &kMarkDropped,
    &kStillLost,
    &kConnectivityRestored,
    &kRedundancyRestored,
    &kFrequentChanges,
    &kFrequentResets,
    &kFrequentDeviceResets,
    &frequencyWhy::kReset,
    &frequencyWhy::kAged,
    &frequencyWhy::kFirstAged,
    &frequencyWhy::kRemoved,
    &frequencyWhy::kNotCounted,
    &frequencyWhy::kBelow,
    &frequencyWhy::kReached,
    &frequencyWhy::kAbove,
};

}  // namespace why

struct PathState {
  std::string path;
  std::string previous;
};

std::optional<PathState> readPathState(const Kel* observation) {
  Arguments arguments(observation);
  PathState read{arguments.text(), arguments.text()};
  if (arguments.failed()) return std::nullopt;
  return read;
}

bool isUsable(const std::string& state) {
  return state == "on" || state == "standby";
}
bool isDown(const std::string& state) {
  return state == "off" || state == "dead";
}

std::string affectedDatastores(const std::string& device) {
  return GetAffectedDatastores(device).value_or(kUnknown);
}

void postAffecting(Post& post, const AffectingRow& row, const Kel* observation) {
  const char* device = nullptr;
  if (const int status = Kel_GetStringArg(observation, 0, &device); status != 0) {
    logUnreadable(row.unreadable, status);
    return;
  }
  std::optional<std::string> datastores = GetAffectedDatastores(device != nullptr ? device : "");
  if (!datastores) datastores = kUnknown;
  if (datastores->empty()) datastores = kNone;
  row.event->post(post, device, datastores->c_str());
}

}  // namespace

HandlerTable ScsiCorrelator::handlers() {
  HandlerTable handlers;
  addRows<kScsiParameterRows>(handlers, services_.post, OnUnreadable::failedToGetParams);
  addRows<kScsiCorrelateRows>(handlers, services_.post, OnUnreadable::failedToCorrelate);
  addRows<kScsiNamedRows>(handlers, services_.post, OnUnreadable::silent);
  for (const AffectingRow& row : kAffectingRows) {
    handlers.emplace(row.observation,
                     [this, &row](const Kel* observation) { postAffecting(services_.post, row, observation); });
  }
  const auto add = [&](const char* id, void (ScsiCorrelator::*handler)(const Kel*)) {
    handlers.emplace(id, [this, handler](const Kel* observation) { (this->*handler)(observation); });
  };
  add("kel.scsi.scsipath.pathstate.dead", &ScsiCorrelator::pathDown);
  add("kel.scsi.scsipath.pathstate.off", &ScsiCorrelator::pathDown);
  add("kel.scsi.scsipath.pathstate.on", &ScsiCorrelator::pathUp);
  add("kel.scsi.scsipath.pathstate.standby", &ScsiCorrelator::pathUp);
  add("kel.scsi.scsipath.add", &ScsiCorrelator::pathAddedOrRemoved);
  add("kel.scsi.scsipath.remove", &ScsiCorrelator::pathAddedOrRemoved);
  add("kel.scsi.scsipath.por", &ScsiCorrelator::powerOnReset);
  add("kel.scsi.scsipath.badpath.unsafepe", &ScsiCorrelator::badPath);
  add("kel.scsi.scsipath.badpath.unreachpe", &ScsiCorrelator::badPath);
  return handlers;
}

std::optional<std::string> ScsiCorrelator::deviceBehind(const std::string& path) const {
  std::optional<std::string> device = deviceOfPath(path);
  if (!device) why::kPathUnknown.report(services_.decisions, path);
  return device;
}

std::optional<std::uint32_t> ScsiCorrelator::redundancyState(const std::string& device, const std::string& path) const {
  const std::optional<std::uint32_t> state = pathRedundancyState(device);
  if (!state) why::kDeviceUnknown.report(services_.decisions, path, device);
  return state;
}

/// The datastores of a frequent event's device.
std::optional<std::string> ScsiCorrelator::datastoresOfKnown(const std::string& device, const std::string& path) const {
  const auto state = redundancyState(device, path);
  if (!state) return std::nullopt;
  return *state == kNotTold ? kUnknown : affectedDatastores(device);
}

void ScsiCorrelator::pathDown(const Kel* observation) {
  const auto change = readPathState(observation);
  if (!change) return;
  const std::string& path = change->path;
  DecisionListener* const decisions = services_.decisions;
  trackPathStateChange(path, PathFrequency::Change::happened);
  if (!isUsable(change->previous)) {
    why::kWasNotUsable.report(decisions, path, change->previous);
    return;
  }
  const auto device = deviceBehind(path);
  if (!device) return;
  const auto state = redundancyState(*device, path);
  if (!state) return;
  if (*state == kNotTold) {
    why::kRedundancyNotTold.report(decisions, path, *state, *device);
    return;
  }
  const std::string datastores = affectedDatastores(*device);
  const auto post = [&](const auto& decision, const auto& event) {
    decision.report(decisions, path, *state, *device);
    event.post(services_.post, device->c_str(), path.c_str(), datastores.c_str());
  };
  if (*state == kNoUsablePath) post(why::kConnectivityLost, kPathConnectivityLost);
  if (*state == kOneUsablePath) post(why::kRedundancyLost, kPathRedundancyLost);
  if (*state == kMoreUsablePaths) post(why::kRedundancyDegraded, kPathRedundancyDegraded);
  if (*state > kMoreUsablePaths) why::kOddState.report(decisions, path, *state, *device);
  // Kept: also where a state beyond these was reported by nothing.
  pathDownReported_[path + *device] = 1;
}

void ScsiCorrelator::pathUp(const Kel* observation) {
  const auto change = readPathState(observation);
  if (!change) return;
  const std::string& path = change->path;
  DecisionListener* const decisions = services_.decisions;
  trackPathStateChange(path, PathFrequency::Change::happened);
  if (!isDown(change->previous)) {
    why::kWasNotDown.report(decisions, path, change->previous);
    return;
  }
  const auto device = deviceBehind(path);
  if (!device) return;
  // Kept: a path that was never reported down leaves its entry behind.
  const std::string key = path + *device;
  if (pathDownReported_[key] == 0) {
    why::kNotReportedDown.report(decisions, path, *device);
    return;
  }
  pathDownReported_.erase(key);
  why::kMarkDropped.report(decisions, path, *device);
  reportUp(path, *device);
}

void ScsiCorrelator::reportUp(const std::string& path, const std::string& device) const {
  DecisionListener* const decisions = services_.decisions;
  const auto state = redundancyState(device, path);
  if (!state) return;
  if (*state == kNotTold) {
    why::kRedundancyNotTold.report(decisions, path, *state, device);
    return;
  }
  const std::string datastores = affectedDatastores(device);
  const auto post = [&](const auto& decision, const auto& event) {
    decision.report(decisions, path, *state, device);
    event.post(services_.post, device.c_str(), datastores.c_str(), path.c_str());
  };
  switch (*state) {
    case kNoUsablePath:
      why::kStillLost.report(decisions, path, *state, device);
      break;
    case kOneUsablePath:
      post(why::kConnectivityRestored, kPathConnectivityRestored);
      break;
    case kMoreUsablePaths:
      post(why::kRedundancyRestored, kPathRedundancyRestored);
      break;
    default:
      Panic("NOT_REACHED %s:%d\n", kSource, kImpossibleStateLine);
  }
}

void ScsiCorrelator::trackPathStateChange(const std::string& path, PathFrequency::Change change) {
  if (!pathStateChanges_.track(path, change, services_.nowSeconds(), services_.decisions)) return;
  const auto device = deviceBehind(path);
  if (!device) return;
  const auto datastores = datastoresOfKnown(*device, path);
  if (!datastores) return;
  why::kFrequentChanges.report(services_.decisions, path, *device);
  kFrequentPathStateChanges.post(services_.post, path.c_str(), device->c_str(), datastores->c_str());
}

void ScsiCorrelator::pathAddedOrRemoved(const Kel* observation) {
  const char* const id = identifierOf(observation);
  if (id == nullptr) return;
  const char* path = nullptr;
  if (const int status = Kel_GetStringArg(observation, 0, &path); status != 0) {
    Log("Failed to get path add remove path name: %d\n", status);
    return;
  }
  const std::string name = path != nullptr ? path : "";
  if (Kel_IsID(id, "kel.scsi.scsipath.add")) {
    trackPathStateChange(name, PathFrequency::Change::added);
  } else if (Kel_IsID(id, "kel.scsi.scsipath.remove")) {
    trackPathStateChange(name, PathFrequency::Change::removed);
  } else {
    Log("Unknown KEL ID: %s\n", id);
  }
}

void ScsiCorrelator::powerOnReset(const Kel* observation) {
  Arguments arguments(observation);
  const std::string name = arguments.text();
  if (arguments.failed()) return;
  DecisionListener* const decisions = services_.decisions;
  if (!powerOnResets_.track(name, PathFrequency::Change::happened, services_.nowSeconds(), decisions)) return;
  const auto deviceBehindPath = deviceOfPath(name);
  const std::string device = deviceBehindPath.value_or(name);
  const auto datastores = datastoresOfKnown(device, name);
  if (!datastores) return;
  if (deviceBehindPath) {
    why::kFrequentResets.report(decisions, name, device);
    kFrequentPathResets.post(services_.post, name.c_str(), device.c_str(), datastores->c_str());
  } else {
    why::kFrequentDeviceResets.report(decisions, name);
    kFrequentDeviceResets.post(services_.post, device.c_str(), datastores->c_str());
  }
}

void ScsiCorrelator::badPath(const Kel* observation) {
  const char* const id = identifierOf(observation);
  if (id == nullptr) return;
  const char* path = nullptr;
  if (const int status = Kel_GetStringArg(observation, 0, &path); status != 0) {
    logUnreadable(kNoPathName[0], status);
    return;
  }
  if (Kel_IsID(id, "kel.scsi.scsipath.badpath.unsafepe")) {
    kBadPathUnsafe.post(services_.post, path);
  } else if (Kel_IsID(id, "kel.scsi.scsipath.badpath.unreachpe")) {
    const char* adapter = nullptr;
    if (const int status = Kel_GetStringArg(observation, 1, &adapter); status != 0) {
      Log("Failed to get PE-incapable adapter name for path %s : %d\n", path, status);
      return;
    }
    kBadPathUnreachable.post(services_.post, path, adapter);
  } else {
    Log("Unknown KEL ID: %s\n", id);
  }
}

namespace {

constexpr const char* kGroups[] = {"scsi"};

}  // namespace

constinit const CorrelatorInfo kScsiCorrelator = {
    "scsi", kGroups, {}, runPlain<kScsiCorrelator>, kScsiRows, kScsiJudged, makeCorrelator<ScsiCorrelator>, why::kAll};

}  // namespace keld
