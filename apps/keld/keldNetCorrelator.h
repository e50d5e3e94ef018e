// The network correlator: uplink state, redundancy, link flapping, and the one-to-one events of
// the group "net".
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <string>
#include <vector>

#include "keldCorrelator.h"
#include "keldFramework.h"
#include "keldLinkFlapping.h"
#include "keldUplinkSide.h"

namespace keld {

/// What the agent starter and the catalogue know of this correlator.
extern const CorrelatorInfo kNetCorrelator;

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
  /// Seconds until the timer fires.
  [[nodiscard]] std::int64_t secondsToTimer(std::int64_t now) const;
  /// Returns in how many seconds the record is settled, unless a later one moves the timer.
  std::int64_t schedule(std::uint32_t timeoutSeconds, std::uint32_t flag, const std::string& nic);

  [[nodiscard]] bool hasTimer(std::uint32_t flag, const std::string& nic) const;
  /// The first of the flags that is set; 0 where none is.
  [[nodiscard]] std::uint32_t firstSet(std::initializer_list<std::uint32_t> flags, const std::string& nic) const;
  void putOnRecord(UplinkSide::Transitions& transitions, std::uint32_t flag, const std::string& nic,
                   UplinkSide::Transition transition);
  void linkChanged(std::uint32_t flag, std::uint32_t covering, const std::string& nic);

  void handleDue(std::uint32_t flag, const std::string& nic);
  void transitionsDue(std::uint32_t flag, const std::string& nic);
  [[nodiscard]] bool linkSpeaks(std::uint32_t flag, std::uint32_t covering, const std::string& nic) const;
  void linkDownDue(const std::string& nic);
  void linkUpDue(const std::string& nic);
  void watchdogDue(const std::string& nic);
  /// The quoted name of the switch that the transitions are about; empty where the look-up fails.
  [[nodiscard]] std::string switchOf(const UplinkSide::List& transitions, const std::string& nic) const;
  /// True where no loss is on record, so that recoveries are reported.
  [[nodiscard]] bool connectivityRestored(const std::string& nic, std::int64_t named) const;
  [[nodiscard]] bool redundancyRestored(const std::string& nic, std::int64_t named) const;
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
