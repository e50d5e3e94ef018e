// The VM correlator watches virtual machines that the kernel had to end.
#include "keldCorrelator.h"
#include "keldStorage.h"

namespace keld {

namespace {

// Read by the kernel's own messages.
// clang-format off
constexpr auto kVmRows = table("kel.vm.", {
    {"kel.vm.kill.unexpected.noSwapResponse",
     "The virtual machine using the configuration file %s did not respond to %u swap actions in %lu seconds. To avoid system instability, the virtual machine has been powered off.", VProbKind::problem,
     "@&!*@*@(orn.problem.vm.kill.unexpected.noSwapResponse.2)%s did not respond to %u swap actions in %lu seconds and is forcefully powered off to prevent system instability."},
    {"kel.vm.kill.unexpected.vmexe.fault.failure",
     "The virtual machine using the configuration file %s could not fault in a page for the virtual machine user world. The virtual machine has been powered off.", VProbKind::problem,
     "@&!*@*@(orn.problem.vm.kill.unexpected.vmexe.fault.failure.2)%s could not fault in a page. The VM is terminated as further progress is impossible."},
    {"kel.vm.kill.unexpected.vmtrack",
     "The virtual machine using the configuration file %s has been powered off to prevent system instability. See the kernel log file for more details.", VProbKind::problem,
     "@&!*@*@(orn.problem.vm.kill.unexpected.vmtrack.2)%s is allocating too many pages while system is critically low in free memory. It is forcefully terminated to prevent system instability."},
    {"kel.vm.kill.unexpected.forcefulPageRetire.64",
     "The virtual machine using the configuration file %s contains the host physical page %#lx that was scheduled for immediate retirement. To avoid system instability, the virtual machine has been powered off.", VProbKind::problem,
     "@&!*@*@(orn.problem.vm.kill.unexpected.forcefulPageRetire.64.2)%s contained the host physical page %#lx which was scheduled for immediate retirement. To avoid system instability the virtual machine is forcefully powered off."},
});

constexpr const char* kFaultFormat =
    "The virtual machine using the configuration file %s could not fault in a page from the swap file at %s. The virtual machine has been powered off.";
constexpr Event<Text, Text> kFaultFailure{VProbKind::problem,
     "@&!*@*@(orn.problem.vm.kill.unexpected.fault.failure.2)%s could not fault in a guest physical page from the hypervisor level swap file on %s. The VM is terminated as further progress is impossible."};
// clang-format on

constexpr const EventInfo* kFaultEvents[] = {&kFaultFailure};
constexpr Judged kVmJudged[] = {{"kel.vm.kill.unexpected.fault.failure", kFaultFormat, kFaultEvents}};

class VmCorrelator final : public Correlator {
 public:
  explicit VmCorrelator(Services& services) : post_(services.post) {}

  [[nodiscard]] HandlerTable handlers() override {
    HandlerTable handlers;
    addRows<kVmRows>(handlers, post_, OnUnreadable::silent);
    handlers.emplace(kVmJudged[0].observation, [this](const Kel* observation) { faultFailure(observation); });
    return handlers;
  }
  [[nodiscard]] Handler fallback() override { return reportUnknownObservation; }

 private:
  void faultFailure(const Kel* observation) {
    Text configuration = nullptr, swapFile = nullptr;
    if (Kel_GetArgs(observation, 0, kFaultFormat, &configuration, &swapFile) != 0) return;
    kFaultFailure.post(post_, configuration, datastoreForm(swapFile).c_str());
  }

  Post& post_;
};

constexpr const char* kGroups[] = {"vm"};

}  // namespace

constinit const CorrelatorInfo kVmCorrelator = {
    "VM", kGroups, {}, runPlain<kVmCorrelator>, kVmRows, kVmJudged, makeCorrelator<VmCorrelator>};

}  // namespace keld
