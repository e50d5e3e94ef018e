#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "modelHost.h"
#include "scenarioTools.h"

namespace {

using scenario::diagnostics;
using scenario::Events;
using scenario::Lines;
using support::i;
using support::L;
using support::null;
using support::problem;
using support::s;
using support::u;

using Actions = std::vector<std::string>;

constexpr const char* kPaths = R"("datastorePaths":{"/cvfs/volumes/5f/sys.swp":"[ds1] sys.swp"})";

class SwapScenario : public testing::Test {
 protected:
  Events observe(const std::string& key, const std::string& path) {
    driver.observe("kel.swap.systemSwap.isPDL." + key, {s(path)});
    return driver.events();
  }

  support::ModelHost host{std::string("{") + kPaths + "}"};
  support::Scenario scenario;
  support::Driver driver{scenario, keld::kSwapCorrelator};
};

TEST_F(SwapScenario, swapThatCannotBeRemovedIsPostedWithItsDatastore) {
  const auto cannotBeRemoved = [](const std::string& path) {
    return problem("orn.problem.swap.systemSwap.isPDL.cannot.remove.2",
                   "System swap on " + path + " is affected by PDL but cannot be removed.");
  };
  EXPECT_EQ(observe("cannot.remove", "/cvfs/volumes/5f/sys.swp"), Events{cannotBeRemoved("[ds1] sys.swp")});
  EXPECT_EQ(observe("cannot.remove", "/elsewhere/sys.swp"), Events{cannotBeRemoved("/elsewhere/sys.swp")});
  EXPECT_EQ(host.actions(), Actions{});
}

TEST_F(SwapScenario, removedSwapIsPlacedAnewAndLoggedWithItsPathAndWithoutALineEnd) {
  EXPECT_EQ(observe("removed", "/cvfs/volumes/5f/sys.swp"), Events{});
  EXPECT_EQ(host.actions(), Actions{R"({"action":"swap.reconfigure"})"});
  EXPECT_EQ(diagnostics(scenario),
            Lines{"System swap at path /cvfs/volumes/5f/sys.swp was affected by the PDL of its datastore and was "
                  "removed. System swap has been reconfigured."});
}

TEST_F(SwapScenario, aReconfigurationThatFailsIsPostedAndItsDetailsAreLogged) {
  host.write(std::string("{") + kPaths + R"(,"failures":{"swap.reconfigure":"no room: 100% of %s used"}})");
  EXPECT_EQ(observe("removed", "/cvfs/volumes/5f/sys.swp"),
            Events{problem("orn.problem.swap.systemSwap.isPDL.removed.reconfig.failure.2",
                           "System swap on [ds1] sys.swp was affected by PDL. It was removed but the subsequent "
                           "reconfiguration failed.")});
  EXPECT_EQ(diagnostics(scenario), Lines{"no room: 100% of %s used"});
  EXPECT_EQ(host.actions(), Actions{});
  EXPECT_EQ(observe("removed", "/elsewhere"),
            Events{problem("orn.problem.swap.systemSwap.isPDL.removed.reconfig.failure.2",
                           "System swap on /elsewhere was affected by PDL. It was removed but the subsequent "
                           "reconfiguration failed.")});
}

TEST_F(SwapScenario, aPathThatCannotBeReadDoesNothing) {
  scenario::expectUnreadable(scenario, driver,
                             {{"kel.swap.systemSwap.isPDL.cannot.remove", {}, {}},
                              {"kel.swap.systemSwap.isPDL.cannot.remove", {i(1)}, {}},
                              {"kel.swap.systemSwap.isPDL.removed", {}, {}},
                              {"kel.swap.systemSwap.isPDL.removed", {i(1)}, {}}});
  EXPECT_EQ(host.actions(), Actions{});
}

TEST_F(SwapScenario, aNullPathHarmsNothing) {
  driver.observe("kel.swap.systemSwap.isPDL.cannot.remove", {null()});
  driver.observe("kel.swap.systemSwap.isPDL.removed", {null()});
  host.write(R"({"failures":{"swap.reconfigure":"why"}})");
  driver.observe("kel.swap.systemSwap.isPDL.removed", {null()});
  driver.events();
  EXPECT_EQ(observe("cannot.remove", "/p"),
            Events{problem("orn.problem.swap.systemSwap.isPDL.cannot.remove.2",
                           "System swap on /p is affected by PDL but cannot be removed.")});
}

TEST_F(SwapScenario, anUnknownObservationIsIgnoredSilently) {
  driver.observe("kel.swap.unheard.of", {s("x")});
  EXPECT_EQ(driver.events(), Events{});
  EXPECT_EQ(scenario.log.take(), Lines{});
}

class VmScenario : public testing::Test {
 protected:
  support::ModelHost host{std::string("{") + kPaths + "}"};
  support::Scenario scenario;
  support::Driver driver{scenario, keld::kVmCorrelator};
};

TEST_F(VmScenario, machinesKilledByTheKernelArePosted) {
  scenario::expectRows(
      scenario, driver,
      {{"kel.vm.kill.unexpected.noSwapResponse",
        {s("/vm.cfg"), u(3), L(5000000000)},
        problem("orn.problem.vm.kill.unexpected.noSwapResponse.2",
                "/vm.cfg did not respond to 3 swap actions in 5000000000 seconds and is forcefully powered off to "
                "prevent system instability.")},
       {"kel.vm.kill.unexpected.noSwapResponse",
        {s("/vm.cfg"), u(4294967295), L(18446744073709551615U)},
        problem("orn.problem.vm.kill.unexpected.noSwapResponse.2",
                "/vm.cfg did not respond to 4294967295 swap actions in 18446744073709551615 seconds and is forcefully "
                "powered off to prevent system instability.")},
       {"kel.vm.kill.unexpected.vmexe.fault.failure",
        {s("/vm.cfg")},
        problem("orn.problem.vm.kill.unexpected.vmexe.fault.failure.2",
                "/vm.cfg could not fault in a page. The VM is terminated as further progress is impossible.")},
       {"kel.vm.kill.unexpected.vmtrack",
        {s("/vm.cfg")},
        problem("orn.problem.vm.kill.unexpected.vmtrack.2",
                "/vm.cfg is allocating too many pages while system is critically low in free memory. It is forcefully "
                "terminated to prevent system instability.")},
       {"kel.vm.kill.unexpected.forcefulPageRetire.64",
        {s("/vm.cfg"), L(0xfeedbeef12345678)},
        problem("orn.problem.vm.kill.unexpected.forcefulPageRetire.64.2",
                "/vm.cfg contained the host physical page 0xfeedbeef12345678 which was scheduled for immediate "
                "retirement. To avoid system instability the virtual machine is forcefully powered off.")},
       {"kel.vm.kill.unexpected.fault.failure",
        {s("/vm.cfg"), s("/elsewhere/vm.swp")},
        problem("orn.problem.vm.kill.unexpected.fault.failure.2",
                "/vm.cfg could not fault in a guest physical page from the hypervisor level swap file on "
                "/elsewhere/vm.swp. The VM is terminated as further progress is impossible.")}});
}

TEST_F(VmScenario, theSwapFileAloneIsNamedByItsDatastore) {
  driver.observe("kel.vm.kill.unexpected.fault.failure",
                 {s("/cvfs/volumes/5f/sys.swp"), s("/cvfs/volumes/5f/sys.swp")});
  EXPECT_EQ(
      driver.events(),
      Events{problem("orn.problem.vm.kill.unexpected.fault.failure.2",
                     "/cvfs/volumes/5f/sys.swp could not fault in a guest physical page from the hypervisor level "
                     "swap file on [ds1] sys.swp. The VM is terminated as further progress is impossible.")});
}

TEST_F(VmScenario, aNullSwapFileHarmsNothing) {
  driver.observe("kel.vm.kill.unexpected.fault.failure", {null(), null()});
  driver.events();
  driver.observe("kel.vm.kill.unexpected.fault.failure", {s("/vm.cfg"), s("/p")});
  EXPECT_EQ(driver.events().size(), 1U);
}

TEST_F(VmScenario, unreadableArgumentsAreDroppedSilently) {
  scenario::expectUnreadable(scenario, driver,
                             {{"kel.vm.kill.unexpected.noSwapResponse", {s("/vm.cfg"), u(3)}, {}},
                              {"kel.vm.kill.unexpected.noSwapResponse", {s("/vm.cfg"), s("3"), L(1)}, {}},
                              {"kel.vm.kill.unexpected.vmexe.fault.failure", {}, {}},
                              {"kel.vm.kill.unexpected.vmtrack", {i(1)}, {}},
                              {"kel.vm.kill.unexpected.forcefulPageRetire.64", {s("/vm.cfg")}, {}},
                              {"kel.vm.kill.unexpected.fault.failure", {s("/vm.cfg")}, {}}});
}

TEST_F(VmScenario, anUnknownObservationIsReported) {
  driver.observe("kel.vm.unheard.of", {s("x")});
  EXPECT_EQ(driver.events(), Events{});
  EXPECT_EQ(scenario.log.take(), Lines{"No correlator for kel.vm.unheard.of \n"});
}

TEST_F(VmScenario, anObservationWithoutAnIdentifierIsReported) {
  driver.observe("");
  EXPECT_EQ(driver.events(), Events{});
  EXPECT_EQ(scenario.log.take(), Lines{"FAIL: Received NULL kelID\n"});
}

}  // namespace
