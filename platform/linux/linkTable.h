// The network devices of the host as the kernel last described them, and what follows from a change
// of them: which NIC lost or got its link, and what that leaves the port groups that it serves.
//
// A NIC is an Ethernet device that is no bridge, bond (or team), VLAN, tap or loopback, and that the
// configuration does not exclude. It serves the port groups of the bridge that it is a port of,
// directly or through a bond.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/host.h"
#include "linux/linkMessage.h"

namespace platform {

class PlatformConf;

/// What the configuration says about links.
struct LinkPolicy {
  std::vector<std::string> excluded;              ///< glob(7) patterns of devices that are not to count as NICs
  std::map<std::string, std::string> portGroups;  ///< port group to bridge

  /// From `nics.exclude = GLOB...` and `portGroup NAME = BRIDGE`.
  static LinkPolicy of(const PlatformConf& conf);
};

/// What a change of one NIC's link means for one port group.
struct UplinkTransition {
  std::string portGroup;
  std::int32_t active = 0;  ///< uplinks of the port group whose link is up, after the change
  std::int32_t total = 0;   ///< uplinks of the port group, the NIC itself included
  bool operator==(const UplinkTransition&) const = default;
};

/// A NIC's link came or went.
struct LinkChange {
  std::string nic;
  bool up = false;
  std::vector<UplinkTransition> transitions;  ///< by name of the port group
  bool operator==(const LinkChange&) const = default;
};

/// Short-lived losses of a link that the kernel merged are made up for by at most so many reports.
inline constexpr std::uint32_t kFlapsReported = 16;

/// Belongs to one thread.
class LinkTable {
 public:
  explicit LinkTable(LinkPolicy policy) : policy_(std::move(policy)) {}

  /// Takes in one notification. Repetitions, messages of other families and a device that was not
  /// known before yield no change; a NIC that goes away while its link is up yields a loss.
  std::vector<LinkChange> apply(const LinkMessage& message);

  /// Takes in a dump of all links; what it does not list has gone away. The first dump is learnt and
  /// yields nothing.
  std::vector<LinkChange> resync(const std::vector<LinkMessage>& dump);

  /// Every port group: the configured ones, whether or not their bridge exists, and each bridge that
  /// no port group is configured for, by its own name.
  [[nodiscard]] std::vector<PortGroupFacts> portGroups() const;

  /// The device of that name; nullptr where there is none.
  [[nodiscard]] const LinkMessage* find(const std::string& name) const;
  /// Nothing for a NIC; otherwise why the device is none, such as "a bridge".
  [[nodiscard]] std::optional<std::string> whyNoNic(const LinkMessage& link) const;
  [[nodiscard]] std::size_t size() const { return links_.size(); }

 private:
  struct Link {
    LinkMessage facts;
    bool nic = false;
    bool up = false;  ///< administratively up and with carrier
  };

  [[nodiscard]] Link describe(const LinkMessage& message) const;
  [[nodiscard]] const Link* at(std::int32_t index) const;
  [[nodiscard]] const Link* bridgeOf(const Link& nic) const;
  [[nodiscard]] std::vector<std::string> portGroupsOf(const std::string& bridge) const;
  [[nodiscard]] LinkChange setLink(Link& nic, bool up);
  std::vector<LinkChange> update(Link& known, const LinkMessage& message);
  std::optional<LinkChange> vanish(Link& known);

  LinkPolicy policy_;
  std::map<std::int32_t, Link> links_;  ///< by index
};

}  // namespace platform
