#include "linux/linkTable.h"

#include <fnmatch.h>
#include <linux/if.h>
#include <linux/if_arp.h>
#include <sys/socket.h>

#include <algorithm>
#include <set>
#include <sstream>

#include "host/paths.h"

namespace platform {

namespace {

bool isBond(const LinkMessage& link) {
  return link.kind == "bond" || link.kind == "team";
}
bool isBridge(const LinkMessage& link) {
  return link.kind == "bridge";
}

bool isAdminUp(const LinkMessage& link) {
  return (link.flags & IFF_UP) != 0;
}

/// The operational state does not count: many drivers leave it unknown, and such a link is usable.
bool isLinkUp(const LinkMessage& link) {
  return isAdminUp(link) && (link.flags & IFF_LOWER_UP) != 0;
}

/// How far a wrapping counter has advanced; negative where `now` is older.
std::int32_t advance(const std::optional<std::uint32_t>& before, const std::optional<std::uint32_t>& now) {
  return before && now ? static_cast<std::int32_t>(*now - *before) : 0;
}

/// Carrier counters only grow while a device lives, so they order what the kernel says about it.
bool isOlder(const LinkMessage& message, const LinkMessage& known) {
  return advance(known.carrierUpCount, message.carrierUpCount) < 0 ||
         advance(known.carrierDownCount, message.carrierDownCount) < 0;
}

/// How often the link went and came unseen between two messages of the same device: beyond what the
/// states themselves tell, its carrier arrived where it is now. A device that was administratively
/// down meanwhile had no link to lose.
std::uint32_t unseenFlaps(const LinkMessage& before, const LinkMessage& now) {
  if (!isAdminUp(before) || !isAdminUp(now)) return 0;
  const std::int32_t arrivals = isLinkUp(now) ? advance(before.carrierUpCount, now.carrierUpCount)
                                              : advance(before.carrierDownCount, now.carrierDownCount);
  const std::int32_t unseen = arrivals - (isLinkUp(before) != isLinkUp(now) ? 1 : 0);
  return unseen <= 0 ? 0 : std::min(static_cast<std::uint32_t>(unseen), kFlapsReported);
}

bool concernsLinks(const LinkMessage& message) {
  return message.family == AF_UNSPEC && !message.partial;
}

}  // namespace

LinkPolicy LinkPolicy::of(const PlatformConf& conf) {
  LinkPolicy policy;
  for (const std::string& patterns : conf.values("nics.exclude")) {
    std::istringstream words(patterns);
    for (std::string word; words >> word;) policy.excluded.push_back(word);
  }
  for (const auto& [name, bridge] : conf.named("portGroup")) policy.portGroups[name] = bridge;
  return policy;
}

std::optional<std::string> LinkTable::whyNoNic(const LinkMessage& link) const {
  if (link.type == ARPHRD_LOOPBACK || (link.flags & IFF_LOOPBACK) != 0) return "the loopback device";
  if (link.type != ARPHRD_ETHER) return "no Ethernet device";
  if (isBridge(link)) return "a bridge";
  if (isBond(link)) return "a bond";
  if (link.kind == "vlan") return "a VLAN";
  if (link.kind == "tun") return "a tap";
  for (const std::string& pattern : policy_.excluded) {
    if (::fnmatch(pattern.c_str(), link.name.c_str(), 0) == 0) return "excluded by nics.exclude";
  }
  return std::nullopt;
}

LinkTable::Link LinkTable::describe(const LinkMessage& message) const {
  return {message, !whyNoNic(message).has_value(), isLinkUp(message)};
}

const LinkTable::Link* LinkTable::at(std::int32_t index) const {
  const auto found = links_.find(index);
  return found == links_.end() ? nullptr : &found->second;
}

const LinkMessage* LinkTable::find(const std::string& name) const {
  const auto found =
      std::find_if(links_.begin(), links_.end(), [&](const auto& l) { return l.second.facts.name == name; });
  return found == links_.end() ? nullptr : &found->second.facts;
}

const LinkTable::Link* LinkTable::bridgeOf(const Link& nic) const {
  const Link* master = at(nic.facts.master);
  if (master != nullptr && isBond(master->facts)) master = at(master->facts.master);
  return master != nullptr && isBridge(master->facts) ? master : nullptr;
}

std::vector<std::string> LinkTable::portGroupsOf(const std::string& bridge) const {
  std::vector<std::string> names;
  for (const auto& [name, mapped] : policy_.portGroups) {
    if (mapped == bridge) names.push_back(name);
  }
  // A configured port group of that name hides the bridge's own.
  if (names.empty() && !policy_.portGroups.contains(bridge)) names.push_back(bridge);
  return names;
}

std::vector<PortGroupFacts> LinkTable::portGroups() const {
  std::map<std::string, PortGroupFacts> groups;
  for (const auto& [name, bridge] : policy_.portGroups) groups[name] = {name, bridge, {}};
  for (const auto& [index, link] : links_) {
    if (!isBridge(link.facts)) continue;
    for (const std::string& name : portGroupsOf(link.facts.name)) groups[name] = {name, link.facts.name, {}};
  }
  for (const auto& [index, link] : links_) {
    const Link* const bridge = link.nic ? bridgeOf(link) : nullptr;
    if (bridge == nullptr) continue;
    for (const std::string& name : portGroupsOf(bridge->facts.name)) groups[name].uplinks.push_back(link.facts.name);
  }
  std::vector<PortGroupFacts> all;
  for (auto& [name, facts] : groups) {
    std::sort(facts.uplinks.begin(), facts.uplinks.end());
    all.push_back(std::move(facts));
  }
  return all;
}

/// Puts a NIC's link up or down, by the port groups that it serves at this moment.
LinkChange LinkTable::setLink(Link& nic, bool up) {
  nic.up = up;
  LinkChange change{nic.facts.name, up, {}};
  const Link* const bridge = bridgeOf(nic);
  if (bridge == nullptr) return change;
  std::int32_t active = 0;
  std::int32_t total = 0;
  for (const auto& [index, link] : links_) {
    if (!link.nic || bridgeOf(link) != bridge) continue;
    ++total;
    if (link.up) ++active;
  }
  for (std::string& name : portGroupsOf(bridge->facts.name))
    change.transitions.push_back({std::move(name), active, total});
  return change;
}

std::vector<LinkChange> LinkTable::update(Link& known, const LinkMessage& message) {
  LinkMessage facts = message;
  if (facts.name.empty()) facts.name = known.facts.name;
  Link now = describe(facts);
  std::vector<LinkChange> changes;
  if (!known.nic || !now.nic) {
    known = std::move(now);
    return changes;
  }
  const bool before = known.up;
  const std::uint32_t flaps = unseenFlaps(known.facts, now.facts);
  // A loss concerns the port groups served until now, whatever the same message says of the master.
  known.facts.name = now.facts.name;
  if (before && !now.up) changes.push_back(setLink(known, false));
  known.facts = std::move(now.facts);
  if (!before && now.up) changes.push_back(setLink(known, true));
  for (std::uint32_t flap = 0; flap < flaps; ++flap) {
    changes.push_back(setLink(known, !now.up));
    changes.push_back(setLink(known, now.up));
  }
  return changes;
}

std::optional<LinkChange> LinkTable::vanish(Link& known) {
  if (!known.nic || !known.up) return std::nullopt;
  return setLink(known, false);
}

std::vector<LinkChange> LinkTable::apply(const LinkMessage& message) {
  std::vector<LinkChange> changes;
  if (!concernsLinks(message)) return changes;
  const auto known = links_.find(message.index);
  if (message.removed) {
    if (known == links_.end()) return changes;
    if (auto loss = vanish(known->second)) changes.push_back(std::move(*loss));
    links_.erase(known);
  } else if (known == links_.end()) {
    if (!message.name.empty()) links_.emplace(message.index, describe(message));
  } else if (!isOlder(message, known->second.facts)) {
    changes = update(known->second, message);
  }
  return changes;
}

std::vector<LinkChange> LinkTable::resync(const std::vector<LinkMessage>& dump) {
  std::map<std::int32_t, const LinkMessage*> listed;
  for (const LinkMessage& message : dump) {
    if (concernsLinks(message) && !message.removed && !message.name.empty()) listed[message.index] = &message;
  }
  std::vector<LinkChange> changes;
  // What went away is judged while the rest is as it was. A device whose counters ran back is
  // another one under the same index.
  std::set<std::int32_t> gone;
  for (auto& [index, link] : links_) {
    const auto found = listed.find(index);
    if (found != listed.end() && !isOlder(*found->second, link.facts)) continue;
    if (auto loss = vanish(link)) changes.push_back(std::move(*loss));
    gone.insert(index);
  }
  for (const std::int32_t index : gone) links_.erase(index);
  // Bridges and bonds first, so that a NIC which joined a new one is seen to serve it.
  std::vector<const LinkMessage*> nics;
  for (const auto& [index, message] : listed) {
    const auto known = links_.find(index);
    if (known == links_.end()) {
      links_.emplace(index, describe(*message));
    } else if (known->second.nic) {
      nics.push_back(message);
    } else {
      known->second = describe(*message);
    }
  }
  for (const LinkMessage* message : nics) {
    auto seen = update(links_.at(message->index), *message);
    std::move(seen.begin(), seen.end(), std::back_inserter(changes));
  }
  return changes;
}

}  // namespace platform
