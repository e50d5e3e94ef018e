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

/// The datastores of a frequent event's device; nothing where the device is not known.
std::optional<std::string> datastoresOfKnown(const std::string& device) {
  const auto state = pathRedundancyState(device);
  if (!state) return std::nullopt;
  return *state == kNotTold ? kUnknown : affectedDatastores(device);
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

void ScsiCorrelator::pathDown(const Kel* observation) {
  const auto change = readPathState(observation);
  if (!change) return;
  trackPathStateChange(change->path, PathFrequency::Change::happened);
  if (!isUsable(change->previous)) return;
  const auto device = deviceOfPath(change->path);
  if (!device) return;
  const auto state = pathRedundancyState(*device);
  if (!state || *state == kNotTold) return;
  const std::string datastores = affectedDatastores(*device);
  const auto post = [&](const auto& event) {
    event.post(services_.post, device->c_str(), change->path.c_str(), datastores.c_str());
  };
  if (*state == kNoUsablePath) post(kPathConnectivityLost);
  if (*state == kOneUsablePath) post(kPathRedundancyLost);
  if (*state == kMoreUsablePaths) post(kPathRedundancyDegraded);
  // Kept: also where a state beyond these was reported by nothing.
  pathDownReported_[change->path + *device] = 1;
}

void ScsiCorrelator::pathUp(const Kel* observation) {
  const auto change = readPathState(observation);
  if (!change) return;
  trackPathStateChange(change->path, PathFrequency::Change::happened);
  if (!isDown(change->previous)) return;
  const auto device = deviceOfPath(change->path);
  if (!device) return;
  // Kept: a path that was never reported down leaves its entry behind.
  const std::string key = change->path + *device;
  if (pathDownReported_[key] == 0) return;
  pathDownReported_.erase(key);
  const auto state = pathRedundancyState(*device);
  if (!state || *state == kNotTold) return;
  const std::string datastores = affectedDatastores(*device);
  const auto post = [&](const auto& event) {
    event.post(services_.post, device->c_str(), datastores.c_str(), change->path.c_str());
  };
  switch (*state) {
    case kNoUsablePath:
      break;
    case kOneUsablePath:
      post(kPathConnectivityRestored);
      break;
    case kMoreUsablePaths:
      post(kPathRedundancyRestored);
      break;
    default:
      Panic("NOT_REACHED %s:%d\n", kSource, kImpossibleStateLine);
  }
}

void ScsiCorrelator::trackPathStateChange(const std::string& path, PathFrequency::Change change) {
  if (!pathStateChanges_.track(path, change, services_.nowSeconds())) return;
  const auto device = deviceOfPath(path);
  if (!device) return;
  const auto datastores = datastoresOfKnown(*device);
  if (!datastores) return;
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
  if (!powerOnResets_.track(name, PathFrequency::Change::happened, services_.nowSeconds())) return;
  const auto deviceBehindPath = deviceOfPath(name);
  const std::string device = deviceBehindPath.value_or(name);
  const auto datastores = datastoresOfKnown(device);
  if (!datastores) return;
  if (deviceBehindPath) {
    kFrequentPathResets.post(services_.post, name.c_str(), device.c_str(), datastores->c_str());
  } else {
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
    "scsi", kGroups, {}, runPlain<kScsiCorrelator>, kScsiRows, kScsiJudged, makeCorrelator<ScsiCorrelator>};

}  // namespace keld
