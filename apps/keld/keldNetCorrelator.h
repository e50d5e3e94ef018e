// The network correlator: uplink state, redundancy, link flapping, and the one-to-one events of
// the group "net".
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "keldCorrelator.h"
#include "keldFramework.h"
#include "keldLinkFlapping.h"

namespace keld {

/// What the agent starter and the catalogue know of this correlator.
extern const CorrelatorInfo kNetCorrelator;

/// The transitions, losses and recoveries of port groups, or of distributed ports.
struct UplinkSide {
  struct Transition {
    std::string item;  // port group name, or DVPort label
    std::int32_t activeUplinks;
    std::int32_t extra = 0;  // of a down observation; never consulted
  };
  using Transitions = std::map<std::string, std::vector<Transition>>;  // by NIC, in order of arrival
  using Register = std::vector<std::pair<std::string, std::string>>;   // NIC, item

  Transitions down;
  Transitions up;
  Register connectivityLost;
  Register redundancyLost;
  std::vector<std::string> redundancyRestored;  // waits until no redundancy loss is on record
};

/// The correlator's state and judgement. All calls are made by one thread at a time.
class NetCorrelator {
 public:
  /// Takes a one-shot timer whose callback is `wake`; whoever is woken calls expire() on the
  /// correlator's own thread.
  NetCorrelator(Services& services, std::function<void()> wake);

  /// False where no timer could be had; the correlator must not be run then.
  [[nodiscard]] bool valid() const { return timer_ != kNoTimer; }

  /// The handlers of all observations of the group; they refer to this object.
  [[nodiscard]] HandlerTable handlers();

  /// The expiry pass: handles every pending record that is due and re-arms the timer.
  void expire();

 private:
  struct PendingTimer {
    std::uint32_t flag;
    std::uint32_t timeoutSeconds;
    std::int64_t start;  // second of the host's clock
  };

  void portGroupDown(const Kel* observation);
  void portGroupUp(const Kel* observation);
  void dvPortDown(const Kel* observation);
  void dvPortUp(const Kel* observation);
  void linkDown(const Kel* observation);
  void linkUp(const Kel* observation);
  void watchdogTimeout(const Kel* observation);

  [[nodiscard]] bool isSet(std::uint32_t flags, const std::string& nic) const;
  void clearFlag(std::uint32_t flag, const std::string& nic);
  void arm(std::uint32_t seconds, std::int64_t now);
  void schedule(std::uint32_t timeoutSeconds, std::uint32_t flag, const std::string& nic);

  void handleDue(std::uint32_t flag, const std::string& nic);
  void linkDownDue(const std::string& nic);
  void linkUpDue(const std::string& nic);
  void watchdogDue(const std::string& nic);
  void reportPortGroupsDown(const std::string& nic);
  void reportPortGroupsUp(const std::string& nic);
  void reportDvPortsDown(const std::string& nic);
  void reportDvPortsUp(const std::string& nic);

  Services services_;
  int timer_;
  LinkFlapping flapping_;

  std::map<std::string, std::uint32_t> pendingFlags_;
  std::map<std::string, std::vector<PendingTimer>> pendingTimers_;
  std::int64_t armedAt_ = 0;
  std::uint32_t armedSeconds_ = 0;

  UplinkSide portGroups_;
  UplinkSide dvPorts_;
};

}  // namespace keld
