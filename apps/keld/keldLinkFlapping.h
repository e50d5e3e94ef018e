// Link flapping: a NIC whose link goes down too often within a minute is taken down.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <string>

#include "keldFramework.h"

namespace keld {

/// Counts link-downs per NIC in a sliding window. Used by the network correlator's thread only.
class LinkFlapping {
 public:
  static constexpr std::int64_t kWindowSeconds = 60;

  explicit LinkFlapping(Services& services) : services_(services) {}

  /// Counts a link-down of the NIC. Above the threshold of option Net/LinkFlappingThreshold (0: off)
  /// it asks the kernel to take the NIC down and posts the event where that succeeds.
  void CheckLinkFlapping(const std::string& nic);

 private:
  Services& services_;
  std::map<std::string, std::deque<std::int64_t>> linkDownTimes_;
};

}  // namespace keld
