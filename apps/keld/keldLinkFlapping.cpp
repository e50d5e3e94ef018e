#include "keldLinkFlapping.h"

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
  const std::int64_t now = clock_.wallSeconds().time_since_epoch().count();
  std::deque<std::int64_t>& times = linkDownTimes_[nic];
  times.push_back(now);
  while (!times.empty() && times.front() < now - kWindowSeconds) times.pop_front();

  std::int64_t threshold = 0;
  try {
    threshold = QkCtl::Adv::AdvancedIntegerOptionImpl({"Net"}, "LinkFlappingThreshold").GetValue();
  } catch (const HostCtl::Lib::HostCtlException&) {
    return;
  }
  if (threshold == 0 || static_cast<std::int64_t>(times.size()) <= threshold) return;
  if (takeDown(nic)) kFlapping.post(post_, nic.c_str());
  times.clear();
}

}  // namespace keld
