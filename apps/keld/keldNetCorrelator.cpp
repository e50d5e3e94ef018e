// The network correlator watches the NICs of the host and the port groups and distributed ports that
// they serve. The kernel reports the failure of one NIC as a burst of observations: a record per kind
// of observation waits until the burst has settled, and one event per kind then names all that is
// affected. A watchdog time-out holds every report of its NIC back for seven seconds: a NIC that went
// down and came back within them yields the watchdog reset only.
//
//            uplink down (1)                          due, switch known (3)
//   at rest ─────────────────▶ PG_DOWN pending, 2 s ───────────────────────▶ lost / degraded, at rest
//      │                           │        ▲
//      │ link down (2)             │        └── due, switch unknown (4): the list is kept, no record
//      ├──────────────▶ LINK_DOWN pending, 1 s ── due, no PG/DVPORT_DOWN (5) ──▶ "linkstate is down"
//      │ watchdog time-out (6)
//      └──────────────▶ WATCHDOG pending, 7 s ── due, down and up seen (7) ──▶ watchdog reset, all flags 0
//                                             └─ due, down only (8) ──▶ the down report; WATCHDOG stays
//
// The up side mirrors (1) to (5), and DVPorts mirror port groups except that no switch is looked up.
// While WATCHDOG stays set (after 8), every later record of the NIC reports nothing.
#include "keldNetCorrelator.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <exception>
#include <iterator>
#include <memory>
#include <optional>
#include <utility>

#include "keldArguments.h"
#include "keldLog.h"
#include "keldNetDecisions.h"
#include "keldNetRows.h"
#include "keldText.h"
#include "platform/hostctl.h"
#include "platform/qkctl.h"

namespace keld {

namespace {

constexpr std::uint32_t kPgDown = 1;
constexpr std::uint32_t kPgUp = 2;
constexpr std::uint32_t kDvPortDown = 4;
constexpr std::uint32_t kDvPortUp = 8;
constexpr std::uint32_t kLinkDown = 16;
constexpr std::uint32_t kLinkUp = 32;
constexpr std::uint32_t kWatchdog = 64;

constexpr std::uint32_t kTransitionSeconds = 2;
constexpr std::uint32_t kLinkSeconds = 1;
constexpr std::uint32_t kWatchdogSeconds = 7;

/// What is on record, or was, as decisions name it.
std::string_view recordName(std::uint32_t flag) {
  switch (flag) {
    case kPgDown:
      return "port group down";
    case kPgUp:
      return "port group up";
    case kDvPortDown:
      return "DVPort down";
    case kDvPortUp:
      return "DVPort up";
    case kLinkDown:
      return "link down";
    case kLinkUp:
      return "link up";
    default:
      return "watchdog time-out";
  }
}

/// Why a fence could not be set, as kernel status.
constexpr int kBadFenceId = static_cast<int>(0xbad0007);
constexpr int kNoFenceProperty = static_cast<int>(0xbad0002);

/// The quoted name of the port group's virtual switch; empty where the look-up fails.
std::string switchName(const std::string& portGroup) {
  try {
    return '"' + HostCtl::Network::NetworkFactory::GetPortGroupByName(portGroup).GetVirtualSwitchName() + '"';
  } catch (const HostCtl::Lib::HostCtlException&) {
    return {};
  }
}

std::optional<std::string> readNic(const Kel* observation) {
  Arguments arguments(observation);
  std::string nic = arguments.text();
  if (arguments.failed()) return std::nullopt;
  return nic;
}

void fenceFailed(Post& post, const Kel* observation) {
  const char* port = nullptr;
  const char* dvSwitch = nullptr;
  int reason = 0;
  int fenceId = 0;
  if (Kel_GetArgs(observation, 0, "%p %p %d %d", &port, &dvSwitch, &reason, &fenceId) != 0) return;
  if (reason == kBadFenceId) {
    kBadFence.post(post, fenceId, port, dvSwitch);
  } else if (reason == kNoFenceProperty) {
    kFenceSwitchUnavailable.post(post, fenceId, port, dvSwitch);
  } else {
    kFenceResourceLimited.post(post, fenceId, port, dvSwitch);
  }
}

void tsoNotSupported(Services& services, const Kel* observation) {
  std::int64_t groupId = 0;
  if (Kel_GetIntArg(observation, 0, &groupId) != 0) return;
  // Decisions are told of the group's number.
  const std::string subject = services.decisions != nullptr ? std::to_string(groupId) : std::string();
  VSI_VmmGroupInfo info{};
  try {
    QkCtl::Util::Sysinfo node(VSI_NODE_vm_vmmGroupInfo);
    node.SetInstance(groupId);
    node.Get(&info, sizeof info);
  } catch (const HostCtl::Lib::HostCtlException&) {
    netWhy::kVmUnknown.report(services.decisions, subject);
    return;
  }
  if (services.decisions != nullptr) netWhy::kVmNamed.report(services.decisions, subject, info.displayName);
  kTsoNotSupported.post(services.post, info.displayName);
}

}  // namespace

NetCorrelator::NetCorrelator(Services& services, std::function<void()> wake)
    : services_(services), timer_(services.timers.create(std::move(wake))), flapping_(services) {}

HandlerTable NetCorrelator::handlers() {
  const auto member = [this](void (NetCorrelator::*handle)(const Kel*)) {
    return [this, handle](const Kel* observation) { (this->*handle)(observation); };
  };
  Post& post = services_.post;
  HandlerTable table{
      {"kel.net.pg.uplink.transition.down", member(&NetCorrelator::portGroupDown)},
      {"kel.net.pg.uplink.transition.up", member(&NetCorrelator::portGroupUp)},
      {"kel.net.dvport.uplink.transition.down", member(&NetCorrelator::dvPortDown)},
      {"kel.net.dvport.uplink.transition.up", member(&NetCorrelator::dvPortUp)},
      {"kel.net.qnic.linkstate.down", member(&NetCorrelator::linkDown)},
      {"kel.net.qnic.linkstate.up", member(&NetCorrelator::linkUp)},
      {"kel.net.uplink.watchdog.timeout", member(&NetCorrelator::watchdogTimeout)},
      {"kel.net.fence.port.fail", [&post](const Kel* observation) { fenceFailed(post, observation); }},
      {"kel.net.e1000.tso6.notsupported", [this](const Kel* observation) { tsoNotSupported(services_, observation); }},
  };
  addRows<kNetRows>(table, post, OnUnreadable::silent);
  return table;
}

bool NetCorrelator::isSet(std::uint32_t flags, const std::string& nic) const {
  const auto found = pendingFlags_.find(nic);
  return found != pendingFlags_.end() && (found->second & flags) == flags;
}

void NetCorrelator::clearFlag(std::uint32_t flag, const std::string& nic) {
  if (isSet(flag, nic)) pendingFlags_[nic] &= ~flag;
}

void NetCorrelator::arm(std::uint32_t seconds, std::int64_t now) {
  services_.timers.set(timer_, TimerMode::oneShot, seconds);
  armedAt_ = now;
  armedSeconds_ = seconds;
}

std::int64_t NetCorrelator::secondsToTimer(std::int64_t now) const {
  return armedAt_ + armedSeconds_ - now;
}

std::int64_t NetCorrelator::schedule(std::uint32_t timeoutSeconds, std::uint32_t flag, const std::string& nic) {
  const std::int64_t now = services_.nowSeconds();
  pendingFlags_[nic] |= flag;
  if (pendingTimers_.empty()) {
    arm(timeoutSeconds, now);
  } else {
    // Kept: the time since the last arming is added, so the timer fires that much after the record is due.
    const std::uint32_t candidate = static_cast<std::uint32_t>(now - armedAt_) + timeoutSeconds;
    if (candidate < armedSeconds_) {
      netWhy::kTimerMoved.report(services_.decisions, nic, candidate, secondsToTimer(now));
      arm(candidate, now);
    }
  }
  pendingTimers_[nic].push_back({flag, timeoutSeconds, now});
  return std::max<std::int64_t>(timeoutSeconds, secondsToTimer(now));
}

bool NetCorrelator::hasTimer(std::uint32_t flag, const std::string& nic) const {
  const auto records = pendingTimers_.find(nic);
  return records != pendingTimers_.end() &&
         std::ranges::any_of(records->second, [&](const PendingTimer& record) { return record.flag == flag; });
}

void NetCorrelator::putOnRecord(UplinkSide::Transitions& transitions, std::uint32_t flag, const std::string& nic,
                                UplinkSide::Transition transition) {
  DecisionListener* const decisions = services_.decisions;
  const auto known = transitions.find(nic);
  if (known == transitions.end()) {
    const std::int64_t seconds = schedule(kTransitionSeconds, flag, nic);
    netWhy::kTransitionWaits.report(decisions, nic, transition.item, recordName(flag), transition.activeUplinks,
                                    seconds);
    transitions[nic].push_back(std::move(transition));
    return;
  }
  if (decisions != nullptr) {
    const auto& joined = hasTimer(flag, nic) ? netWhy::kTransitionJoins : netWhy::kTransitionLeft;
    joined.report(decisions, nic, transition.item, recordName(flag), transition.activeUplinks,
                  std::ssize(known->second));
  }
  known->second.push_back(std::move(transition));
}

void NetCorrelator::portGroupDown(const Kel* observation) {
  Arguments arguments(observation);
  const std::string nic = arguments.text();
  UplinkSide::Transition transition{arguments.text(), arguments.integer(), arguments.integer()};
  if (!arguments.failed()) putOnRecord(portGroups_.down, kPgDown, nic, std::move(transition));
}

void NetCorrelator::portGroupUp(const Kel* observation) {
  Arguments arguments(observation);
  const std::string nic = arguments.text();
  UplinkSide::Transition transition{arguments.text(), arguments.integer()};
  if (!arguments.failed()) putOnRecord(portGroups_.up, kPgUp, nic, std::move(transition));
}

void NetCorrelator::dvPortDown(const Kel* observation) {
  Arguments arguments(observation);
  const std::string nic = arguments.text();
  const std::string switchPart = arguments.text();
  const std::string portPart = arguments.text();
  UplinkSide::Transition transition{switchPart + '/' + portPart, arguments.integer(), arguments.integer()};
  if (!arguments.failed()) putOnRecord(dvPorts_.down, kDvPortDown, nic, std::move(transition));
}

void NetCorrelator::dvPortUp(const Kel* observation) {
  Arguments arguments(observation);
  const std::string nic = arguments.text();
  const std::string switchPart = arguments.text();
  const std::string portPart = arguments.text();
  UplinkSide::Transition transition{switchPart + '/' + portPart, arguments.integer()};
  if (!arguments.failed()) putOnRecord(dvPorts_.up, kDvPortUp, nic, std::move(transition));
}

std::uint32_t NetCorrelator::firstSet(std::initializer_list<std::uint32_t> flags, const std::string& nic) const {
  for (const std::uint32_t flag : flags) {
    if (isSet(flag, nic)) return flag;
  }
  return 0;
}

void NetCorrelator::linkDown(const Kel* observation) {
  const auto nic = readNic(observation);
  if (!nic) return;
  flapping_.CheckLinkFlapping(*nic);
  linkChanged(kLinkDown, firstSet({kPgDown, kDvPortDown}, *nic), *nic);
}

void NetCorrelator::linkUp(const Kel* observation) {
  const auto nic = readNic(observation);
  if (nic) linkChanged(kLinkUp, firstSet({kPgUp, kDvPortUp}, *nic), *nic);
}

void NetCorrelator::linkChanged(std::uint32_t flag, std::uint32_t covering, const std::string& nic) {
  if (covering != 0) {
    netWhy::kLinkCovered.report(services_.decisions, nic, recordName(flag), recordName(covering));
    return;
  }
  const std::int64_t seconds = schedule(kLinkSeconds, flag, nic);
  netWhy::kLinkWaits.report(services_.decisions, nic, recordName(flag), seconds);
}

void NetCorrelator::watchdogTimeout(const Kel* observation) {
  const auto nic = readNic(observation);
  if (!nic) return;
  const std::int64_t seconds = schedule(kWatchdogSeconds, kWatchdog, *nic);
  netWhy::kWatchdogWaits.report(services_.decisions, *nic, seconds);
}

void NetCorrelator::expire() {
  if (pendingTimers_.empty()) return;
  const std::int64_t now = services_.nowSeconds();
  std::optional<std::int64_t> next;
  for (auto nic = pendingTimers_.begin(); nic != pendingTimers_.end();) {
    std::vector<PendingTimer>& records = nic->second;
    for (auto record = records.begin(); record != records.end();) {
      const std::int64_t left = record->timeoutSeconds - (now - record->start);
      if (left > 0) {
        netWhy::kNotDue.report(services_.decisions, nic->first, recordName(record->flag), left);
        next = std::min(next.value_or(left), left);
        ++record;
      } else {
        try {
          handleDue(record->flag, nic->first);
        } catch (const std::exception&) {
          // A report that fails, for want of memory, is dropped as a handler's would be; the others are not.
        }
        record = records.erase(record);
      }
    }
    nic = records.empty() ? pendingTimers_.erase(nic) : std::next(nic);
  }
  if (next) arm(static_cast<std::uint32_t>(*next), now);
}

void NetCorrelator::handleDue(std::uint32_t flag, const std::string& nic) {
  switch (flag) {
    case kPgDown:
    case kDvPortDown:
    case kPgUp:
    case kDvPortUp:
      if (isSet(kWatchdog, nic)) {
        netWhy::kWatchdogSwallows.report(services_.decisions, nic, recordName(flag));
      } else {
        transitionsDue(flag, nic);
      }
      break;
    case kLinkDown:
      linkDownDue(nic);
      break;
    case kLinkUp:
      linkUpDue(nic);
      break;
    case kWatchdog:
      watchdogDue(nic);
      break;
    default:
      Panic("Received timeout event for unknown state: %x\n", flag);
  }
}

void NetCorrelator::transitionsDue(std::uint32_t flag, const std::string& nic) {
  if (flag == kPgDown) reportPortGroupsDown(nic);
  if (flag == kDvPortDown) reportDvPortsDown(nic);
  if (flag == kPgUp) reportPortGroupsUp(nic);
  if (flag == kDvPortUp) reportDvPortsUp(nic);
}

bool NetCorrelator::linkSpeaks(std::uint32_t flag, std::uint32_t covering, const std::string& nic) const {
  DecisionListener* const decisions = services_.decisions;
  if (covering == kWatchdog) {
    netWhy::kWatchdogSwallows.report(decisions, nic, recordName(flag));
  } else if (covering != 0) {
    netWhy::kLinkOvertaken.report(decisions, nic, recordName(flag), recordName(covering));
  } else {
    netWhy::kLinkReported.report(decisions, nic, recordName(flag));
  }
  return covering == 0;
}

void NetCorrelator::linkDownDue(const std::string& nic) {
  clearFlag(kLinkDown, nic);
  // The reports of the transitions speak for the link.
  if (!linkSpeaks(kLinkDown, firstSet({kPgDown, kDvPortDown, kWatchdog}, nic), nic)) return;
  kLinkStateDown.post(services_.post, nic.c_str());
}

void NetCorrelator::linkUpDue(const std::string& nic) {
  clearFlag(kLinkUp, nic);
  if (!linkSpeaks(kLinkUp, firstSet({kPgUp, kDvPortUp, kWatchdog}, nic), nic)) return;
  Post& post = services_.post;
  kLinkStateUp.post(post, nic.c_str());
  clearLosses(dvPorts_, portGroups_, nic, services_.decisions);
  // Kept: with nothing on record these close, without naming it, whatever the agent still holds open.
  if (connectivityRestored(nic, 0)) {
    kConnectivityRestored.post(post, "", "", nic.c_str());
    kDvPortConnectivityRestored.post(post, "", nic.c_str());
  }
  if (redundancyRestored(nic, 0)) {
    kRedundancyRestored.post(post, "", "", nic.c_str());
    kDvPortRedundancyRestored.post(post, "", nic.c_str());
  }
}

bool NetCorrelator::connectivityRestored(const std::string& nic, std::int64_t named) const {
  const std::int64_t lost = std::ssize(portGroups_.connectivityLost) + std::ssize(dvPorts_.connectivityLost);
  if (lost == 0) {
    netWhy::kConnectivityRestored.report(services_.decisions, nic, named);
  } else {
    netWhy::kConnectivityStillLost.report(services_.decisions, nic, lost);
  }
  return lost == 0;
}

bool NetCorrelator::redundancyRestored(const std::string& nic, std::int64_t named) const {
  const std::int64_t lost = std::ssize(portGroups_.redundancyLost) + std::ssize(dvPorts_.redundancyLost);
  if (lost == 0) {
    netWhy::kRedundancyRestored.report(services_.decisions, nic, named);
  } else {
    netWhy::kRedundancyStillLost.report(services_.decisions, nic, lost, named);
  }
  return lost == 0;
}

void NetCorrelator::watchdogDue(const std::string& nic) {
  const std::uint32_t down = firstSet({kPgDown, kDvPortDown, kLinkDown}, nic);
  const std::uint32_t up = firstSet({kPgUp, kDvPortUp, kLinkUp}, nic);
  if (down == 0) {
    netWhy::kWatchdogIdle.report(services_.decisions, nic);
    return;
  }
  if (up != 0) {
    netWhy::kWatchdogReset.report(services_.decisions, nic, recordName(down), recordName(up));
    if (down == kPgDown) {
      portGroups_.down.erase(nic);
    } else if (down == kDvPortDown) {
      dvPorts_.down.erase(nic);
    }
    if (up == kPgUp) {
      portGroups_.up.erase(nic);
    } else if (up == kDvPortUp) {
      dvPorts_.down.erase(nic);  // Kept: the down table again; the up entry is left in place.
    }
    pendingFlags_[nic] = 0;
    kWatchdogReset.post(services_.post, nic.c_str());
    return;
  }
  // WATCHDOG stays set: only a reset ends the silence of this NIC.
  netWhy::kWatchdogDown.report(services_.decisions, nic, recordName(down));
  if (down == kLinkDown) {
    kLinkStateDown.post(services_.post, nic.c_str());
  } else if (down == kPgDown || down == kDvPortDown) {
    transitionsDue(down, nic);
  } else {
    Panic("Unknown state: %x\n", pendingFlags_[nic]);
  }
}

std::string NetCorrelator::switchOf(const UplinkSide::List& transitions, const std::string& nic) const {
  if (transitions.empty()) return {};
  const std::string& portGroup = transitions.front().item;
  std::string name = switchName(portGroup);
  if (name.empty()) netWhy::kSwitchUnknown.report(services_.decisions, nic, portGroup, std::ssize(transitions));
  return name;
}

void NetCorrelator::reportPortGroupsDown(const std::string& nic) {
  const auto entry = portGroups_.down.find(nic);
  if (entry == portGroups_.down.end()) {
    netWhy::kNothingOnRecord.report(services_.decisions, nic, recordName(kPgDown));
    return;
  }
  clearFlag(kPgDown, nic);
  const std::string virtualSwitch = switchOf(entry->second, nic);
  if (virtualSwitch.empty() && !entry->second.empty()) return;  // Kept: the entry stays, later transitions join it.
  const UplinkLosses losses = sortLosses(portGroups_, nic, entry->second, services_.decisions);
  const auto postIfAny = [&](const auto& event, const std::vector<std::string>& names) {
    if (!names.empty()) event.post(services_.post, virtualSwitch.c_str(), nic.c_str(), quoteJoin(names).c_str());
  };
  postIfAny(kConnectivityLost, losses.connectivity);
  postIfAny(kRedundancyLost, losses.redundancy);
  postIfAny(kRedundancyDegraded, losses.degraded);
  portGroups_.down.erase(entry);
}

void NetCorrelator::reportDvPortsDown(const std::string& nic) {
  const auto entry = dvPorts_.down.find(nic);
  if (entry == dvPorts_.down.end()) {
    netWhy::kNothingOnRecord.report(services_.decisions, nic, recordName(kDvPortDown));
    return;
  }
  clearFlag(kDvPortDown, nic);
  const UplinkLosses losses = sortLosses(dvPorts_, nic, entry->second, services_.decisions);
  const auto postIfAny = [&](const auto& event, const std::vector<std::string>& labels) {
    if (!labels.empty()) event.post(services_.post, quoteJoin(labels).c_str(), nic.c_str());
  };
  postIfAny(kDvPortConnectivityLost, losses.connectivity);
  postIfAny(kDvPortRedundancyLost, losses.redundancy);
  postIfAny(kDvPortRedundancyDegraded, losses.degraded);
  dvPorts_.down.erase(entry);
}

void NetCorrelator::reportPortGroupsUp(const std::string& nic) {
  const auto entry = portGroups_.up.find(nic);
  if (entry == portGroups_.up.end()) {
    netWhy::kNothingOnRecord.report(services_.decisions, nic, recordName(kPgUp));
    return;
  }
  clearFlag(kPgUp, nic);
  const std::string virtualSwitch = switchOf(entry->second, nic);
  if (virtualSwitch.empty()) return;  // Kept: the entry stays, and later transitions join it.
  const std::vector<std::string> connected =
      takeRecoveries(portGroups_, dvPorts_, nic, entry->second, services_.decisions);
  const auto post = [&](const auto& event, const std::vector<std::string>& names) {
    event.post(services_.post, virtualSwitch.c_str(), quoteJoin(names).c_str(), nic.c_str());
  };
  if (!connected.empty() && connectivityRestored(nic, std::ssize(connected))) {
    post(kConnectivityRestored, connected);
  }
  const std::int64_t recovered = std::ssize(portGroups_.redundancyRestored);
  if (recovered > 0 && redundancyRestored(nic, recovered)) {
    post(kRedundancyRestored, portGroups_.redundancyRestored);
    portGroups_.redundancyRestored.clear();
  }
  portGroups_.up.erase(entry);
}

void NetCorrelator::reportDvPortsUp(const std::string& nic) {
  const auto entry = dvPorts_.up.find(nic);
  if (entry == dvPorts_.up.end()) {
    netWhy::kNothingOnRecord.report(services_.decisions, nic, recordName(kDvPortUp));
    return;
  }
  clearFlag(kDvPortUp, nic);
  const std::vector<std::string> connected =
      takeRecoveries(dvPorts_, portGroups_, nic, entry->second, services_.decisions);
  const auto post = [&](const auto& event, const std::vector<std::string>& labels) {
    event.post(services_.post, quoteJoin(labels).c_str(), nic.c_str());
  };
  if (!connected.empty() && connectivityRestored(nic, std::ssize(connected))) {
    post(kDvPortConnectivityRestored, connected);
  }
  const std::int64_t recovered = std::ssize(dvPorts_.redundancyRestored);
  if (recovered > 0 && redundancyRestored(nic, recovered)) {
    post(kDvPortRedundancyRestored, dvPorts_.redundancyRestored);
    dvPorts_.redundancyRestored.clear();
  }
  dvPorts_.up.erase(entry);
}

namespace {

void runNet(AgentContext& context) {
  // The timer may still fire once this thread has ended: the pipe is its as well.
  const auto wakeup = std::make_shared<std::array<int, 2>>(std::array{-1, -1});
  NetCorrelator correlator(context.services, [wakeup] {
    static constexpr char kWake[] = "foo";
    while (write((*wakeup)[1], kWake, sizeof kWake) < 0 && errno == EINTR) {
    }
  });
  if (!correlator.valid()) return;
  if (pipe2(wakeup->data(), O_CLOEXEC) != 0) {
    Panic("Failed to initialize pipes for this thread: %s\n", std::strerror(errno));
  }
  runCorrelatorWithWakeup(
      context, kNetCorrelator.nameWord, kNetCorrelator.groups[0], ignoreObservation, correlator.handlers(),
      [&correlator] { correlator.expire(); }, std::span(wakeup->data(), 1));
}

constexpr const char* kGroups[] = {"net"};

}  // namespace

constinit const CorrelatorInfo kNetCorrelator = {"net",    kGroups,    {},      runNet,
                                                 kNetRows, kNetJudged, nullptr, kNetDecisions};

}  // namespace keld
