// The iSCSI correlator watches discovery, logins and the removal of targets. What its connections and
// sessions say of themselves is accepted and gives no event: the paths over them are watched.
#include <array>
#include <cstdio>

#include "keldCorrelator.h"

namespace keld {

namespace {

// clang-format off
/// Kept: the errors name their second argument first.
constexpr auto kIscsiRows = table("kel.iscsi.", {
    {"kel.iscsi.isns.discovery.error", "%p %p %p %p", VProbKind::problem,
     "@&!*@*@(orn.problem.storage.iscsi.isns.discovery.error)iSns discovery to %s on %s failed. (%s : %s).", "1023"},
    {"kel.iscsi.discovery.connect.error", "%p %p", VProbKind::problem,
     "@&!*@*@(orn.problem.storage.iscsi.discovery.connect.error)iSCSI discovery to %s on %s failed. The iSCSI Initiator could not establish a network connection to the discovery address.", "10"},
    {"kel.iscsi.target.connect.error", "%p %p", VProbKind::problem,
     "@&!*@*@(orn.problem.storage.iscsi.target.connect.error)Login to iSCSI target %s on %s failed. The iSCSI initiator could not establish a network connection to the target.", "10"},
    {"kel.iscsi.target.permanently.removed", "%p %p", VProbKind::problem,
     "@&!*@*@(orn.problem.storage.iscsi.target.permanently.removed)The target %s was permanently removed from %s."},
});

constexpr Event<Text, Text, Text> kDiscoveryLoginError{VProbKind::problem,
     "@&!*@*@(orn.problem.storage.iscsi.discovery.login.error)iSCSI discovery to %s on %s failed. The Discovery target returned a login error of: %s."};
constexpr Event<Text, Text, Text> kTargetLoginError{VProbKind::problem,
     "@&!*@*@(orn.problem.storage.iscsi.target.login.error)Login to iSCSI target %s on %s failed. Target returned login error of: %s."};
// clang-format on

constexpr const EventInfo* kDiscoveryLoginEvents[] = {&kDiscoveryLoginError};
constexpr const EventInfo* kTargetLoginEvents[] = {&kTargetLoginError};
constexpr Judged kIscsiJudged[] = {
    {"kel.iscsi.discovery.login.error", "%p %p %u", kDiscoveryLoginEvents},
    {"kel.iscsi.target.login.error", "%p %p %u", kTargetLoginEvents},
    {"kel.iscsi.connection.started", "", {}},
    {"kel.iscsi.connection.stopped", "", {}},
    {"kel.iscsi.connection.error", "", {}},
    {"kel.iscsi.session.recovery.timeout", "", {}},
    {"kel.iscsi.target.async.event", "", {}},
};

/// Four digits and a NUL; a larger code shows its first four.
constexpr std::size_t kLoginCodeBytes = 5;

void postLoginError(Post& post, const Event<Text, Text, Text>& event, const Kel* observation) {
  Text initiator = nullptr, target = nullptr;
  unsigned code = 0;
  if (Kel_GetArgs(observation, 0, "%p %p %u", &initiator, &target, &code) != 0) return;
  std::array<char, 2 * sizeof code + 1> digits{};
  std::snprintf(digits.data(), digits.size(), "%04x", code);
  digits[kLoginCodeBytes - 1] = '\0';
  event.post(post, target, initiator, digits.data());
}

class IscsiCorrelator final : public Correlator {
 public:
  explicit IscsiCorrelator(Services& services) : post_(services.post) {}

  [[nodiscard]] HandlerTable handlers() override {
    HandlerTable handlers;
    addRows<kIscsiRows>(handlers, post_, OnUnreadable::silent);
    handlers.emplace("kel.iscsi.discovery.login.error",
                     [this](const Kel* observation) { postLoginError(post_, kDiscoveryLoginError, observation); });
    handlers.emplace("kel.iscsi.target.login.error",
                     [this](const Kel* observation) { postLoginError(post_, kTargetLoginError, observation); });
    addIgnored(handlers, kIscsiJudged);
    return handlers;
  }

 private:
  Post& post_;
};

constexpr const char* kGroups[] = {"iscsi"};

}  // namespace

constinit const CorrelatorInfo kIscsiCorrelator = {
    "iscsi", kGroups, {}, runPlain<kIscsiCorrelator>, kIscsiRows, kIscsiJudged, makeCorrelator<IscsiCorrelator>};

}  // namespace keld
