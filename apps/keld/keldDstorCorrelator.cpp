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

// Of an interface.
constexpr Decides<> kUnknownNic{DecisionKind::holds, "dstor.nic.unknown",
                                "it was never known to lack an address: not reported"};
constexpr Decides<> kHadAddress{DecisionKind::holds, "dstor.nic.had-address",
                                "it has an address already: not reported"};
constexpr Decides<> kLackedAddress{DecisionKind::concludes, "dstor.nic.lacked-address",
                                   "it lacked an address until now: reported as ready"};
constexpr Decides<std::string_view> kOtherReady{DecisionKind::concludes, "dstor.nic.other-ready",
                                                "it has no address, but {} has one"};
constexpr Decides<std::int64_t> kNoneReady{
    DecisionKind::concludes, "dstor.nic.none-ready",
    "none of the {} known interfaces has an address: the event waits in the retry queue"};
constexpr Decides<> kConnectivityBack{
    DecisionKind::concludes, "dstor.nic.connectivity-back",
    "the connectivity that was reported as lost is there again: reported as available"};
constexpr Decides<> kAddressBack{DecisionKind::concludes, "dstor.nic.address-back",
                                 "it lacked an address until now: the network is reported as available"};
constexpr Decides<> kNothingLost{
    DecisionKind::holds, "dstor.nic.nothing-lost",
    "neither lost connectivity nor a missing address is on record: only the interface is reported"};
constexpr Decides<> kNicDropped{DecisionKind::forgets, "dstor.nic.dropped", "no longer among the known interfaces"};
constexpr Decides<std::int64_t, std::int64_t> kNotRedundant{
    DecisionKind::concludes, "dstor.nic.not-redundant",
    "known interfaces left: {}, redundant from {} on: reported as lost"};
constexpr Decides<std::int64_t, std::int64_t> kLessRedundant{
    DecisionKind::concludes, "dstor.nic.less-redundant",
    "known interfaces left: {}, redundant from {} on: reported as reduced"};
constexpr Decides<> kConnectivityGone{
    DecisionKind::concludes, "dstor.nic.no-connectivity",
    "all connectivity is lost, which is on record until an interface is created: the event waits in the retry queue"};
// Of the network.
constexpr Decides<> kLossForgotten{DecisionKind::forgets, "dstor.network.forgotten",
                                   "the service was unloaded: the lost connectivity is on record no more"};
// Of clustering.
constexpr Decides<> kOffReported{DecisionKind::concludes, "dstor.clustering.disabled",
                                 "reported as disabled, which stays on record"};
constexpr Decides<> kOnAgain{DecisionKind::concludes, "dstor.clustering.enabled-again",
                             "it was reported as disabled: cleared"};
constexpr Decides<> kOn{DecisionKind::concludes, "dstor.clustering.enabled",
                        "it was never reported as disabled: audited, not cleared"};
constexpr Decides<> kOffForgotten{DecisionKind::forgets, "dstor.clustering.forgotten",
                                  "the service was unloaded: on record as disabled no more"};
constexpr std::string_view kNetwork = "network";
constexpr std::string_view kClustering = "clustering";

constexpr const Decision* kDstorDecisions[] = {&kUnknownNic,
                                               &kHadAddress,
                                               &kLackedAddress,
                                               &kOtherReady,
                                               &kNoneReady,
                                               &kConnectivityBack,
                                               &kAddressBack,
                                               &kNothingLost,
                                               &kNicDropped,
                                               &kNotRedundant,
                                               &kLessRedundant,
                                               &kConnectivityGone,
                                               &kLossForgotten,
                                               &kOffReported,
                                               &kOnAgain,
                                               &kOn,
                                               &kOffForgotten,
                                               &DstorErrorHoldoff::kFirst,
                                               &DstorErrorHoldoff::kHeld,
                                               &DstorErrorHoldoff::kOver,
                                               &DstorErrorHoldoff::kForgotten};

/// A storage interface's name, and whether the interface has an IP address.
using DstorNicTable = std::map<std::string, bool, std::less<>>;

/// What was reported and not taken back.
struct DstorReported {
  bool noConnectivity = false;
  bool clusteringDisabled = false;
};

class DstorCorrelator final : public Correlator {
 public:
  explicit DstorCorrelator(Services& services)
      : services_(services), post_(services.post), mediumErrors_(services.decisions) {}

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
  template <typename... A>
  void tell(const Decides<A...>& decision, std::string_view subject, std::type_identity_t<A>... values) const {
    decision.report(services_.decisions, subject, values...);
  }

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
    if (const auto known = nics_.find(nic); known != nics_.end()) {
      nics_.erase(known);
      tell(kNicDropped, nic);
    }
  }

  void gotIp(Text nic) {
    const auto known = nics_.find(nic);
    if (known == nics_.end() || known->second) {
      tell(known == nics_.end() ? kUnknownNic : kHadAddress, nic);
      return;
    }
    known->second = true;
    tell(kLackedAddress, nic);
    kNicReady.post(post_, nic);
  }

  void noIp(Text nic) {
    nics_[nic] = false;
    const auto other = std::find_if(nics_.begin(), nics_.end(), [](const auto& known) { return known.second; });
    if (other != nics_.end()) {
      tell(kOtherReady, nic, other->first);
      kNicNotReady.post(post_, nic);
    } else {
      tell(kNoneReady, nic, static_cast<std::int64_t>(nics_.size()));
      kNetNotReady.postQueueOnly(post_, nic);
    }
  }

  void created(Text nic) {
    if (reported_.noConnectivity || lacksIp(nic)) {
      tell(reported_.noConnectivity ? kConnectivityBack : kAddressBack, nic);
      kNetworkAvailable.post(post_);
    } else {
      tell(kNothingLost, nic);
    }
    reported_.noConnectivity = false;
    nics_[nic] = true;
    kNicAdded.post(post_);
  }

  void redundancyReduced(Text nic) {
    constexpr std::size_t kRedundant = 2;
    forget(nic);
    const bool lost = nics_.size() < kRedundant;
    tell(lost ? kNotRedundant : kLessRedundant, nic, static_cast<std::int64_t>(nics_.size()), kRedundant);
    (lost ? kRedundancyLost : kRedundancyReduced).post(post_);
    kNicDeleted.post(post_);
  }

  void noConnectivity(Text nic) {
    forget(nic);
    reported_.noConnectivity = true;
    tell(kConnectivityGone, nic);
    kNicDeleted.post(post_);
    kNoConnectivity.postQueueOnly(post_);
  }

  void clusteringDisabled() {
    reported_.clusteringDisabled = true;
    tell(kOffReported, kClustering);
    kClusteringDisabled.post(post_);
  }

  // What was reported stays so: it is cleared at each return, not only at the first.
  void clusteringEnabled() const {
    tell(reported_.clusteringDisabled ? kOnAgain : kOn, kClustering);
    (reported_.clusteringDisabled ? kClusteringEnabledAgain : kClusteringEnabled).post(post_);
  }

  void forgetAll() {
    if (services_.decisions != nullptr) {
      for (const auto& [nic, ready] : nics_) tell(kNicDropped, nic);
      if (reported_.noConnectivity) tell(kLossForgotten, kNetwork);
      if (reported_.clusteringDisabled) tell(kOffForgotten, kClustering);
    }
    nics_.clear();
    reported_ = {};
    mediumErrors_.forgetAll();
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
    "Dstor",        kGroups, {}, runPlain<kDstorCorrelator>, kDstorRows, kDstorJudged, makeCorrelator<DstorCorrelator>,
    kDstorDecisions};

}  // namespace keld
