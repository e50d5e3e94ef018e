// The swap correlator watches system swap on a datastore whose device is permanently lost. Where the
// kernel removed that swap, the host is asked to place it anew.
#include <string>
#include <string_view>

#include "keldCorrelator.h"
#include "keldLog.h"
#include "keldStorage.h"
#include "platform/qkctl.h"

namespace keld {

namespace {

// The kernel's messages, which are the formats that its observations are read by.
constexpr const char* kCannotRemoveFormat =
    "System swap at path %s is affected by the Permanent Device Loss of its datastore but cannot be removed.";
constexpr const char* kRemovedFormat =
    "System swap at path %s was affected by the Permanent Device Loss of its datastore and was removed.";

// clang-format off
constexpr Event<Text> kCannotRemove{VProbKind::problem,
    "@&!*@*@(orn.problem.swap.systemSwap.isPDL.cannot.remove.2)System swap on %s is affected by PDL but cannot be removed."};
constexpr Event<Text> kReconfigureFailed{VProbKind::problem,
    "@&!*@*@(orn.problem.swap.systemSwap.isPDL.removed.reconfig.failure.2)System swap on %s was affected by PDL. It was removed but the subsequent reconfiguration failed."};
// clang-format on

constexpr const EventInfo* kCannotRemoveEvents[] = {&kCannotRemove};
constexpr const EventInfo* kRemovedEvents[] = {&kReconfigureFailed};
constexpr Judged kSwapJudged[] = {
    {"kel.swap.systemSwap.isPDL.cannot.remove", kCannotRemoveFormat, kCannotRemoveEvents},
    {"kel.swap.systemSwap.isPDL.removed", kRemovedFormat, kRemovedEvents},
};

namespace why {

constexpr Decides<> kReconfigured{DecisionKind::acts, "swap.reconfigured",
                                  "no event: the host placed system swap anew when asked to"};
constexpr Decides<std::string_view> kNotReconfigured{DecisionKind::acts, "swap.not-reconfigured",
                                                     "the host did not place system swap anew when asked to: {}"};

constexpr const Decision* kAll[] = {&kReconfigured, &kNotReconfigured};

}  // namespace why

class SwapCorrelator final : public Correlator {
 public:
  explicit SwapCorrelator(Services& services) : services_(services) {}

  [[nodiscard]] HandlerTable handlers() override {
    return {{"kel.swap.systemSwap.isPDL.cannot.remove", [this](const Kel* observation) { cannotRemove(observation); }},
            {"kel.swap.systemSwap.isPDL.removed", [this](const Kel* observation) { removed(observation); }}};
  }

 private:
  void cannotRemove(const Kel* observation) {
    Text path = nullptr;
    if (Kel_GetArgs(observation, 0, kCannotRemoveFormat, &path) != 0) return;
    kCannotRemove.post(services_.post, datastoreForm(path).c_str());
  }

  void removed(const Kel* observation) {
    Text path = nullptr;
    if (Kel_GetArgs(observation, 0, kRemovedFormat, &path) != 0) return;
    const std::string_view subject = path != nullptr ? path : "";
    try {
      QkCtl::System::SwapInfoImpl().ReconfigureSysSwap(0, 0);
      why::kReconfigured.report(services_.decisions, subject);
      Log("System swap at path %s was affected by the PDL of its datastore and was removed. System swap has been "
          "reconfigured.",
          path);
    } catch (const HostCtl::Lib::HostCtlException& failure) {
      const std::string details = failure.GetDetailedMessage();
      why::kNotReconfigured.report(services_.decisions, subject, details);
      kReconfigureFailed.post(services_.post, datastoreForm(path).c_str());
      Log("%s", details.c_str());
    }
  }

  Services& services_;
};

constexpr const char* kGroups[] = {"swap"};

}  // namespace

constinit const CorrelatorInfo kSwapCorrelator = {
    "SWAP", kGroups, {}, runPlain<kSwapCorrelator>, {}, kSwapJudged, makeCorrelator<SwapCorrelator>, why::kAll};

}  // namespace keld
