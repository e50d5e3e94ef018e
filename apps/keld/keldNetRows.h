// The network correlator's rows and events.
#pragma once

#include <array>
#include <iterator>

#include "keldRow.h"

namespace keld {

inline constexpr auto kNetRows = table(
    "kel.net.",
    {
        // clang-format off
    {"kel.net.firewall.disabled", "", VProbKind::audit,
     "@&!*@*@(orn.audit.net.firewall.disabled)Firewall has been disabled."},
    {"kel.net.firewall.enabled", "s", VProbKind::audit,
     "@&!*@*@(orn.audit.net.firewall.enabled)Firewall has been enabled for port %s"},
    {"kel.net.firewall.port.hooked", "s", VProbKind::audit,
     "@&!*@*@(orn.audit.net.firewall.port.hooked)Port %s is now protected by Firewall."},
    {"kel.net.firewall.port.hookfailed", "s", VProbKind::problem,
     "@&!*@*@(orn.problem.net.firewall.port.hookfailed)Adding port %s to Firewall failed."},
    {"kel.net.firewall.port.removed", "s", VProbKind::audit,
     "@&!*@*@(orn.audit.net.firewall.port.removed)Port %s is not protected with Firewall now."},
    {"kel.net.firewall.config.changed", "%p %p", VProbKind::audit,
     "@&!*@*@(orn.audit.net.firewall.config.changed)Firewall configuration has changed. Operation '%s' for rule set %s succeeded."},
    {"kel.net.firewall.config.failed", "%p %p", VProbKind::problem,
     "@&!*@*@(orn.problem.net.firewall.config.failed)Firewall configuration operation '%s' failed. The changes were not applied to rule set %s."},
    {"kel.net.rspan.teaming.uplink.io.conflict", "%p %p %p %p", VProbKind::problem,
     "@&!*@*@(orn.problem.net.rspan.teaming.uplink.io.conflict)Failed to set RSPAN src session %s on portset %s due to it disallows uplink I/O which conflicts with %s teaming policy %s."},
    {"kel.net.teaming.policy.invalid.uplink", "%p %p %p", VProbKind::problem,
     "@&!*@*@(orn.problem.net.teaming.policy.invalid.uplink)Failed to update teaming policy %s on portset %s due to an invalid uplink %s which disallows normal I/O."},
    {"kel.net.portset.unsupported.psclass", "%p", VProbKind::problem,
     "@&!*@*@(orn.problem.net.portset.unsupported.psclass)%s is not a Korvel supported portset class, the relevant module must be unloaded."},
    {"kel.net.lacp.lag.transition.up", "%p %p", VProbKind::clear,
     "@&!*@*@(orn.clear.net.lacp.lag.transition.up)LAG %s on MSW %s is up."},
    {"kel.net.lacp.lag.transition.down", "%p %p", VProbKind::problem,
     "@&!*@*@(orn.problem.net.lacp.lag.transition.down)LAG %s on MSW %s is down."},
    {"kel.net.lacp.uplink.peer.noresponse", "%p", VProbKind::problem,
     "@&!*@*@(orn.problem.net.lacp.peer.noresponse.2)No peer response on MSW %s"},
    {"kel.net.lacp.uplink.disconnected", "%p %p", VProbKind::problem,
     "@&!*@*@(orn.problem.net.lacp.uplink.disconnected)uplink %s on MSW %s got disconnected"},
    {"kel.net.lacp.uplink.connected", "%p %p", VProbKind::audit,
     "@&!*@*@(orn.audit.net.lacp.uplink.connected)uplink %s on MSW %s got connected"},
    {"kel.net.lacp.uplink.unblocked", "%p %p", VProbKind::clear,
     "@&!*@*@(orn.clear.net.lacp.uplink.unblocked)uplink %s on MSW %s is unblocked"},
    {"kel.net.lacp.uplink.blocked", "%p %p", VProbKind::problem,
     "@&!*@*@(orn.problem.net.lacp.uplink.blocked)uplink %s on MSW %s is blocked"},
    {"kel.net.lacp.uplink.fail.duplex", "%p %p", VProbKind::problem,
     "@&!*@*@(orn.problem.net.lacp.uplink.fail.duplex)Duplex mode across all uplink ports must be full, MSW %s uplink %s has different mode"},
    {"kel.net.lacp.uplink.fail.speed", "%p %p", VProbKind::problem,
     "@&!*@*@(orn.problem.net.lacp.uplink.fail.speed)Speed across all uplink ports must be same, MSW %s uplink %s has different speed"},
    {"kel.net.lacp.uplink.transition.up", "%p %p", VProbKind::clear,
     "@&!*@*@(orn.clear.net.lacp.uplink.transition.up)uplink %s on MSW %s is moved into link aggregation group"},
    {"kel.net.lacp.uplink.transition.down", "%p %p", VProbKind::problem,
     "@&!*@*@(orn.problem.net.lacp.uplink.transition.down)uplink %s on MSW %s is moved out of link aggregation group."},
    {"kel.net.lacp.uplink.inactive", "%p", VProbKind::problem,
     "@&!*@*@(orn.problem.net.lacp.uplink.inactive)All uplinks on MSW %s must be active for LACP"},
    {"kel.net.lacp.policy.linkstatus", "%p", VProbKind::problem,
     "@&!*@*@(orn.problem.net.lacp.policy.linkstatus)Current teaming policy for MSW %s is incompatible, supported link failover detection is link status only."},
    {"kel.net.lacp.policy.incompatible", "%p", VProbKind::problem,
     "@&!*@*@(orn.problem.net.lacp.policy.incompatible)Current teaming policy for MSW: %s is incompatible, supported is IP hash only"},
    {"kel.net.lacp.disable", "%p", VProbKind::audit,
     "@&!*@*@(orn.audit.net.lacp.disable)LACP for MSW %s is disabled"},
    {"kel.net.lacp.enable", "%p", VProbKind::audit,
     "@&!*@*@(orn.audit.net.lacp.enable)LACP for MSW %s is enabled"},
    {"kel.net.heap.belowthreshold", "%p %d", VProbKind::problem,
     "@&!*@*@(orn.problem.net.heap.belowthreshold)%s free size dropped below %d percent."},
    {"kel.net.portset.port.vlan.invalidid", "%p %d", VProbKind::problem,
     "@&!*@*@(orn.problem.net.portset.port.vlan.invalidid)%s VLANID %d is invalid. VLAN ID has to be between 0 and 4095."},
    {"kel.net.portset.port.full", "%p %d", VProbKind::problem,
     "@&!*@*@(orn.problem.net.portset.port.full)Portset %s has reached the maximum number of ports (%d). Cannot apply for any more free ports."},
    {"kel.net.portset.port.connect.fail", "sss", VProbKind::problem,
     "@&!*@*@(orn.problem.net.proxyswitch.port.unavailable)Virtual NIC with hardware address %s failed to connect to distributed virtual port %s on switch %s. No more ports available on the host proxy switch", "210"},
    {"kel.net.gateway.set.failed", "s", VProbKind::problem,
     "@&!*@*@(orn.problem.net.gateway.set.failed)Cannot connect to the specified gateway %s. Failed to set it."},
    {"kel.net.qknic.ip.duplicate", "sss", VProbKind::problem,
     "@&!*@*@(orn.problem.net.qknic.ip.duplicate)Duplicate IP address detected for %s on interface %s, current owner being %s."},
    {"kel.net.uplink.mtu.failed", "is", VProbKind::problem,
     "@&!*@*@(orn.problem.net.uplink.mtu.failed)QKernel failed to set the MTU value %d on the uplink %s."},
    {"kel.net.migrate.bindtoqk.failed", "s", VProbKind::problem,
     "@&!*@*@(orn.problem.net.migrate.bindtoqk)The ORN advanced config option /Migrate/Qknic is set to an invalid qknic: '%s'.  /Migrate/Qknic specifies a qknic that SkyHop binds to for improved performance.  Please update the config option with a valid qknic or, if you don't want SkyHop to bind to a specific qknic, remove the invalid qknic and leave the option blank."},
    {"kel.net.migrate.unsupported.latency", "%u %p %p", VProbKind::problem,
     "@&!*@*@(orn.problem.net.migrate.unsupported.latency)ORNi has detected %ums round-trip Skyhop network latency between host %s and %s.  High latency Skyhop networks are only supported if both ORNi hosts have been configured for Skyhop latency tolerance."},
        // clang-format on
    });

inline constexpr Event<Text, Text, Text> kConnectivityLost{
    VProbKind::problem,
    "@&!*@*@(orn.problem.net.connectivity.lost)Lost network connectivity on virtual switch %s. Physical NIC %s is "
    "down. "
    "Affected port groups: %s"};
inline constexpr Event<Text, Text, Text> kRedundancyLost{
    VProbKind::problem,
    "@&!*@*@(orn.problem.net.redundancy.lost)Lost uplink redundancy on virtual switch %s. Physical NIC %s is down. "
    "Affected port groups: %s"};
inline constexpr Event<Text, Text, Text> kRedundancyDegraded{
    VProbKind::problem,
    "@&!*@*@(orn.problem.net.redundancy.degraded)Uplink redundancy degraded on virtual switch %s. Physical NIC %s is "
    "down. Affected port groups: %s"};
inline constexpr Event<Text, Text> kDvPortConnectivityLost{
    VProbKind::problem,
    "@&!*@*@(orn.problem.net.dvport.connectivity.lost)Lost network connectivity on DVPorts: %s. Physical NIC %s is "
    "down."};
inline constexpr Event<Text, Text> kDvPortRedundancyLost{
    VProbKind::problem,
    "@&!*@*@(orn.problem.net.dvport.redundancy.lost)Lost uplink redundancy on DVPorts: %s. Physical NIC %s is down."};
inline constexpr Event<Text, Text> kDvPortRedundancyDegraded{
    VProbKind::problem,
    "@&!*@*@(orn.problem.net.dvport.redundancy.degraded)Uplink redundancy degraded on DVPorts: %s. Physical NIC %s is "
    "down."};
inline constexpr Event<Text, Text, Text> kConnectivityRestored{
    VProbKind::clear,
    "@&!*@*@(orn.clear.net.connectivity.restored)Network connectivity restored on virtual switch %s, portgroups: %s. "
    "Physical NIC %s is up"};
inline constexpr Event<Text, Text, Text> kRedundancyRestored{
    VProbKind::clear,
    "@&!*@*@(orn.clear.net.redundancy.restored)Uplink redundancy restored on virtual switch %s, portgroups: %s. "
    "Physical NIC %s is up"};
inline constexpr Event<Text, Text> kDvPortConnectivityRestored{
    VProbKind::clear,
    "@&!*@*@(orn.clear.net.dvport.connectivity.restored)Network connectivity restored on DVPorts: %s. Physical NIC %s "
    "is up"};
inline constexpr Event<Text, Text> kDvPortRedundancyRestored{
    VProbKind::clear,
    "@&!*@*@(orn.clear.net.dvport.redundancy.restored)Uplink redundancy restored on DVPorts: %s. Physical NIC %s is up "
    "recently"};
inline constexpr Event<Text> kLinkStateDown{
    VProbKind::problem, "@&!*@*@(orn.problem.net.qnic.linkstate.down)Physical NIC %s linkstate is down"};
inline constexpr Event<Text> kLinkStateUp{VProbKind::clear,
                                          "@&!*@*@(orn.clear.net.qnic.linkstate.up)Physical NIC %s linkstate is up"};
inline constexpr Event<Text> kWatchdogReset{
    VProbKind::problem,
    "@&!*@*@(orn.problem.net.qnic.watchdog.reset)Uplink %s has recovered from a transient failure due to watchdog "
    "timeout"};
inline constexpr Event<Text> kFlapping{
    VProbKind::problem,
    "@&!*@*@(orn.problem.net.qnic.linkstate.flapping)Taking down physical NIC %s because the link is flapping."};

inline constexpr Event<int, Text, Text> kBadFence{
    VProbKind::problem,
    "@&!*@*@(orn.problem.net.fence.port.badfenceid)Qkernel fails to set fenceId %d on distributed virtual port %s on "
    "switch %s, reason: invalid fenceId"};
inline constexpr Event<int, Text, Text> kFenceSwitchUnavailable{
    VProbKind::problem,
    "@&!*@*@(orn.problem.net.fence.switch.unavailable)Qkernel fails to set fenceId %d on distributed virtual port %s "
    "on switch %s, reason: dvSwitch fence property is not set"};
inline constexpr Event<int, Text, Text> kFenceResourceLimited{
    VProbKind::problem,
    "@&!*@*@(orn.problem.net.fence.resource.limited)Qkernel fails to set fenceId %d on distributed virtual port %s on "
    "switch %s, reason: maximum number of fence networks or ports have been reached"};
inline constexpr Event<Text> kTsoNotSupported{
    VProbKind::problem,
    "@&!*@*@(orn.problem.net.e1000.tso6.notsupported)Guest-initiated IPv6 TCP Segmentation Offload (TSO) packets "
    "ignored. Manually disable TSO inside the guest operating system in Virtual Machine %s, or use a different virtual "
    "adapter."};

inline constexpr const EventInfo* kPortGroupDownEvents[] = {&kConnectivityLost, &kRedundancyLost, &kRedundancyDegraded};
inline constexpr const EventInfo* kPortGroupUpEvents[] = {&kConnectivityRestored, &kRedundancyRestored};
inline constexpr const EventInfo* kDvPortDownEvents[] = {&kDvPortConnectivityLost, &kDvPortRedundancyLost,
                                                         &kDvPortRedundancyDegraded};
inline constexpr const EventInfo* kDvPortUpEvents[] = {&kDvPortConnectivityRestored, &kDvPortRedundancyRestored};
inline constexpr const EventInfo* kLinkDownEvents[] = {&kLinkStateDown, &kFlapping};
inline constexpr const EventInfo* kLinkUpEvents[] = {&kLinkStateUp, &kConnectivityRestored,
                                                     &kDvPortConnectivityRestored, &kRedundancyRestored,
                                                     &kDvPortRedundancyRestored};
inline constexpr const EventInfo* kWatchdogEvents[] = {
    &kWatchdogReset,          &kConnectivityLost,     &kRedundancyLost,           &kRedundancyDegraded,
    &kDvPortConnectivityLost, &kDvPortRedundancyLost, &kDvPortRedundancyDegraded, &kLinkStateDown};
inline constexpr const EventInfo* kFenceEvents[] = {&kBadFence, &kFenceSwitchUnavailable, &kFenceResourceLimited};
inline constexpr const EventInfo* kTsoEvents[] = {&kTsoNotSupported};

/// What the correlator's own handlers watch, for the catalogue.
inline constexpr Judged kNetJudged[] = {
    {"kel.net.pg.uplink.transition.down", "ssii", kPortGroupDownEvents},
    {"kel.net.pg.uplink.transition.up", "ssi", kPortGroupUpEvents},
    {"kel.net.dvport.uplink.transition.down", "sssii", kDvPortDownEvents},
    {"kel.net.dvport.uplink.transition.up", "sssi", kDvPortUpEvents},
    {"kel.net.qnic.linkstate.down", "s", kLinkDownEvents},
    {"kel.net.qnic.linkstate.up", "s", kLinkUpEvents},
    {"kel.net.uplink.watchdog.timeout", "s", kWatchdogEvents},
    {"kel.net.fence.port.fail", "%p %p %d %d", kFenceEvents},
    {"kel.net.e1000.tso6.notsupported", "i", kTsoEvents},
};

}  // namespace keld
