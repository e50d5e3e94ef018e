// The correlator of the distributed storage layer. Beside what is one event each, it knows which
// storage interfaces have an address, so that the loss of one is told apart from the loss of all; which
// losses it reported, so that their end is a clear; and when it last reported a disk's medium errors.
#include <algorithm>
#include <map>
#include <string>

#include "keldCorrelator.h"
#include "keldDstorRows.h"
#include "keldHoldOff.h"

namespace keld {

namespace {

// clang-format off
constexpr Event<Text> kNicReady{VProbKind::clear,
    "@&!*@*@(orn.clear.dstor.qknic.ready)qknic %s now has an IP address. Earlier reported connectivity problems, if any, can now be ignored as it is resolved."};
constexpr Event<Text> kNicNotReady{VProbKind::problem,
    "@&!*@*@(orn.problem.dstor.qknic.not.ready)qknic %s that is currently configured to be used with Dstor doesn't have an IP address yet. However, there are other network configuration which are active. If those configurations are removed that may cause problems."};
constexpr Event<Text> kNetNotReady{VProbKind::problem,
    "@&!*@*@(orn.problem.dstor.net.not.ready)qknic %s that is currently configured to be used with Dstor doesn't have an IP address yet. There are no other active network configuration and therefore the Dstor node doesn't have network connectivity."};
constexpr Event<> kNetworkAvailable{VProbKind::clear,
    "@&!*@*@(orn.clear.dstor.network.available)Dstor now has usable network configuration. Earlier reported connectivity problems, if any, can now be ignored as it is resolved."};
constexpr Event<> kNicAdded{VProbKind::audit,
    "@&!*@*@(orn.audit.dstor.net.vnic.added)Dstor vnic added"};
constexpr Event<> kNicDeleted{VProbKind::audit,
    "@&!*@*@(orn.audit.dstor.net.vnic.deleted)Dstor vnic deleted"};
constexpr Event<> kRedundancyLost{VProbKind::problem,
    "@&!*@*@(orn.problem.dstor.net.redundancy.lost)Dstor network configuration doesn't have any redundancy. This may be a problem if further network configuration is removed."};
constexpr Event<> kRedundancyReduced{VProbKind::problem,
    "@&!*@*@(orn.problem.dstor.net.redundancy.reduced)Dstor network configuration redundancy has reduced. This may be a problem if further network configuration is removed."};
constexpr Event<> kNoConnectivity{VProbKind::problem,
    "@&!*@*@(orn.problem.dstor.no.network.connectivity)Dstor doesn't have any network configuration. This can severly impact several objects in the Dstor datastore."};
constexpr Event<> kClusteringDisabled{VProbKind::problem,
    "@&!*@*@(orn.problem.dstor.clustering.disabled)Dstor clustering and directory services have been disabled thus will be no longer available."};
constexpr Event<> kClusteringEnabledAgain{VProbKind::clear,
    "@&!*@*@(orn.clear.dstor.clustering.enabled)Dstor clustering and directory services have now been enabled."};
constexpr Event<> kClusteringEnabled{VProbKind::audit,
    "@&!*@*@(orn.audit.dstor.clustering.enabled)Dstor clustering and directory services have been enabled."};
constexpr Event<Text, Text> kUnrecoverable{VProbKind::problem,
    "@&!*@*@(orn.problem.kel.dstor.dom.unrecoverableerror)Dstor detected an unrecoverable medium or checksum error for component %s on disk group %s."};
constexpr Event<Text, Text> kDiskUnrecoverable{VProbKind::problem,
    "@&!*@*@(orn.problem.kel.dstor.dom.singlediskunrecoverableerror)Dstor detected an unrecoverable medium or checksum error for component %s on disk %s."};
constexpr Event<Text, Text> kErrorFixed{VProbKind::problem,
    "@&!*@*@(orn.problem.kel.dstor.dom.errorfixed)Dstor detected and fixed a medium or checksum error for component %s on disk group %s."};
constexpr Event<Text, Text> kDiskErrorFixed{VProbKind::problem,
    "@&!*@*@(orn.problem.kel.dstor.dom.singlediskerrorfixed)Dstor detected and fixed a medium or checksum error for component %s on disk %s."};
constexpr Event<unsigned, Text, Text, unsigned> kResyncTimeout{VProbKind::problem,
    "@&!*@*@(orn.problem.kel.dstor.dom.resynctimeout)Resync timed out as no progress was made in %u minute(s) for component %s on disk %s. Resync will be tried again for this component. The remaining resync is around %uMB."};
// clang-format on

constexpr const EventInfo* kGotIpEvents[] = {&kNicReady};
constexpr const EventInfo* kNoIpEvents[] = {&kNicNotReady, &kNetNotReady};
constexpr const EventInfo* kCreatedEvents[] = {&kNetworkAvailable, &kNicAdded};
constexpr const EventInfo* kReducedEvents[] = {&kRedundancyLost, &kRedundancyReduced, &kNicDeleted};
constexpr const EventInfo* kNoConnectivityEvents[] = {&kNicDeleted, &kNoConnectivity};
constexpr const EventInfo* kDisabledEvents[] = {&kClusteringDisabled};
constexpr const EventInfo* kEnabledEvents[] = {&kClusteringEnabledAgain, &kClusteringEnabled};
constexpr const EventInfo* kUnrecoverableEvents[] = {&kUnrecoverable};
constexpr const EventInfo* kDiskUnrecoverableEvents[] = {&kDiskUnrecoverable};
constexpr const EventInfo* kErrorFixedEvents[] = {&kErrorFixed};
constexpr const EventInfo* kDiskErrorFixedEvents[] = {&kDiskErrorFixed};
constexpr const EventInfo* kResyncTimeoutEvents[] = {&kResyncTimeout};
constexpr Judged kDstorJudged[] = {
    {"kel.dstor.net.gotip", "%p", kGotIpEvents},
    {"kel.dstor.net.noip", "%p", kNoIpEvents},
    {"kel.dstor.rdt.noip", "%p", kNoIpEvents},
    {"kel.dstor.net.created", "%p", kCreatedEvents},
    {"kel.dstor.net.reconfigured", "%p", kCreatedEvents},
    {"kel.dstor.net.redundancy.reduced", "%p", kReducedEvents},
    {"kel.dstor.net.no.connectivity", "%p", kNoConnectivityEvents},
    {"kel.dstor.clmd.disabled", "", kDisabledEvents},
    {"kel.dstor.clmd.enabled", "", kEnabledEvents},
    {"kel.dstor.clmd.unloaded", "", {}},
    {"kel.dstor.dom.unrecoverableerror", "%p %p", kUnrecoverableEvents},
    {"kel.dstor.dom.singlediskunrecoverableerror", "%p %p", kDiskUnrecoverableEvents},
    {"kel.dstor.dom.errorfixed", "%p %p", kErrorFixedEvents},
    {"kel.dstor.dom.singlediskerrorfixed", "%p %p", kDiskErrorFixedEvents},
    {"kel.dstor.dom.resynctimeout", "%u %p %p %u", kResyncTimeoutEvents},
};

/// A storage interface's name, and whether the interface has an IP address.
using DstorNicTable = std::map<std::string, bool, std::less<>>;

/// What was reported and not taken back.
struct DstorReported {
  bool noConnectivity = false;
  bool clusteringDisabled = false;
};

class DstorCorrelator final : public Correlator {
 public:
  explicit DstorCorrelator(Services& services) : services_(services), post_(services.post) {}

  [[nodiscard]] HandlerTable handlers() override {
    HandlerTable handlers;
    addRows<kDstorNameRows>(handlers, post_, OnUnreadable::postsWithout);
    addRows<kDstorFigureRows>(handlers, post_, OnUnreadable::silent);
    addForNic(handlers, "kel.dstor.net.gotip", &DstorCorrelator::gotIp);
    addForNic(handlers, "kel.dstor.net.noip", &DstorCorrelator::noIp);
    addForNic(handlers, "kel.dstor.rdt.noip", &DstorCorrelator::noIp);
    addForNic(handlers, "kel.dstor.net.created", &DstorCorrelator::created);
    addForNic(handlers, "kel.dstor.net.reconfigured", &DstorCorrelator::created);
    addForNic(handlers, "kel.dstor.net.redundancy.reduced", &DstorCorrelator::redundancyReduced);
    addForNic(handlers, "kel.dstor.net.no.connectivity", &DstorCorrelator::noConnectivity);
    handlers.emplace("kel.dstor.clmd.disabled", [this](const Kel*) { clusteringDisabled(); });
    handlers.emplace("kel.dstor.clmd.enabled", [this](const Kel*) { clusteringEnabled(); });
    handlers.emplace("kel.dstor.clmd.unloaded", [this](const Kel*) { forgetAll(); });
    addMediumError(handlers, "kel.dstor.dom.unrecoverableerror", kUnrecoverable);
    addMediumError(handlers, "kel.dstor.dom.singlediskunrecoverableerror", kDiskUnrecoverable);
    addMediumError(handlers, "kel.dstor.dom.errorfixed", kErrorFixed);
    addMediumError(handlers, "kel.dstor.dom.singlediskerrorfixed", kDiskErrorFixed);
    handlers.emplace("kel.dstor.dom.resynctimeout", [this](const Kel* observation) { resyncTimeout(observation); });
    return handlers;
  }

 private:
  /// Registers a handler of what happened to one interface; without a name nothing is done.
  void addForNic(HandlerTable& handlers, const char* id, void (DstorCorrelator::*happened)(Text nic)) {
    handlers.emplace(id, [this, happened](const Kel* observation) {
      Text nic = nullptr;
      if (Kel_GetArgs(observation, 0, "%p", &nic) == 0 && nic != nullptr) (this->*happened)(nic);
    });
  }

  void addMediumError(HandlerTable& handlers, const char* id, const Event<Text, Text>& event) {
    handlers.emplace(id, [this, &event](const Kel* observation) { mediumError(event, observation); });
  }

  [[nodiscard]] bool lacksIp(Text nic) const {
    const auto known = nics_.find(nic);
    return known != nics_.end() && !known->second;
  }

  void forget(Text nic) {
    if (const auto known = nics_.find(nic); known != nics_.end()) nics_.erase(known);
  }

  void gotIp(Text nic) {
    if (!lacksIp(nic)) return;
    nics_[nic] = true;
    kNicReady.post(post_, nic);
  }

  void noIp(Text nic) {
    nics_[nic] = false;
    const bool others = std::any_of(nics_.begin(), nics_.end(), [](const auto& known) { return known.second; });
    if (others) {
      kNicNotReady.post(post_, nic);
    } else {
      kNetNotReady.postQueueOnly(post_, nic);
    }
  }

  void created(Text nic) {
    if (reported_.noConnectivity || lacksIp(nic)) kNetworkAvailable.post(post_);
    reported_.noConnectivity = false;
    nics_[nic] = true;
    kNicAdded.post(post_);
  }

  void redundancyReduced(Text nic) {
    constexpr std::size_t kRedundant = 2;
    forget(nic);
    (nics_.size() < kRedundant ? kRedundancyLost : kRedundancyReduced).post(post_);
    kNicDeleted.post(post_);
  }

  void noConnectivity(Text nic) {
    forget(nic);
    reported_.noConnectivity = true;
    kNicDeleted.post(post_);
    kNoConnectivity.postQueueOnly(post_);
  }

  void clusteringDisabled() {
    reported_.clusteringDisabled = true;
    kClusteringDisabled.post(post_);
  }

  // What was reported stays so: it is cleared at each return, not only at the first.
  void clusteringEnabled() const {
    (reported_.clusteringDisabled ? kClusteringEnabledAgain : kClusteringEnabled).post(post_);
  }

  void forgetAll() {
    nics_.clear();
    reported_ = {};
    mediumErrors_ = {};
  }

  void mediumError(const Event<Text, Text>& event, const Kel* observation) {
    Text component = nullptr, disk = nullptr;
    if (Kel_GetArgs(observation, 0, "%p %p", &component, &disk) != 0) return;
    if (mediumErrors_.report(disk != nullptr ? disk : "", services_.nowSeconds())) {
      event.post(post_, component, disk);
    }
  }

  void resyncTimeout(const Kel* observation) const {
    unsigned minutes = 0, megabytes = 0;
    Text component = nullptr, disk = nullptr;
    if (Kel_GetArgs(observation, 0, "%u %p %p %u", &minutes, &component, &disk, &megabytes) != 0) {
      // Some senders name the component alone; one that cannot be read shows as "(null)".
      static_cast<void>(Kel_GetArgs(observation, 0, "%p", &component));
    }
    kResyncTimeout.post(post_, minutes, component, disk, megabytes);
  }

  Services& services_;
  Post& post_;
  DstorNicTable nics_;
  DstorReported reported_;
  DstorErrorHoldoff mediumErrors_;
};

constexpr const char* kGroups[] = {"dstor"};

}  // namespace

constinit const CorrelatorInfo kDstorCorrelator = {
    "Dstor", kGroups, {}, runPlain<kDstorCorrelator>, kDstorRows, kDstorJudged, makeCorrelator<DstorCorrelator>};

}  // namespace keld
