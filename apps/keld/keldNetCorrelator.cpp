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
#include <memory>
#include <optional>
#include <utility>

#include "keldArguments.h"
#include "keldLog.h"
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

void eraseNic(UplinkSide::Register& losses, const std::string& nic) {
  std::erase_if(losses, [&](const auto& loss) { return loss.first == nic; });
}

void eraseNicOrItem(UplinkSide::Register& losses, const std::string& nic, const std::string& item) {
  std::erase_if(losses, [&](const auto& loss) { return loss.first == nic || loss.second == item; });
}

/// The items of a down report by what is left to them.
struct Losses {
  std::vector<std::string> connectivity;
  std::vector<std::string> redundancy;
  std::vector<std::string> degraded;
};

Losses sortLosses(UplinkSide& side, const std::string& nic, const std::vector<UplinkSide::Transition>& transitions) {
  Losses losses;
  for (const UplinkSide::Transition& transition : transitions) {
    if (transition.activeUplinks < 0) continue;
    if (transition.activeUplinks == 0) {
      losses.connectivity.push_back(transition.item);
      side.connectivityLost.emplace_back(nic, transition.item);
    } else if (transition.activeUplinks == 1) {
      losses.redundancy.push_back(transition.item);
      side.redundancyLost.emplace_back(nic, transition.item);
    } else {
      losses.degraded.push_back(transition.item);
    }
  }
  return losses;
}

/// Takes the recoveries of an up report off the registers. Returns the items that are connected again.
std::vector<std::string> takeRecoveries(UplinkSide& side, UplinkSide& other, const std::string& nic,
                                        const std::vector<UplinkSide::Transition>& transitions) {
  std::vector<std::string> connected;
  for (const UplinkSide::Transition& transition : transitions) {
    if (transition.activeUplinks < 1) continue;
    if (transition.activeUplinks == 1) {
      connected.push_back(transition.item);
    } else {
      side.redundancyRestored.push_back(transition.item);
    }
    eraseNicOrItem(side.connectivityLost, nic, transition.item);
    eraseNic(other.connectivityLost, nic);
    if (transition.activeUplinks >= 2) {
      eraseNicOrItem(side.redundancyLost, nic, transition.item);
      eraseNic(other.redundancyLost, nic);
    }
  }
  return connected;
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

void tsoNotSupported(Post& post, const Kel* observation) {
  std::int64_t groupId = 0;
  if (Kel_GetIntArg(observation, 0, &groupId) != 0) return;
  VSI_VmmGroupInfo info{};
  try {
    QkCtl::Util::Sysinfo node(VSI_NODE_vm_vmmGroupInfo);
    node.SetInstance(groupId);
    node.Get(&info, sizeof info);
  } catch (const HostCtl::Lib::HostCtlException&) {
    return;
  }
  kTsoNotSupported.post(post, info.displayName);
}

}  // namespace

NetCorrelator::NetCorrelator(Services& services, std::function<void()> wake)
    : services_(services), timer_(services.timers.create(std::move(wake))), flapping_(services.clock, services.post) {}

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
      {"kel.net.e1000.tso6.notsupported", [&post](const Kel* observation) { tsoNotSupported(post, observation); }},
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

void NetCorrelator::schedule(std::uint32_t timeoutSeconds, std::uint32_t flag, const std::string& nic) {
  const std::int64_t now = services_.nowSeconds();
  pendingFlags_[nic] |= flag;
  if (pendingTimers_.empty()) {
    arm(timeoutSeconds, now);
  } else {
    // Kept: the time since the last arming is added, so the timer fires that much after the record is due.
    const std::uint32_t candidate = static_cast<std::uint32_t>(now - armedAt_) + timeoutSeconds;
    if (candidate < armedSeconds_) arm(candidate, now);
  }
  pendingTimers_[nic].push_back({flag, timeoutSeconds, now});
}

void NetCorrelator::portGroupDown(const Kel* observation) {
  Arguments arguments(observation);
  const std::string nic = arguments.text();
  UplinkSide::Transition transition{arguments.text(), arguments.integer(), arguments.integer()};
  if (arguments.failed()) return;
  if (!portGroups_.down.contains(nic)) schedule(kTransitionSeconds, kPgDown, nic);
  portGroups_.down[nic].push_back(std::move(transition));
}

void NetCorrelator::portGroupUp(const Kel* observation) {
  Arguments arguments(observation);
  const std::string nic = arguments.text();
  UplinkSide::Transition transition{arguments.text(), arguments.integer()};
  if (arguments.failed()) return;
  if (!portGroups_.up.contains(nic)) schedule(kTransitionSeconds, kPgUp, nic);
  portGroups_.up[nic].push_back(std::move(transition));
}

void NetCorrelator::dvPortDown(const Kel* observation) {
  Arguments arguments(observation);
  const std::string nic = arguments.text();
  const std::string switchPart = arguments.text();
  const std::string portPart = arguments.text();
  UplinkSide::Transition transition{switchPart + '/' + portPart, arguments.integer(), arguments.integer()};
  if (arguments.failed()) return;
  if (!dvPorts_.down.contains(nic)) schedule(kTransitionSeconds, kDvPortDown, nic);
  dvPorts_.down[nic].push_back(std::move(transition));
}

void NetCorrelator::dvPortUp(const Kel* observation) {
  Arguments arguments(observation);
  const std::string nic = arguments.text();
  const std::string switchPart = arguments.text();
  const std::string portPart = arguments.text();
  UplinkSide::Transition transition{switchPart + '/' + portPart, arguments.integer()};
  if (arguments.failed()) return;
  if (!dvPorts_.up.contains(nic)) schedule(kTransitionSeconds, kDvPortUp, nic);
  dvPorts_.up[nic].push_back(std::move(transition));
}

void NetCorrelator::linkDown(const Kel* observation) {
  const auto nic = readNic(observation);
  if (!nic) return;
  flapping_.CheckLinkFlapping(*nic);
  if (!isSet(kPgDown, *nic) && !isSet(kDvPortDown, *nic)) schedule(kLinkSeconds, kLinkDown, *nic);
}

void NetCorrelator::linkUp(const Kel* observation) {
  const auto nic = readNic(observation);
  if (nic && !isSet(kPgUp, *nic) && !isSet(kDvPortUp, *nic)) schedule(kLinkSeconds, kLinkUp, *nic);
}

void NetCorrelator::watchdogTimeout(const Kel* observation) {
  if (const auto nic = readNic(observation)) schedule(kWatchdogSeconds, kWatchdog, *nic);
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
  const bool watchdog = isSet(kWatchdog, nic);
  switch (flag) {
    case kPgDown:
      if (!watchdog) reportPortGroupsDown(nic);
      break;
    case kDvPortDown:
      if (!watchdog) reportDvPortsDown(nic);
      break;
    case kPgUp:
      if (!watchdog) reportPortGroupsUp(nic);
      break;
    case kDvPortUp:
      if (!watchdog) reportDvPortsUp(nic);
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

void NetCorrelator::linkDownDue(const std::string& nic) {
  clearFlag(kLinkDown, nic);
  // The reports of the transitions speak for the link.
  if (isSet(kPgDown, nic) || isSet(kDvPortDown, nic) || isSet(kWatchdog, nic)) return;
  kLinkStateDown.post(services_.post, nic.c_str());
}

void NetCorrelator::linkUpDue(const std::string& nic) {
  clearFlag(kLinkUp, nic);
  if (isSet(kPgUp, nic) || isSet(kDvPortUp, nic) || isSet(kWatchdog, nic)) return;
  Post& post = services_.post;
  kLinkStateUp.post(post, nic.c_str());
  for (UplinkSide* side : {&dvPorts_, &portGroups_}) {
    eraseNic(side->connectivityLost, nic);
    eraseNic(side->redundancyLost, nic);
  }
  // Kept: with nothing on record these close, without naming it, whatever the agent still holds open.
  if (portGroups_.connectivityLost.empty() && dvPorts_.connectivityLost.empty()) {
    kConnectivityRestored.post(post, "", "", nic.c_str());
    kDvPortConnectivityRestored.post(post, "", nic.c_str());
  }
  if (portGroups_.redundancyLost.empty() && dvPorts_.redundancyLost.empty()) {
    kRedundancyRestored.post(post, "", "", nic.c_str());
    kDvPortRedundancyRestored.post(post, "", nic.c_str());
  }
}

void NetCorrelator::watchdogDue(const std::string& nic) {
  const bool pgDown = isSet(kPgDown, nic);
  const bool dvPortDown = isSet(kDvPortDown, nic);
  const bool linkDown = isSet(kLinkDown, nic);
  const bool pgUp = isSet(kPgUp, nic);
  const bool dvPortUp = isSet(kDvPortUp, nic);
  if (!pgDown && !dvPortDown && !linkDown) return;
  if (pgUp || dvPortUp || isSet(kLinkUp, nic)) {
    if (pgDown) {
      portGroups_.down.erase(nic);
    } else if (dvPortDown) {
      dvPorts_.down.erase(nic);
    }
    if (pgUp) {
      portGroups_.up.erase(nic);
    } else if (dvPortUp) {
      dvPorts_.down.erase(nic);  // Kept: the down table again; the up entry is left in place.
    }
    pendingFlags_[nic] = 0;
    kWatchdogReset.post(services_.post, nic.c_str());
    return;
  }
  // WATCHDOG stays set: only a reset ends the silence of this NIC.
  if (pgDown) {
    reportPortGroupsDown(nic);
  } else if (dvPortDown) {
    reportDvPortsDown(nic);
  } else if (linkDown) {
    kLinkStateDown.post(services_.post, nic.c_str());
  } else {
    Panic("Unknown state: %x\n", pendingFlags_[nic]);
  }
}

void NetCorrelator::reportPortGroupsDown(const std::string& nic) {
  const auto entry = portGroups_.down.find(nic);
  if (entry == portGroups_.down.end()) return;
  clearFlag(kPgDown, nic);
  std::string virtualSwitch;
  if (!entry->second.empty()) {
    virtualSwitch = switchName(entry->second.front().item);
    if (virtualSwitch.empty()) return;  // Kept: the entry stays, and later transitions join it.
  }
  const Losses losses = sortLosses(portGroups_, nic, entry->second);
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
  if (entry == dvPorts_.down.end()) return;
  clearFlag(kDvPortDown, nic);
  const Losses losses = sortLosses(dvPorts_, nic, entry->second);
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
  if (entry == portGroups_.up.end()) return;
  clearFlag(kPgUp, nic);
  const std::string virtualSwitch = entry->second.empty() ? "" : switchName(entry->second.front().item);
  if (virtualSwitch.empty()) return;  // Kept: the entry stays, and later transitions join it.
  const std::vector<std::string> connected = takeRecoveries(portGroups_, dvPorts_, nic, entry->second);
  const auto post = [&](const auto& event, const std::vector<std::string>& names) {
    event.post(services_.post, virtualSwitch.c_str(), quoteJoin(names).c_str(), nic.c_str());
  };
  if (!connected.empty() && portGroups_.connectivityLost.empty() && dvPorts_.connectivityLost.empty()) {
    post(kConnectivityRestored, connected);
  }
  if (!portGroups_.redundancyRestored.empty() && portGroups_.redundancyLost.empty() &&
      dvPorts_.redundancyLost.empty()) {
    post(kRedundancyRestored, portGroups_.redundancyRestored);
    portGroups_.redundancyRestored.clear();
  }
  portGroups_.up.erase(entry);
}

void NetCorrelator::reportDvPortsUp(const std::string& nic) {
  const auto entry = dvPorts_.up.find(nic);
  if (entry == dvPorts_.up.end()) return;
  clearFlag(kDvPortUp, nic);
  const std::vector<std::string> connected = takeRecoveries(dvPorts_, portGroups_, nic, entry->second);
  const auto post = [&](const auto& event, const std::vector<std::string>& labels) {
    event.post(services_.post, quoteJoin(labels).c_str(), nic.c_str());
  };
  if (!connected.empty() && portGroups_.connectivityLost.empty() && dvPorts_.connectivityLost.empty()) {
    post(kDvPortConnectivityRestored, connected);
  }
  if (!dvPorts_.redundancyRestored.empty() && portGroups_.redundancyLost.empty() && dvPorts_.redundancyLost.empty()) {
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

constinit const CorrelatorInfo kNetCorrelator = {"net", kGroups, {}, runNet, kNetRows, kNetJudged};

}  // namespace keld
