// The user-level correlator turns what the host's services report into events. Most is one event for
// one observation; leases without an end and unusable log directories are held back while they repeat,
// and a request to restart or switch off the host is kept with its reason.
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <utility>

#include "keldCorrelator.h"
#include "keldHoldOff.h"
#include "keldRebootReason.h"
#include "keldUserRows.h"
#include "platform/audit.h"

namespace keld {

namespace {

// clang-format off
constexpr Event<Text> kNoExpiry{VProbKind::problem,
    "@&!*@*@(orn.problem.dhclient.lease.offered.noexpiry)No expiry time on offered DHCP lease from %s."};
constexpr Event<Text, Text> kLogDirectoryInvalid{VProbKind::problem,
    "@&!*@*@(orn.problem.lsyslogd.storage.logdir.invalid)The configured log directory %s cannot be used.  The default directory %s will be used instead."};
constexpr Event<Text, int, int> kAccountLocked{VProbKind::audit,
    "@&!*@*@(orn.audit.account.locked)Remote access for ORNi local user account '%s' has been locked for %d seconds after %d failed login attempts."};
constexpr Event<> kConsoleReboot{VProbKind::audit,
    "@&!*@*@(orn.audit.panl.host.reboot)The host is being rebooted through Direct Console User Interface(PANL). Please consult ORNi Embedded and Centrix Server Setup Guide or follow the Ask Korvel link for more information."};
constexpr Event<> kConsoleShutdown{VProbKind::audit,
    "@&!*@*@(orn.audit.panl.host.shutdown)The host is being shutdown through Direct Console User Interface(PANL). Please consult ORNi Embedded and Centrix Server Setup Guide or follow the Ask Korvel link for more information."};
constexpr Event<Text, Text, Text> kSubsystemReboot{VProbKind::audit,
    "@&!*@*@(orn.audit.subsystem.host.reboot.reason)The host is being rebooted.Reason for reboot: %s. User: %s. Subsystem: %s.Please consult ORNi Embedded and Centrix Server Setup Guide or follow the Ask Korvel link for more information."};
constexpr Event<Text, Text, Text> kSubsystemPowerOff{VProbKind::audit,
    "@&!*@*@(orn.audit.subsystem.host.poweroff.reason)The host is being powered off.Reason for power off: %s. User: %s. Subsystem: %s.Please consult ORNi Embedded and Centrix Server Setup Guide or follow the Ask Korvel link for more information."};
constexpr Event<Text, Text> kOrncliReboot{VProbKind::audit,
    "@&!*@*@(orn.audit.orncli.host.reboot.reason)The host is being rebooted through orncli.Reason for reboot: %s. User: %s.Please consult ORNi Embedded and Centrix Server Setup Guide or follow the Ask Korvel link for more information."};
constexpr Event<Text, Text> kOrncliPowerOff{VProbKind::audit,
    "@&!*@*@(orn.audit.orncli.host.poweroff.reason)The host is being powered off through orncli.Reason for power off: %s. User: %s.Please consult ORNi Embedded and Centrix Server Setup Guide or follow the Ask Korvel link for more information."};
constexpr Event<Text, Text> kHagdReboot{VProbKind::audit,
    "@&!*@*@(orn.audit.hagd.host.reboot.reason)The host is being rebooted through hagd.Reason for reboot: %s. User: %s.Please consult ORNi Embedded and Centrix Server Setup Guide or follow the Ask Korvel link for more information."};
constexpr Event<Text, Text> kHagdPowerOff{VProbKind::audit,
    "@&!*@*@(orn.audit.hagd.host.poweroff.reason)The host is being powered off through hagd.Reason for power off: %s. User: %s.Please consult ORNi Embedded and Centrix Server Setup Guide or follow the Ask Korvel link for more information."};
// clang-format on

constexpr const EventInfo* kNoExpiryEvents[] = {&kNoExpiry};
constexpr const EventInfo* kLogDirectoryEvents[] = {&kLogDirectoryInvalid};
constexpr const EventInfo* kAccountLockedEvents[] = {&kAccountLocked};
constexpr const EventInfo* kConsoleRebootEvents[] = {&kConsoleReboot};
constexpr const EventInfo* kConsoleShutdownEvents[] = {&kConsoleShutdown};
constexpr const EventInfo* kSubsystemRebootEvents[] = {&kSubsystemReboot};
constexpr const EventInfo* kSubsystemPowerOffEvents[] = {&kSubsystemPowerOff};
constexpr const EventInfo* kOrncliRebootEvents[] = {&kOrncliReboot};
constexpr const EventInfo* kOrncliPowerOffEvents[] = {&kOrncliPowerOff};
constexpr const EventInfo* kHagdRebootEvents[] = {&kHagdReboot};
constexpr const EventInfo* kHagdPowerOffEvents[] = {&kHagdPowerOff};
constexpr Judged kUserJudged[] = {
    {"kel.user.panl.reboot.host", "", kConsoleRebootEvents},
    {"kel.user.panl.shutdown.host", "", kConsoleShutdownEvents},
    {"kel.user.dhclient.lease.offered.noexpiry", "%p", kNoExpiryEvents},
    {"kel.user.subsystem.host.reboot.reason", "sss", kSubsystemRebootEvents},
    {"kel.user.subsystem.host.poweroff.reason", "sss", kSubsystemPowerOffEvents},
    {"kel.user.orncli.host.reboot.reason", "ss", kOrncliRebootEvents},
    {"kel.user.orncli.host.poweroff.reason", "ss", kOrncliPowerOffEvents},
    {"kel.user.hagd.host.reboot.reason", "ss", kHagdRebootEvents},
    {"kel.user.hagd.host.poweroff.reason", "ss", kHagdPowerOffEvents},
    {"kel.user.account.locked", "sii", kAccountLockedEvents},
    {"kel.user.lsyslogd.storage.logdir.invalid", "%p %p", kLogDirectoryEvents},
};

constexpr const char* kReboot = "REBOOT";
constexpr const char* kPowerOff = "POWEROFF";

/// A request made at the host's own console, which asks neither who nor why.
struct ConsoleRequest {
  const char* observation;
  const char* type;
  const Event<>& event;
};
constexpr ConsoleRequest kConsoleRequests[] = {
    {"kel.user.panl.reboot.host", kReboot, kConsoleReboot},
    {"kel.user.panl.shutdown.host", kPowerOff, kConsoleShutdown},
};
constexpr const char* kConsole = "Direct Console User Interface (PANL)";
constexpr const char* kUnknownUser = "Unknown";
constexpr const char* kUnknownReason =
    "Last reboot reason is unknown. Please check ORNi and the BMC logs for further details. ";

/// A request with a reason and a user, through a subsystem that is known by the observation.
struct Request {
  const char* observation;
  const char* type;
  const char* subsystem;
  const Event<Text, Text>& event;
};
constexpr Request kRequests[] = {
    {"kel.user.orncli.host.reboot.reason", kReboot, "orncli", kOrncliReboot},
    {"kel.user.orncli.host.poweroff.reason", kPowerOff, "orncli", kOrncliPowerOff},
    {"kel.user.hagd.host.reboot.reason", kReboot, "hagd", kHagdReboot},
    {"kel.user.hagd.host.poweroff.reason", kPowerOff, "hagd", kHagdPowerOff},
};

/// One that names its subsystem, too.
struct SubsystemRequest {
  const char* observation;
  const char* type;
  const Event<Text, Text, Text>& event;
};
constexpr SubsystemRequest kSubsystemRequests[] = {
    {"kel.user.subsystem.host.reboot.reason", kReboot, kSubsystemReboot},
    {"kel.user.subsystem.host.poweroff.reason", kPowerOff, kSubsystemPowerOff},
};

namespace why {

using Number = std::int64_t;
using Name = std::string_view;

constexpr Decides<Name, Number> kNever{DecisionKind::concludes, "user.held-off.never",
                                       "{}: never posted before, so not held off; limit {} s", -2};
constexpr Decides<Name, Number, Number> kOver{DecisionKind::concludes, "user.held-off.over",
                                              "{}: not held off, last posted {} s ago, limit {} s", -3};
constexpr Decides<Name, Number, Number> kHeld{DecisionKind::holds, "user.held-off.held",
                                              "{}: held off, last posted {} s ago, limit {} s"};
constexpr Decides<Name, Number, Number> kAhead{
    DecisionKind::holds, "user.held-off.ahead",
    "{}: held off, last posted {} s ahead of the clock, which was set back; limit {} s"};
constexpr Decides<Name, Number, Number> kForgotten{
    DecisionKind::forgets, "user.held-off.forgotten",
    "{}: more on record than are kept, {} are held off no longer, {} still are"};

constexpr HoldOffDecisions kHoldOff{kNever, kOver, kHeld, kAhead};
constexpr const Decision* kAll[] = {&kNever, &kOver, &kHeld, &kAhead, &kForgotten};

}  // namespace why

/// The text as events show it, null or not.
std::string shown(Text text) {
  return text != nullptr ? text : "(null)";
}

/// What a text is remembered by. Tables keep their entries, so a long text is cut, and told apart by its
/// length and a digest of it.
std::string keyOf(Text text) {
  constexpr std::size_t kKeptBytes = 256;
  std::string key = shown(text);
  if (key.size() <= kKeptBytes) return key;
  const std::string mark = ' ' + std::to_string(key.size()) + ' ' + std::to_string(std::hash<std::string>()(key));
  key.resize(kKeptBytes);
  return key + mark;
}

/// Argument 0 behind its first colon, which parts the requester from the reason; nullptr without one.
Text readReason(const Kel* observation) {
  Text given = nullptr;
  if (Kel_GetStringArg(observation, 0, &given) != 0 || given == nullptr) return nullptr;
  const char* const colon = std::strchr(given, ':');
  return colon != nullptr ? colon + 1 : nullptr;
}

class UserCorrelator final : public Correlator {
 public:
  explicit UserCorrelator(Services& services) : services_(services) {}

  [[nodiscard]] HandlerTable handlers() override {
    HandlerTable handlers;
    addRows<kUserRows>(handlers, services_.post, OnUnreadable::silent);
    handlers.emplace("kel.user.dhclient.lease.offered.noexpiry", [this](const Kel* kel) { leaseWithoutExpiry(kel); });
    handlers.emplace("kel.user.lsyslogd.storage.logdir.invalid", [this](const Kel* kel) { logDirectoryInvalid(kel); });
    handlers.emplace("kel.user.account.locked", [this](const Kel* kel) { accountLocked(kel); });
    for (const ConsoleRequest& request : kConsoleRequests) {
      handlers.emplace(request.observation, [this, &request](const Kel*) { requested(request); });
    }
    for (const Request& request : kRequests) {
      handlers.emplace(request.observation, [this, &request](const Kel* kel) { requested(request, kel); });
    }
    for (const SubsystemRequest& request : kSubsystemRequests) {
      handlers.emplace(request.observation, [this, &request](const Kel* kel) { requested(request, kel); });
    }
    return handlers;
  }

 private:
  void leaseWithoutExpiry(const Kel* observation) {
    Text server = nullptr;
    if (Kel_GetArgs(observation, 0, "%p", &server) != 0) return;
    const std::string key = keyOf(server);
    const auto subject = [&]() -> const std::string& { return key; };
    if (passes(servers_, key, kLeaseSeconds, "lease without expiry", subject)) {
      kNoExpiry.post(services_.post, server);
    }
  }

  void logDirectoryInvalid(const Kel* observation) {
    Text configured = nullptr, fallback = nullptr;
    if (Kel_GetArgs(observation, 0, "%p %p", &configured, &fallback) != 0) return;
    const std::pair key(keyOf(configured), keyOf(fallback));
    const auto subject = [&] { return key.first + " -> " + key.second; };
    if (passes(logDirectories_, key, kLogDirectorySeconds, "log directory", subject)) {
      kLogDirectoryInvalid.post(services_.post, configured, fallback);
    }
  }

  /// Whether `key` passes, by decisions about `what` that are told of the subject.
  template <typename Key, typename Subject>
  bool passes(RateTable<Key>& table, const Key& key, std::int64_t limit, std::string_view what, Subject subject) {
    DecisionListener* const decisions = services_.decisions;
    const std::int64_t now = services_.nowSeconds();
    if (decisions == nullptr) return table.passes(key, now);
    const auto age = table.age(key, now);
    const std::size_t before = table.size();
    const bool passes = table.passes(key, now);
    why::kHoldOff.report(decisions, subject(), what, passes, age, limit, now);
    if (table.size() < before) {
      const auto kept = static_cast<std::int64_t>(table.size());
      why::kForgotten.report(decisions, subject(), what, static_cast<std::int64_t>(before) + 1 - kept, kept);
    }
    return passes;
  }

  void accountLocked(const Kel* observation) const {
    Text user = nullptr;
    std::int64_t seconds = 0, attempts = 0;
    if (Kel_GetStringArg(observation, 0, &user) != 0 || Kel_GetIntArg(observation, 1, &seconds) != 0 ||
        Kel_GetIntArg(observation, 2, &attempts) != 0) {
      return;
    }
    kAccountLocked.post(services_.post, user, static_cast<int>(seconds), static_cast<int>(attempts));
    // A trail that cannot be written has said so in the log.
    static_cast<void>(KrvAudit_Log("account.locked", shown(user).c_str(), "", true));
  }

  void requested(const ConsoleRequest& request) const {
    request.event.post(services_.post);
    keep({request.type, kUnknownUser, kConsole, kUnknownReason});
  }

  void requested(const Request& request, const Kel* observation) const {
    Text user = nullptr;
    const Text reason = readReason(observation);
    if (reason == nullptr || Kel_GetStringArg(observation, 1, &user) != 0) return;
    request.event.post(services_.post, reason, user);
    keep({request.type, shown(user), request.subsystem, reason});
  }

  void requested(const SubsystemRequest& request, const Kel* observation) const {
    Text user = nullptr, subsystem = nullptr;
    const Text reason = readReason(observation);
    if (reason == nullptr || Kel_GetStringArg(observation, 1, &user) != 0 ||
        Kel_GetStringArg(observation, 2, &subsystem) != 0) {
      return;
    }
    request.event.post(services_.post, reason, user, subsystem);
    keep({request.type, shown(user), shown(subsystem), reason});
  }

  /// The store waits for the disk, and for other processes.
  void keep(RebootReason reason) const {
    const WallSeconds now = services_.clock.wallSeconds();
    services_.doAside([reason = std::move(reason), now] { recordRebootReason(reason, now); });
  }

  static constexpr std::int64_t kLeaseSeconds = 1200;
  static constexpr std::int64_t kLogDirectorySeconds = 90;

  Services& services_;
  RateTable<std::string> servers_{kLeaseSeconds};
  /// The configured directory and the one used instead.
  RateTable<std::pair<std::string, std::string>> logDirectories_{kLogDirectorySeconds};
};

constexpr const char* kGroups[] = {"user"};

}  // namespace

constinit const CorrelatorInfo kUserLevelCorrelator = {
    "UserLevel", kGroups, {}, runPlain<kUserLevelCorrelator>, kUserRows, kUserJudged, makeCorrelator<UserCorrelator>,
    why::kAll};

}  // namespace keld
