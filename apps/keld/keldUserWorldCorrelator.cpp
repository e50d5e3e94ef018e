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

void postCrash(Post& post, const Crash& crash, int count) {
  const CrashEvents events = eventsOf(crash.application != nullptr ? crash.application : "");
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
  explicit UserWorldCorrelator(Services& services) : services_(services) {}

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
    return static_cast<int>(reminder.crashed(application != nullptr ? application : "", services_.nowSeconds()));
  }

  void coreDumped(const Kel* observation) {
    Crash crash;
    if (!readCrash(observation, crash) || !readKey(observation, crash)) return;
    if (const int crashes = count(crashCounts_, crash.application)) postCrash(services_.post, crash, crashes);
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
    if (number != kEnforcing) kDomainLevel.post(services_.post, domain, level);
  }

  void allDomainsLevel(const Kel* observation) {
    Text level = nullptr;
    int number = 0;
    if (Kel_GetArgs(observation, 0, "%p %d", &level, &number) != 0) return;
    if (number != kEnforcing) kAllDomainsLevel.post(services_.post, level);
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
                                                       makeCorrelator<UserWorldCorrelator>};

}  // namespace keld
