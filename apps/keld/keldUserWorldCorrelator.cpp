// The user-world correlator watches the processes of the host's services: crashes, of which it reminds
// every ten hours with a running count, and changes of the security policy's enforcement.
#include <cstdint>
#include <string_view>

#include "keldCorrelator.h"
#include "keldHoldOff.h"

namespace keld {

namespace {

// clang-format off
constexpr Event<Text, int, Text> kHagdDumped{VProbKind::problem,
    "@&!*@*@(orn.problem.hagd.core.dumped)%s crashed (%d time(s) so far) and a core file may have been created at %s. This may have caused connections to the host to be dropped."};
constexpr Event<Text, int, Text, Text> kHagdDumpedEncrypted{VProbKind::problem,
    "@&!*@*@(orn.problem.hagd.core.dumped.encrypted)%s crashed (%d time(s) so far) and an encrypted core file using keyId %s may have been created at %s. This may have caused connections to the host to be dropped."};
constexpr Event<Text, int, Text> kCagtDumped{VProbKind::problem,
    "@&!*@*@(orn.problem.cagt.core.dumped)%s crashed (%d time(s) so far) and a core file may have been created at %s. This may have caused connections to the host to be dropped."};
constexpr Event<Text, int, Text, Text> kCagtDumpedEncrypted{VProbKind::problem,
    "@&!*@*@(orn.problem.cagt.core.dumped.encrypted)%s crashed (%d time(s) so far) and an encrypted core file using keyId %s may have been created at %s. This may have caused connections to the host to be dropped."};
constexpr Event<Text, int, Text> kApplicationDumped{VProbKind::problem,
    "@&!*@*@(orn.problem.application.core.dumped)An application (%s) running on ORNi host has crashed (%d time(s) so far). A core file may have been created at %s."};
constexpr Event<Text, int, Text, Text> kApplicationDumpedEncrypted{VProbKind::problem,
    "@&!*@*@(orn.problem.application.core.dumped.encrypted)An application (%s) running on ORNi host has crashed (%d time(s) so far). An encrypted core file using keyId %s may have been created at %s."};
constexpr Event<Text, int> kDumpFailed{VProbKind::problem,
    "@&!*@*@(orn.problem.application.core.dumpFailed)An application (%s) running on ORNi host has crashed (%d time(s) so far), but core dump creation failed."};
constexpr Event<Text, Text> kDomainLevel{VProbKind::audit,
    "@&!*@*@(orn.audit.uw.secpolicy.domain.level.changed)The enforcement level for security domain %s has been changed to %s. The enforcement level must always be set to enforcing."};
constexpr Event<Text> kAllDomainsLevel{VProbKind::audit,
    "@&!*@*@(orn.audit.uw.secpolicy.alldomains.level.changed)The enforcement level for all security domains has been changed to %s. The enforcement level must always be set to enforcing."};
// clang-format on

constexpr const char* kCrashFormat = "%p %d %p";
constexpr unsigned kKeyPosition = 3;
/// A change to enforcing is what is wanted.
constexpr int kEnforcing = 1;

constexpr const EventInfo* kDumpedEvents[] = {&kHagdDumped,        &kHagdDumpedEncrypted,
                                              &kCagtDumped,        &kCagtDumpedEncrypted,
                                              &kApplicationDumped, &kApplicationDumpedEncrypted};
constexpr const EventInfo* kDumpFailedEvents[] = {&kDumpFailed};
constexpr const EventInfo* kDomainLevelEvents[] = {&kDomainLevel};
constexpr const EventInfo* kAllDomainsLevelEvents[] = {&kAllDomainsLevel};
constexpr Judged kUserWorldJudged[] = {
    {"kel.uw.core.dumped", "siss", kDumpedEvents},
    {"kel.uw.core.dumped.encrypted", "siss", kDumpedEvents},
    {"kel.uw.core.dumpFailed", kCrashFormat, kDumpFailedEvents},
    {"kel.uw.secpolicy.domain.level.changed", "%p %d %p %u", kDomainLevelEvents},
    {"kel.uw.secpolicy.alldomains.level.changed", "%p %d", kAllDomainsLevelEvents},
};

// Of an application.
constexpr CrashDecisions kCoreSaid{
    {DecisionKind::concludes, "uw.crash.first", "crash 1: reported", CrashReminder::kReminderSeconds},
    {DecisionKind::holds, "uw.crash.held", "crash {}: last reported {} s ago, the next reminder after {} s"},
    {DecisionKind::concludes, "uw.crash.reminds", "crash {}: last reported {} s ago, reminded of after {} s",
     CrashReminder::kReminderSeconds}};
constexpr CrashDecisions kNoCoreSaid{
    {DecisionKind::concludes, "uw.dump-failed.first", "crash 1 without a core dump: reported",
     CrashReminder::kReminderSeconds},
    {DecisionKind::holds, "uw.dump-failed.held",
     "crash {} without a core dump: last reported {} s ago, the next reminder after {} s"},
    {DecisionKind::concludes, "uw.dump-failed.reminds",
     "crash {} without a core dump: last reported {} s ago, reminded of after {} s", CrashReminder::kReminderSeconds}};
constexpr Decides<> kReceiverCrashed{DecisionKind::waits, "uw.crash.queued",
                                     "events go through it: this one waits in the retry queue"};
// Of a security domain.
constexpr Decides<std::int64_t, std::string_view> kLevelWanted{DecisionKind::holds, "uw.level.enforcing",
                                                               "level {} (\"{}\") is what is wanted: not audited"};
constexpr Decides<std::int64_t, std::string_view> kLevelChanged{DecisionKind::concludes, "uw.level.changed",
                                                                "level {} (\"{}\") is not enforcing: audited"};
constexpr std::string_view kAllDomains = "all domains";

constexpr const Decision* kUserWorldDecisions[] = {&kCoreSaid.first,   &kCoreSaid.held,   &kCoreSaid.reminds,
                                                   &kNoCoreSaid.first, &kNoCoreSaid.held, &kNoCoreSaid.reminds,
                                                   &kReceiverCrashed,  &kLevelWanted,     &kLevelChanged};

/// A null text is an empty one.
std::string_view shown(Text text) {
  return text != nullptr ? text : "";
}

struct Crash {
  Text application = nullptr;
  Text corePath = nullptr;
  Text keyId = nullptr;  ///< of an encrypted core
  bool encrypted = false;
};

bool readCrash(const Kel* observation, Crash& crash) {
  int unused = 0;
  return Kel_GetArgs(observation, 0, kCrashFormat, &crash.application, &unused, &crash.corePath) == 0;
}

/// False where what stands in the key's place is no text.
bool readKey(const Kel* observation, Crash& crash) {
  const int status = Kel_GetStringArg(observation, kKeyPosition, &crash.keyId);
  crash.encrypted = status == 0;
  return status == 0 || status == KEL_ERR_NO_ARGUMENT;
}

/// One application's events, for a plain and for an encrypted core.
struct CrashEvents {
  const Event<Text, int, Text>& plain;
  const Event<Text, int, Text, Text>& encrypted;
  bool receiverCrashed;  ///< then the event has to wait for its receiver
};

CrashEvents eventsOf(std::string_view application) {
  if (application.find("hagd") != std::string_view::npos) return {kHagdDumped, kHagdDumpedEncrypted, true};
  if (application.find("cagt") != std::string_view::npos) return {kCagtDumped, kCagtDumpedEncrypted, true};
  return {kApplicationDumped, kApplicationDumpedEncrypted, false};
}

void postCrash(const Services& services, const Crash& crash, int count) {
  const CrashEvents events = eventsOf(shown(crash.application));
  Post& post = services.post;
  if (events.receiverCrashed) kReceiverCrashed.report(services.decisions, shown(crash.application));
  if (crash.encrypted && events.receiverCrashed) {
    events.encrypted.postQueueOnly(post, crash.application, count, crash.keyId, crash.corePath);
  } else if (crash.encrypted) {
    events.encrypted.post(post, crash.application, count, crash.keyId, crash.corePath);
  } else if (events.receiverCrashed) {
    events.plain.postQueueOnly(post, crash.application, count, crash.corePath);
  } else {
    events.plain.post(post, crash.application, count, crash.corePath);
  }
}

class UserWorldCorrelator final : public Correlator {
 public:
  explicit UserWorldCorrelator(Services& services)
      : services_(services),
        crashCounts_(services.decisions, kCoreSaid),
        dumpFailCounts_(services.decisions, kNoCoreSaid) {}

  [[nodiscard]] HandlerTable handlers() override {
    const auto dumped = [this](const Kel* observation) { coreDumped(observation); };
    return {{"kel.uw.core.dumped", dumped},
            {"kel.uw.core.dumped.encrypted", dumped},
            {"kel.uw.core.dumpFailed", [this](const Kel* observation) { dumpFailed(observation); }},
            {"kel.uw.secpolicy.domain.level.changed", [this](const Kel* observation) { domainLevel(observation); }},
            {"kel.uw.secpolicy.alldomains.level.changed",
             [this](const Kel* observation) { allDomainsLevel(observation); }}};
  }

 private:
  /// Counts a crash. The count where it is to be reported, else 0.
  int count(CrashReminder& reminder, Text application) const {
    return static_cast<int>(reminder.crashed(shown(application), services_.nowSeconds()));
  }

  void coreDumped(const Kel* observation) {
    Crash crash;
    if (!readCrash(observation, crash) || !readKey(observation, crash)) return;
    if (const int crashes = count(crashCounts_, crash.application)) postCrash(services_, crash, crashes);
  }

  void dumpFailed(const Kel* observation) {
    Crash crash;
    if (!readCrash(observation, crash)) return;
    if (const int crashes = count(dumpFailCounts_, crash.application)) {
      kDumpFailed.post(services_.post, crash.application, crashes);
    }
  }

  void domainLevel(const Kel* observation) {
    Text level = nullptr, domain = nullptr;
    int number = 0;
    unsigned unused = 0;
    if (Kel_GetArgs(observation, 0, "%p %d %p %u", &level, &number, &domain, &unused) != 0) return;
    tellLevel(shown(domain), number, shown(level));
    if (number != kEnforcing) kDomainLevel.post(services_.post, domain, level);
  }

  void allDomainsLevel(const Kel* observation) {
    Text level = nullptr;
    int number = 0;
    if (Kel_GetArgs(observation, 0, "%p %d", &level, &number) != 0) return;
    tellLevel(kAllDomains, number, shown(level));
    if (number != kEnforcing) kAllDomainsLevel.post(services_.post, level);
  }

  void tellLevel(std::string_view domain, int number, std::string_view level) const {
    (number != kEnforcing ? kLevelChanged : kLevelWanted).report(services_.decisions, domain, number, level);
  }

  Services& services_;
  CrashReminder crashCounts_;
  CrashReminder dumpFailCounts_;
};

constexpr const char* kGroups[] = {"uw"};

}  // namespace

constinit const CorrelatorInfo kUserWorldCorrelator = {"UserWorld",
                                                       kGroups,
                                                       {},
                                                       runPlain<kUserWorldCorrelator>,
                                                       {},
                                                       kUserWorldJudged,
                                                       makeCorrelator<UserWorldCorrelator>,
                                                       kUserWorldDecisions};

}  // namespace keld
