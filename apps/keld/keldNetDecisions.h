// How the network correlator's state decides. Each is about a NIC but those about a VM, which is its group's number.
#pragma once

#include "keldDecision.h"

namespace keld {

namespace netWhy {

using Number = std::int64_t;
using Name = std::string_view;

// What is put on record.
inline constexpr Decides<Name, Name, Number, Number> kTransitionWaits{
    DecisionKind::waits, "net.transition.waits",
    "\"{}\" is put on record as {} (active uplinks: {}), to be settled in {} s", -4};
inline constexpr Decides<Name, Name, Number, Number> kTransitionJoins{
    DecisionKind::counts, "net.transition.joins",
    "\"{}\", {} (active uplinks: {}), joins the record of {} transitions that waits"};
inline constexpr Decides<Name, Name, Number, Number> kTransitionLeft{
    DecisionKind::holds, "net.transition.left",
    "\"{}\", {} (active uplinks: {}), joins {} transitions left on record, which no timer of their own settles"};
inline constexpr Decides<Name, Number> kLinkWaits{DecisionKind::waits, "net.link.waits",
                                                  "put on record as {}, to be settled in {} s", -2};
inline constexpr Decides<Name, Name> kLinkCovered{DecisionKind::holds, "net.link.covered",
                                                  "{} is not put on record: {} on record speaks for the link"};
inline constexpr Decides<Number> kWatchdogWaits{
    DecisionKind::waits, "net.watchdog.waits",
    "watchdog time-out: reports of this NIC are held back, to be settled in {} s", -1};

// The timer, and what it settles.
inline constexpr Decides<Number, Number> kTimerMoved{
    DecisionKind::waits, "net.timer.moved",
    "the timer that settles all records is set anew: it fires in {} s, before that in {} s"};
inline constexpr Decides<Name, Number> kNotDue{DecisionKind::waits, "net.timer.not-due", "{} is not due for {} s"};
inline constexpr Decides<Name> kWatchdogSwallows{DecisionKind::holds, "net.watchdog.swallows",
                                                 "{} is due: the watchdog's hold on this NIC swallows it"};
inline constexpr Decides<Name> kNothingOnRecord{DecisionKind::holds, "net.transition.gone",
                                                "{} is due: none is on record any more"};
inline constexpr Decides<Name, Name> kLinkOvertaken{DecisionKind::holds, "net.link.overtaken",
                                                    "{} is due: {} on record speaks for the link"};
inline constexpr Decides<Name> kLinkReported{DecisionKind::concludes, "net.link.reported",
                                             "{} is due and nothing else speaks for the link: reported"};
inline constexpr Decides<> kWatchdogIdle{
    DecisionKind::holds, "net.watchdog.nothing-down",
    "watchdog time-out is due: nothing is down on record, no event; the NIC stays silent until a reset"};
inline constexpr Decides<Name, Name> kWatchdogReset{
    DecisionKind::concludes, "net.watchdog.reset",
    "watchdog time-out is due: {} and {} are on record, which a reset takes the place of"};
inline constexpr Decides<Name> kWatchdogDown{
    DecisionKind::concludes, "net.watchdog.down",
    "watchdog time-out is due: {} is on record and nothing up, reported; the NIC stays silent until a reset"};

// What is left to port groups and DVPorts.
inline constexpr Decides<Name, Number> kSwitchUnknown{
    DecisionKind::holds, "net.switch.unknown",
    "port group \"{}\": its switch cannot be looked up, {} transitions are kept on record"};
inline constexpr Decides<Name, Number> kLossIgnored{DecisionKind::holds, "net.loss.ignored",
                                                    "active uplinks of \"{}\": {}, which is no loss"};
inline constexpr Decides<Name, Number> kConnectivityLost{DecisionKind::concludes, "net.loss.connectivity",
                                                         "active uplinks of \"{}\": {}, connectivity lost"};
inline constexpr Decides<Name, Number> kRedundancyLost{DecisionKind::concludes, "net.loss.redundancy",
                                                       "active uplinks of \"{}\": {}, redundancy lost"};
inline constexpr Decides<Name, Number> kRedundancyDegraded{DecisionKind::concludes, "net.loss.degraded",
                                                           "active uplinks of \"{}\": {}, redundancy degraded"};
inline constexpr Decides<Name, Number> kRecoveryIgnored{DecisionKind::holds, "net.recovery.ignored",
                                                        "active uplinks of \"{}\": {}, which restores nothing"};
inline constexpr Decides<Name, Number> kConnected{DecisionKind::counts, "net.recovery.connected",
                                                  "active uplinks of \"{}\": {}, connectivity is back"};
inline constexpr Decides<Name, Number> kRedundant{DecisionKind::counts, "net.recovery.redundant",
                                                  "active uplinks of \"{}\": {}, redundancy is back"};
inline constexpr Decides<Number> kLossesCleared{DecisionKind::forgets, "net.losses.cleared",
                                                "losses taken off the record: {}"};
inline constexpr Decides<Number> kConnectivityRestored{
    DecisionKind::concludes, "net.connectivity.restored",
    "no loss of connectivity is on record: reported restored, {} named"};
inline constexpr Decides<Number> kConnectivityStillLost{
    DecisionKind::holds, "net.connectivity.still-lost",
    "losses of connectivity on record: {}; none is reported restored while there is one"};
inline constexpr Decides<Number> kRedundancyRestored{DecisionKind::concludes, "net.redundancy.restored",
                                                     "no loss of redundancy is on record: reported restored, {} named"};
inline constexpr Decides<Number, Number> kRedundancyStillLost{
    DecisionKind::holds, "net.redundancy.still-lost",
    "losses of redundancy on record: {}; recoveries that wait until there is none: {}"};

// Flapping.
inline constexpr Decides<Number, Number> kFlappingUnread{
    DecisionKind::holds, "net.flapping.unread",
    "link-downs within {} s: {}; option Net/LinkFlappingThreshold cannot be read, nothing is done"};
inline constexpr Decides<Number, Number> kFlappingOff{
    DecisionKind::holds, "net.flapping.off",
    "link-downs within {} s: {}; option Net/LinkFlappingThreshold is 0, nothing is done"};
inline constexpr Decides<Number, Number, Number> kFlappingBelow{
    DecisionKind::counts, "net.flapping.below", "link-downs within {} s: {}; the NIC is taken down above {}", -1};
inline constexpr Decides<Number, Number, Number> kFlappingTakenDown{
    DecisionKind::acts, "net.flapping.taken-down",
    "link-downs within {} s: {}, above {}; the NIC is taken down, and counting starts afresh"};
inline constexpr Decides<Number, Number, Number> kFlappingRefused{
    DecisionKind::acts, "net.flapping.refused",
    "link-downs within {} s: {}, above {}; the host did not take the NIC down: no event, and counting starts afresh"};

// Offloading in a VM.
inline constexpr Decides<> kVmUnknown{DecisionKind::holds, "net.tso.vm-unknown",
                                      "no event: no VM of this group can be looked up"};
inline constexpr Decides<Name> kVmNamed{DecisionKind::concludes, "net.tso.named", "the VM of this group is \"{}\""};

}  // namespace netWhy

inline constexpr const Decision* kNetDecisions[] = {
    &netWhy::kTransitionWaits,
    &netWhy::kTransitionJoins,
    &netWhy::kTransitionLeft,
    &netWhy::kLinkWaits,
    &netWhy::kLinkCovered,
    &netWhy::kWatchdogWaits,
    &netWhy::kTimerMoved,
    &netWhy::kNotDue,
    &netWhy::kWatchdogSwallows,
    &netWhy::kNothingOnRecord,
    &netWhy::kLinkOvertaken,
    &netWhy::kLinkReported,
    &netWhy::kWatchdogIdle,
    &netWhy::kWatchdogReset,
    &netWhy::kWatchdogDown,
    &netWhy::kSwitchUnknown,
    &netWhy::kLossIgnored,
    &netWhy::kConnectivityLost,
    &netWhy::kRedundancyLost,
    &netWhy::kRedundancyDegraded,
    &netWhy::kRecoveryIgnored,
    &netWhy::kConnected,
    &netWhy::kRedundant,
    &netWhy::kLossesCleared,
    &netWhy::kConnectivityRestored,
    &netWhy::kConnectivityStillLost,
    &netWhy::kRedundancyRestored,
    &netWhy::kRedundancyStillLost,
    &netWhy::kFlappingUnread,
    &netWhy::kFlappingOff,
    &netWhy::kFlappingBelow,
    &netWhy::kFlappingTakenDown,
    &netWhy::kFlappingRefused,
    &netWhy::kVmUnknown,
    &netWhy::kVmNamed,
};

}  // namespace keld
