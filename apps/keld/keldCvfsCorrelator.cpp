// The cluster file system's correlator watches the host's shared datastores: volume locks, extents that
// go and come back, mounts, inconsistent lock modes, heartbeats, corruption, and NFS servers. Each
// observation is one event; many name their file system by a UUID, which is shown as text.
#include <algorithm>
#include <array>
#include <iterator>
#include <tuple>

#include "keldCorrelator.h"
#include "keldFileSystemUuid.h"
#include "keldLog.h"

namespace keld {

namespace {

constexpr const char* kSource = "apps/keld/keldCvfsCorrelator";
constexpr int kHeartbeatLine = 151;
constexpr int kNfsServerLine = 775;

// clang-format off
constexpr auto kSilentRows = table("kel.cvfs.", {
    {"kel.cvfs.error.volume.is.locked", "%p", VProbKind::problem,
     "@&!*@*@(orn.problem.cvfs.error.volume.is.locked)Volume on device %s is locked, possibly because some remote host encountered an error during a volume operation and could not recover."},
    {"kel.cvfs.extent.online", "%p %p", VProbKind::problem,
     "@&!*@*@(orn.problem.cvfs.extent.online)Device %s backing file system %s came online. This extent was previously offline. All resources on this device are now available."},
    {"kel.cvfs.volume.mounted", "%p %p %p", VProbKind::audit,
     "@&!*@*@(orn.audit.cvfs.volume.mounted)File system %s on volume %s has been mounted in '%s' mode. The datastore is now accessible on this host."},
    {"kel.cvfs.volume.umounted", "%p %p", VProbKind::audit,
     "@&!*@*@(orn.audit.cvfs.volume.umounted)File system %s on volume %s has been safely un-mounted. The datastore is no longer accessible on this host."},
    {"kel.cvfs.ats.support.lost", "%p", VProbKind::problem,
     "@&!*@*@(orn.problem.cvfs.ats.support.lost)ATS-Only CVFS volume '%s' will not be mounted. Host does notsupport ATS or ATS intialization has failed."},
    {"kel.cvfs.lock.busy.filename", "%p", VProbKind::problem,
     "@&!*@*@(orn.problem.cvfs.lock.busy.filename)Lock(s) held on file %s by other host(s)"},
    {"kel.cvfs.lock.busy.filedesc", "%p %p %u %u %p", VProbKind::problem,
     "@&!*@*@(orn.problem.cvfs.lock.busy.filedesc)%s Lock(s) held on a file on volume %s. numHolders: %d. gblNumHolders: %d. Locking Host(s) MAC: %s."},
    {"kel.cvfs.thinfmt.bloomfilter.disabled", "%p %p", VProbKind::audit,
     "@&!*@*@(orn.audit.cvfs.thinfmt.bloomfilter.disabled)Read IO performance maybe impacted for disk %s: %s"},
});

constexpr auto kLatencyRows = table("kel.cvfs.", {
    {"kel.cvfs.nfs.volume.io.latency.high", "%p %lu %lu", VProbKind::problem,
     "@&!*@*@(orn.problem.cvfs.nfs.volume.io.latency.high)%s %lu %lu"},
    {"kel.cvfs.nfs.volume.io.latency.improved", "%p %lu %lu", VProbKind::clear,
     "@&!*@*@(orn.clear.cvfs.nfs.volume.io.latency.improved)%s %lu %lu"},
    {"kel.cvfs.nfs.volume.io.latency.exceed.threshold.period", "%p %lu %lu %lu", VProbKind::problem,
     "@&!*@*@(orn.problem.cvfs.nfs.volume.io.latency.exceed.threshold.period)%s %lu %lu %lu"},
});

constexpr auto kCvfsRows = joinTables(kSilentRows, kLatencyRows);

constexpr Event<Text, Text> kExtentOffline{VProbKind::problem,
    "@&!*@*@(orn.problem.cvfs.extent.offline)An attached device %s may be offline. The file system %s is now in a degraded state. While the datastore is still available, parts of data that reside on the extent that went offline might be inaccessible."};
constexpr Event<Text, Text> kSpanState{VProbKind::problem,
    "@&!*@*@(orn.problem.cvfs.spanstate.incompatibility.detected)Incompatible span change detected for CVFS volume '%s' (%s): volume was not spanned at time of open but now it is, and this host is using ATS-only lockmode but the volume is not ATS-only. Volume descriptor refresh operations will fail until this host unmounts and remounts the volume."};
constexpr Event<Text, Text> kAtsIncompatibility{VProbKind::problem,
    "@&!*@*@(orn.problem.cvfs.ats.incompatibility.detected)Multi-extent ATS-only volume '%s' (%s) is unable to use ATS because HardwareAcceleratedLocking is disabled on this host: potential for introducing filesystem corruption. Volume should not be used from other hosts."};
constexpr Event<Text, Text, Text, Text, Text> kLockMode{VProbKind::problem,
    "@&!*@*@(orn.problem.cvfs.lockmode.inconsistency.detected)Inconsistent lockmode change detected for CVFS volume '%s' (%s): volume was configured for %s lockmode at time of open and now it is configured for %s lockmode but this host is not using %s lockmode. Protocol error during ATS transition. Volume descriptor refresh operations will fail until this host unmounts and remounts the volume."};
constexpr Event<Text, Text, Text, Text, Text> kSpannedLockMode{VProbKind::problem,
    "@&!*@*@(orn.problem.cvfs.spanned.lockmode.inconsistency.detected)Inconsistent lockmode change detected for spanned CVFS volume '%s' (%s): volume was configured for %s lockmode at time of open and now it is configured for %s lockmode but this host is not using %s lockmode. All operations on this volume will fail until this host unmounts and remounts the volume."};

constexpr Event<Text, Text> kHeartbeatTimedOut{VProbKind::problem, "@&!*@*@(orn.problem.cvfs.heartbeat.timedout)%s %s"};
constexpr Event<Text, Text> kHeartbeatRecovered{VProbKind::problem, "@&!*@*@(orn.problem.cvfs.heartbeat.recovered)%s %s"};
constexpr Event<Text, Text> kJournalCreateFailed{VProbKind::problem, "@&!*@*@(orn.problem.cvfs.journal.createfailed)%s %s"};
constexpr Event<Text, Text> kHeartbeatUnrecoverable{VProbKind::problem, "@&!*@*@(orn.problem.cvfs.heartbeat.unrecoverable)%s %s"};
constexpr Event<Text, Text> kLockCorrupt{VProbKind::problem, "@&!*@*@(orn.problem.cvfs.lock.corruptondisk.v2)%s %s"};
constexpr Event<Text, Text> kResourceCorrupt{VProbKind::problem, "@&!*@*@(orn.problem.cvfs.resource.corruptondisk)%s %s"};
constexpr Event<Text, Text> kHeartbeatCorrupt{VProbKind::problem, "@&!*@*@(orn.problem.cvfs.heartbeat.corruptondisk)%s %s"};
constexpr Event<Text, Text, Text, Text> kNfsDisconnect{VProbKind::problem, "@&!*@*@(orn.problem.cvfs.nfs.server.disconnect)%s %s %s %s"};
constexpr Event<Text, Text, Text, Text> kNfsRestored{VProbKind::clear, "@&!*@*@(orn.clear.cvfs.nfs.server.restored)%s %s %s %s"};
// clang-format on

/// One of the observations of a handler that serves several, and its event.
template <typename TheEvent>
struct Choice {
  std::string_view observation;
  const TheEvent* event;
  const EventInfo* info[1];  // the event again, for the catalogue

  consteval Choice(std::string_view o, const TheEvent* e) : observation(o), event(e), info{e} {}
};

constexpr Choice<Event<Text, Text>> kHeartbeatChoices[] = {
    {"kel.cvfs.heartbeat.timedout", &kHeartbeatTimedOut},
    {"kel.cvfs.heartbeat.recovered", &kHeartbeatRecovered},
    {"kel.cvfs.journal.createfailed", &kJournalCreateFailed},
    {"kel.cvfs.heartbeat.unrecoverable", &kHeartbeatUnrecoverable},
    {"kel.cvfs.lock.corruptondisk.v2", &kLockCorrupt},
    {"kel.cvfs.resource.corruptondisk", &kResourceCorrupt},
    {"kel.cvfs.heartbeat.corruptondisk", &kHeartbeatCorrupt},
};
constexpr Choice<Event<Text, Text, Text, Text>> kNfsChoices[] = {
    {"kel.cvfs.nfs.server.disconnect", &kNfsDisconnect},
    {"kel.cvfs.nfs.server.restored", &kNfsRestored},
};
constexpr Choice<Event<Text, Text>> kVolumeChoices[] = {
    {"kel.cvfs.spanstate.incompatibility.detected", &kSpanState},
    {"kel.cvfs.ats.incompatibility.detected", &kAtsIncompatibility},
};
constexpr Choice<Event<Text, Text, Text, Text, Text>> kLockModeChoices[] = {
    {"kel.cvfs.lockmode.inconsistency.detected", &kLockMode},
    {"kel.cvfs.spanned.lockmode.inconsistency.detected", &kSpannedLockMode},
};

constexpr const char* kVolumeFormat = "%p" KELD_UUID_FORMAT;
constexpr const char* kLockModeFormat = "%p" KELD_UUID_FORMAT "%p %p %p";
constexpr const char* kHeartbeatFormat = KELD_UUID_FORMAT "%p";
constexpr const char* kNfsFormat = "%p %p" KELD_UUID_FORMAT "%p";

/// Reads arguments in which a UUID's fields stand between texts: those before and those behind it.
template <typename... Before, typename... Behind>
bool readAround(const Kel* observation, const char* format, std::tuple<Before...> before, FileSystemUuid& uuid,
                std::tuple<Behind...> behind) {
  auto& node = uuid.node;
  const auto fields =
      std::tuple{&uuid.first, &uuid.second, &uuid.third, &node[0], &node[1], &node[2], &node[3], &node[4], &node[5]};
  return std::apply([&](auto*... out) { return Kel_GetArgs(observation, 0, format, out...) == 0; },
                    std::tuple_cat(before, fields, behind));
}

/// The event of the observation; nullptr where none of the choices is it.
template <typename TheEvent, std::size_t N>
const TheEvent* choose(const Choice<TheEvent> (&choices)[N], const Kel* observation) {
  const char* id = nullptr;
  Kel_GetID(observation, &id);
  const auto found = std::find_if(std::begin(choices), std::end(choices), [&](const Choice<TheEvent>& choice) {
    return Kel_IsID(id, choice.observation.data());
  });
  return found != std::end(choices) ? found->event : nullptr;
}

void extentOffline(Post& post, const Kel* observation) {
  Text device = nullptr, fileSystem = nullptr;
  if (Kel_GetArgs(observation, 0, "%p %p", &device, &fileSystem) != 0) return;
  kExtentOffline.post(post, device != nullptr ? device : "", fileSystem);
}

void volumeIncompatible(Post& post, const Event<Text, Text>& event, const Kel* observation) {
  Text volume = nullptr;
  FileSystemUuid uuid;
  if (!readAround(observation, kVolumeFormat, std::tuple{&volume}, uuid, std::tuple{})) return;
  event.post(post, volume, uuid.text().data());
}

void lockModeInconsistent(Post& post, const Event<Text, Text, Text, Text, Text>& event, const Kel* observation) {
  Text volume = nullptr, before = nullptr, now = nullptr, unused = nullptr;
  FileSystemUuid uuid;
  if (!readAround(observation, kLockModeFormat, std::tuple{&volume}, uuid, std::tuple{&before, &now, &unused})) return;
  event.post(post, volume, uuid.text().data(), before, now, unused);
}

template <typename TheEvent, std::size_t N>
constexpr std::array<Judged, N> judgedOf(const Choice<TheEvent> (&choices)[N], std::string_view read) {
  return [&]<std::size_t... kN>(std::index_sequence<kN...>) {
    return std::array<Judged, N>{Judged{choices[kN].observation, read, choices[kN].info}...};
  }
  (std::make_index_sequence<N>());
}

constexpr const EventInfo* kExtentOfflineEvents[] = {&kExtentOffline};
constexpr auto kCvfsJudged =
    joinTables(std::array{Judged{"kel.cvfs.extent.offline", "%p %p", kExtentOfflineEvents}},
               judgedOf(kVolumeChoices, kVolumeFormat), judgedOf(kLockModeChoices, kLockModeFormat),
               judgedOf(kHeartbeatChoices, kHeartbeatFormat), judgedOf(kNfsChoices, kNfsFormat));

class CvfsCorrelator final : public Correlator {
 public:
  explicit CvfsCorrelator(Services& services) : post_(services.post) {}

  [[nodiscard]] HandlerTable handlers() override;

 private:
  void heartbeat(const Kel* observation);
  void nfsServer(const Kel* observation);

  Post& post_;
};

void CvfsCorrelator::heartbeat(const Kel* observation) {
  FileSystemUuid uuid;
  Text text = nullptr;
  if (!readAround(observation, kHeartbeatFormat, std::tuple{}, uuid, std::tuple{&text})) return;
  const auto* const event = choose(kHeartbeatChoices, observation);
  if (event == nullptr) Panic("NOT_REACHED %s:%d\n", kSource, kHeartbeatLine);
  event->post(post_, uuid.text().data(), text);
}

void CvfsCorrelator::nfsServer(const Kel* observation) {
  FileSystemUuid uuid;
  Text first = nullptr, second = nullptr, third = nullptr;
  if (!readAround(observation, kNfsFormat, std::tuple{&first, &second}, uuid, std::tuple{&third})) return;
  const auto* const event = choose(kNfsChoices, observation);
  if (event == nullptr) Panic("NOT_REACHED %s:%d\n", kSource, kNfsServerLine);
  event->post(post_, first, second, uuid.text().data(), third);
}

HandlerTable CvfsCorrelator::handlers() {
  HandlerTable handlers;
  addRows<kSilentRows>(handlers, post_, OnUnreadable::silent);
  addRows<kLatencyRows>(handlers, post_, OnUnreadable::failedToCorrelate);
  handlers.emplace("kel.cvfs.extent.offline", [this](const Kel* observation) { extentOffline(post_, observation); });
  for (const auto& choice : kVolumeChoices) {
    handlers.emplace(choice.observation, [this, &choice](const Kel* observation) {
      volumeIncompatible(post_, *choice.event, observation);
    });
  }
  for (const auto& choice : kLockModeChoices) {
    handlers.emplace(choice.observation, [this, &choice](const Kel* observation) {
      lockModeInconsistent(post_, *choice.event, observation);
    });
  }
  for (const auto& choice : kHeartbeatChoices) {
    handlers.emplace(choice.observation, [this](const Kel* observation) { heartbeat(observation); });
  }
  for (const auto& choice : kNfsChoices) {
    handlers.emplace(choice.observation, [this](const Kel* observation) { nfsServer(observation); });
  }
  return handlers;
}

constexpr const char* kGroups[] = {"cvfs"};

}  // namespace

constinit const CorrelatorInfo kCvfsCorrelator = {
    "cvfs", kGroups, {}, runPlain<kCvfsCorrelator>, kCvfsRows, kCvfsJudged, makeCorrelator<CvfsCorrelator>};

}  // namespace keld
