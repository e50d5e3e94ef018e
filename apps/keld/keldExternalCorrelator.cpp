// The correlator of components that are not the host's own: drivers, agents and plug-ins of other
// makers. Each report names its component and where help is to be found; all become problems, even the
// informational ones.
#include "keldCorrelator.h"

namespace keld {

namespace {

using Report = Event<Text, Text, Text, Text>;

// clang-format off
constexpr Report kWarning{VProbKind::problem,
    "@&!*@*@(orn.problem.3rdParty.warning)A 3rd party component, %s, running on ORNi has reported a warning related to a problem. Please follow the knowledge base link (%s) to see the steps to remedy the problem as reported by %s. The message reported is: %s."};
constexpr Report kError{VProbKind::problem,
    "@&!*@*@(orn.problem.3rdParty.error)A 3rd party component, %s, running on ORNi has reported an error. Please follow the knowledge base link (%s) to see the steps to remedy the problem as reported by %s. The message reported is: %s."};
constexpr Report kInformation{VProbKind::problem,
    "@&!*@*@(orn.problem.3rdParty.information)A 3rd party component, %s, running on ORNi has reported an informational event. If needed, please follow the knowledge base link (%s) to see the steps to remedythe problem as reported by %s. The message reported is: %s."};
// clang-format on

constexpr const char* kFormat = "%p %p %p";
constexpr const EventInfo* kWarningEvents[] = {&kWarning};
constexpr const EventInfo* kErrorEvents[] = {&kError};
constexpr const EventInfo* kInformationEvents[] = {&kInformation};
constexpr Judged kExternalJudged[] = {
    {"kel.external.warning", kFormat, kWarningEvents},  {"kel.external.error", kFormat, kErrorEvents},
    {"kel.external.info", kFormat, kInformationEvents}, {"kel.user.external.warning", kFormat, kWarningEvents},
    {"kel.user.external.error", kFormat, kErrorEvents}, {"kel.user.external.info", kFormat, kInformationEvents},
};

// Of a component.
constexpr Decides<std::string_view> kMissing{DecisionKind::holds, "external.report.missing",
                                             "the report's {} is missing: nothing is posted"};
constexpr const Decision* kExternalDecisions[] = {&kMissing};

void report(const Services& services, const Report& event, const Kel* observation) {
  Text component = nullptr, link = nullptr, message = nullptr;
  if (Kel_GetArgs(observation, 0, kFormat, &component, &link, &message) != 0) return;
  if (component == nullptr || link == nullptr || message == nullptr) {
    const std::string_view missing = component == nullptr ? "component" : link == nullptr ? "link" : "message";
    kMissing.report(services.decisions, component != nullptr ? component : "", missing);
    return;
  }
  event.post(services.post, component, link, component, message);
}

class ExternalCorrelator final : public Correlator {
 public:
  explicit ExternalCorrelator(Services& services) : services_(services) {}

  [[nodiscard]] HandlerTable handlers() override {
    const auto reporting = [this](const Report& event) {
      return [this, &event](const Kel* observation) { report(services_, event, observation); };
    };
    return {{"kel.external.warning", reporting(kWarning)},  {"kel.external.error", reporting(kError)},
            {"kel.external.info", reporting(kInformation)}, {"kel.user.external.warning", reporting(kWarning)},
            {"kel.user.external.error", reporting(kError)}, {"kel.user.external.info", reporting(kInformation)}};
  }

 private:
  Services& services_;
};

constexpr const char* kGroups[] = {"user", "external"};

}  // namespace

constinit const CorrelatorInfo kGenericCorrelator = {"Generic",
                                                     kGroups,
                                                     {},
                                                     runPlain<kGenericCorrelator>,
                                                     {},
                                                     kExternalJudged,
                                                     makeCorrelator<ExternalCorrelator>,
                                                     kExternalDecisions};

}  // namespace keld
