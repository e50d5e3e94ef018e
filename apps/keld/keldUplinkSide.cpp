#include "keldUplinkSide.h"

#include "keldNetDecisions.h"

namespace keld {

namespace {

/// Like the next, returns how many it erases.
std::size_t eraseNic(UplinkSide::Register& losses, const std::string& nic) {
  return std::erase_if(losses, [&](const auto& loss) { return loss.first == nic; });
}

std::size_t eraseNicOrItem(UplinkSide::Register& losses, const std::string& nic, const std::string& item) {
  return std::erase_if(losses, [&](const auto& loss) { return loss.first == nic || loss.second == item; });
}

void reportCleared(DecisionListener* decisions, const std::string& nic, std::size_t losses) {
  if (losses > 0) netWhy::kLossesCleared.report(decisions, nic, static_cast<std::int64_t>(losses));
}

}  // namespace

UplinkLosses sortLosses(UplinkSide& side, const std::string& nic, const UplinkSide::List& transitions,
                        DecisionListener* decisions) {
  UplinkLosses losses;
  for (const auto& [item, activeUplinks, extra] : transitions) {
    if (activeUplinks < 0) {
      netWhy::kLossIgnored.report(decisions, nic, item, activeUplinks);
    } else if (activeUplinks == 0) {
      netWhy::kConnectivityLost.report(decisions, nic, item, activeUplinks);
      losses.connectivity.push_back(item);
      side.connectivityLost.emplace_back(nic, item);
    } else if (activeUplinks == 1) {
      netWhy::kRedundancyLost.report(decisions, nic, item, activeUplinks);
      losses.redundancy.push_back(item);
      side.redundancyLost.emplace_back(nic, item);
    } else {
      netWhy::kRedundancyDegraded.report(decisions, nic, item, activeUplinks);
      losses.degraded.push_back(item);
    }
  }
  return losses;
}

std::vector<std::string> takeRecoveries(UplinkSide& side, UplinkSide& other, const std::string& nic,
                                        const UplinkSide::List& transitions, DecisionListener* decisions) {
  std::vector<std::string> connected;
  std::size_t cleared = 0;
  for (const auto& [item, activeUplinks, extra] : transitions) {
    if (activeUplinks < 1) {
      netWhy::kRecoveryIgnored.report(decisions, nic, item, activeUplinks);
      continue;
    }
    if (activeUplinks == 1) {
      netWhy::kConnected.report(decisions, nic, item, activeUplinks);
      connected.push_back(item);
    } else {
      netWhy::kRedundant.report(decisions, nic, item, activeUplinks);
      side.redundancyRestored.push_back(item);
    }
    cleared += eraseNicOrItem(side.connectivityLost, nic, item);
    cleared += eraseNic(other.connectivityLost, nic);
    if (activeUplinks >= 2) {
      cleared += eraseNicOrItem(side.redundancyLost, nic, item);
      cleared += eraseNic(other.redundancyLost, nic);
    }
  }
  reportCleared(decisions, nic, cleared);
  return connected;
}

void clearLosses(UplinkSide& side, UplinkSide& other, const std::string& nic, DecisionListener* decisions) {
  std::size_t cleared = 0;
  for (UplinkSide* each : {&side, &other}) {
    cleared += eraseNic(each->connectivityLost, nic);
    cleared += eraseNic(each->redundancyLost, nic);
  }
  reportCleared(decisions, nic, cleared);
}

}  // namespace keld
