#include "keldLinkFlapping.h"

#include <iterator>

#include "keldNetDecisions.h"
#include "keldNetRows.h"
#include "platform/qkctl.h"

namespace keld {

namespace {

/// Asks the kernel to take the NIC down. False where any step fails.
bool takeDown(const std::string& nic) {
  try {
    QkCtl::Util::Sysinfo node(VSI_NODE_net_pNics_linkFlapping);
    node.AddInstancePath(nic);
    node.AddInput(1);
    node.Set();
    return true;
  } catch (const HostCtl::Lib::HostCtlException&) {
    return false;
  }
}

}  // namespace

void LinkFlapping::CheckLinkFlapping(const std::string& nic) {
  const std::int64_t now = services_.nowSeconds();
  std::deque<std::int64_t>& times = linkDownTimes_[nic];
  times.push_back(now);
  while (!times.empty() && times.front() < now - kWindowSeconds) times.pop_front();

  DecisionListener* const decisions = services_.decisions;
  const std::int64_t count = std::ssize(times);
  std::int64_t threshold = 0;
  try {
    threshold = QkCtl::Adv::AdvancedIntegerOptionImpl({"Net"}, "LinkFlappingThreshold").GetValue();
  } catch (const HostCtl::Lib::HostCtlException&) {
    netWhy::kFlappingUnread.report(decisions, nic, kWindowSeconds, count);
    return;
  }
  if (threshold == 0) {
    netWhy::kFlappingOff.report(decisions, nic, kWindowSeconds, count);
    return;
  }
  if (count <= threshold) {
    netWhy::kFlappingBelow.report(decisions, nic, kWindowSeconds, count, threshold);
    return;
  }
  if (takeDown(nic)) {
    netWhy::kFlappingTakenDown.report(decisions, nic, kWindowSeconds, count, threshold);
    kFlapping.post(services_.post, nic.c_str());
  } else {
    netWhy::kFlappingRefused.report(decisions, nic, kWindowSeconds, count, threshold);
  }
  times.clear();
}

}  // namespace keld
