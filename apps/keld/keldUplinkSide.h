// What is on record of the uplinks of port groups, or of distributed ports.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "keldDecision.h"

namespace keld {

/// The transitions, losses and recoveries of port groups, or of distributed ports.
struct UplinkSide {
  struct Transition {
    std::string item;  // port group name, or DVPort label
    std::int32_t activeUplinks;
    std::int32_t extra = 0;  // of a down observation; never consulted
  };
  using List = std::vector<Transition>;                               // in order of arrival
  using Transitions = std::map<std::string, List>;                    // by NIC
  using Register = std::vector<std::pair<std::string, std::string>>;  // NIC, item

  Transitions down;
  Transitions up;
  Register connectivityLost;
  Register redundancyLost;
  std::vector<std::string> redundancyRestored;  // waits until no redundancy loss is on record
};

/// The items of a down report by what is left to them.
struct UplinkLosses {
  std::vector<std::string> connectivity;
  std::vector<std::string> redundancy;
  std::vector<std::string> degraded;
};

/// Puts the losses of a down report of `nic` on the registers of its side.
UplinkLosses sortLosses(UplinkSide& side, const std::string& nic, const UplinkSide::List& transitions,
                        DecisionListener* decisions);

/// Takes the recoveries of an up report off the registers. Returns the items that are connected again.
std::vector<std::string> takeRecoveries(UplinkSide& side, UplinkSide& other, const std::string& nic,
                                        const UplinkSide::List& transitions, DecisionListener* decisions);

/// Takes the losses of `nic` off all registers.
void clearLosses(UplinkSide& side, UplinkSide& other, const std::string& nic, DecisionListener* decisions);

}  // namespace keld
