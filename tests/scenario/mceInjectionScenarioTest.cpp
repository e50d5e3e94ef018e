#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "modelHost.h"
#include "scenarioTools.h"

namespace {

using namespace std::chrono_literals;
using scenario::diagnostics;
using scenario::Events;
using scenario::Lines;
using support::i;
using support::L;
using support::problem;

using Actions = std::vector<std::string>;

constexpr int kWeb = 4711;
constexpr int kDb = 4712;

/// Virtual machines web01 and db01, zero of world 0 and early of a negative one.
class MceInjection : public testing::Test {
 protected:
  void failing(const std::string& failures) const {
    host.write(R"({"vms":[{"worldId":4711,"groupId":12,"name":"web01"},{"worldId":4712,"name":"db01"},)"
               R"({"worldId":0,"name":"zero"},{"worldId":-5,"name":"early"}],"failures":{)" +
               failures + "}}");
  }
  void inject(int times, std::uint64_t page = 0x1a, int world = kWeb) {
    for (int n = 0; n < times; ++n) driver.observe("kel.pageretire.mce.injected", {L(page), i(world)});
  }
  /// 51 injections that would kill, were nothing failing.
  void injectEnough(std::uint64_t page = 0x1a, int world = kWeb) {
    inject(50, page, world);
    driver.pass(2s);
    inject(1, page, world);
  }
  static support::PostedEvent killed(int count, const std::string& page = "0x1a", const std::string& name = "web01") {
    return problem("orn.problem.pageretire.mce.injected.2",
                   "Killing " + name + " because at least " + std::to_string(count) +
                       " uncorrectable memory error machine check exceptions were injected for guest physical page " +
                       page + " but the virtual machine's operating system kept using the page.");
  }
  static std::string kill(int world, const std::string& name) {
    return R"({"action":"vm.kill","worldId":)" + std::to_string(world) + R"(,"name":")" + name + "\"}";
  }
  void SetUp() override { failing(""); }

  support::ModelHost host;
  support::Scenario scenario;
  support::Driver driver{scenario, keld::kPageRetireCorrelator};
};

TEST_F(MceInjection, fiftyWithinOneSecondKillNothingAndThe51stTwoSecondsAfterTheFirstDoes) {
  inject(50);
  driver.pass(1s);
  EXPECT_EQ(driver.events(), Events{});
  driver.pass(1s);
  inject(1);
  EXPECT_EQ(driver.events(), Events{killed(51)});
  EXPECT_EQ(host.actions(), Actions{kill(kWeb, "web01")});
  EXPECT_EQ(diagnostics(scenario), Lines{});
}

TEST_F(MceInjection, aSpreadOfOneSecondIsNotEnoughHoweverManyTheyAre) {
  inject(100);
  driver.pass(1s);
  inject(100);
  EXPECT_EQ(driver.events(), Events{});
}

TEST_F(MceInjection, theFiftiethSpreadOverTwoSecondsKills) {
  inject(1);
  driver.pass(2s);
  inject(48);
  EXPECT_EQ(driver.events(), Events{});
  inject(1);
  EXPECT_EQ(driver.events(), Events{killed(50)});
}

TEST_F(MceInjection, aSpreadIsCountedInWholeSecondsOfTheClock) {
  scenario.clock.pass(900ms);
  inject(49);
  scenario.clock.pass(1100ms);
  inject(1);
  EXPECT_EQ(driver.events(), Events{killed(50)});
}

TEST_F(MceInjection, aKilledMachineIsNotReportedOrKilledAgain) {
  injectEnough();
  driver.events();
  inject(200);
  inject(200, 0x1b);
  driver.pass(2s);
  inject(1, 0x1b);
  EXPECT_EQ(driver.events(), Events{});
  EXPECT_EQ(host.actions().size(), 1U);
}

TEST_F(MceInjection, differentPagesNeverKillHoweverMany) {
  for (std::uint64_t page = 0; page < 40; ++page) inject(48, page);
  driver.pass(2s);
  for (std::uint64_t page = 0; page < 40; ++page) inject(1, page);
  EXPECT_EQ(driver.events(), Events{});
}

TEST_F(MceInjection, machinesAreCountedApart) {
  inject(49, 0x1a, kWeb);
  inject(49, 0x1a, kDb);
  driver.pass(2s);
  EXPECT_EQ(driver.events(), Events{});
  inject(1, 0x1a, kDb);
  EXPECT_EQ(driver.events(), Events{killed(50, "0x1a", "db01")});
  EXPECT_EQ(host.actions(), Actions{kill(kDb, "db01")});
}

TEST_F(MceInjection, after60SecondsAnInjectionStillCounts) {
  inject(49);
  driver.pass(60s);
  inject(1);
  EXPECT_EQ(driver.events(), Events{killed(50)});
}

TEST_F(MceInjection, after61SecondsItHasDroppedOutBeforeTheNewOneIsAdded) {
  inject(49);
  driver.pass(61s);
  inject(1);
  EXPECT_EQ(driver.events(), Events{});
  driver.pass(2s);
  inject(48);
  EXPECT_EQ(driver.events(), Events{});
  inject(1);
  EXPECT_EQ(driver.events(), Events{killed(50)});
}

TEST_F(MceInjection, injectionsExpireOneByOne) {
  inject(30);
  driver.pass(40s);
  inject(30);
  EXPECT_EQ(driver.events(), Events{killed(50)});
  driver.pass(61s);  // all forgotten, the killing too
  inject(30);
  driver.pass(40s);
  inject(15);
  driver.pass(21s);
  inject(34);  // with the fifteen
  EXPECT_EQ(driver.events(), Events{});
  inject(1);
  EXPECT_EQ(driver.events(), Events{killed(50)});
}

TEST_F(MceInjection, aKilledMachineIsForgottenOnceAllItsInjectionsHaveExpired) {
  injectEnough();
  driver.events();
  driver.pass(61s);
  injectEnough();
  EXPECT_EQ(driver.events(), Events{killed(51)});
  EXPECT_EQ(host.actions().size(), 2U);
}

TEST_F(MceInjection, aKilledMachineIsRememberedWhileOneInjectionOfItLives) {
  injectEnough();
  driver.events();
  driver.pass(60s);
  inject(1);  // one second before the last would have expired
  driver.pass(60s);
  injectEnough();
  EXPECT_EQ(driver.events(), Events{});
  EXPECT_EQ(host.actions().size(), 1U);
}

TEST_F(MceInjection, theObservationOfOneMachineExpiresTheInjectionsOfAll) {
  injectEnough();
  driver.events();
  driver.pass(61s);
  inject(1, 0x1a, kDb);
  scenario.clock.correct(scenario.clock.wall() - 61s);  // back where web01 would still be remembered
  injectEnough();
  EXPECT_EQ(driver.events(), Events{killed(51)});
}

TEST_F(MceInjection, aFailedLookUpLeavesTheMachineForALaterCall) {
  failing(R"("vm.lookup":5)");
  injectEnough();
  EXPECT_EQ(driver.events(), Events{});
  EXPECT_EQ(host.actions(), Actions{});
  EXPECT_EQ(diagnostics(scenario), Lines{});
  failing("");
  inject(1);
  EXPECT_EQ(driver.events(), Events{killed(51)});  // as the run grew past its 51st
  EXPECT_EQ(host.actions(), Actions{kill(kWeb, "web01")});
}

TEST_F(MceInjection, aFailedNameLeavesTheMachineForALaterCallToo) {
  failing(R"("vm.name":5)");
  injectEnough();
  EXPECT_EQ(driver.events(), Events{});
  EXPECT_EQ(host.actions(), Actions{});
  failing("");
  inject(1);
  EXPECT_EQ(driver.events(), Events{killed(51)});
}

TEST_F(MceInjection, aMachineThatIsNotThereIsNeitherReportedNorKilled) {
  injectEnough(0x1a, 9999);
  inject(10, 0x1a, 9999);
  EXPECT_EQ(driver.events(), Events{});
  EXPECT_EQ(host.actions(), Actions{});
}

TEST_F(MceInjection, theKilledFlagIsSetBeforeAKillThatFails) {
  failing(R"("vm.kill":5)");
  injectEnough();
  EXPECT_EQ(driver.events(), Events{killed(51)});
  EXPECT_EQ(diagnostics(scenario), Lines{});
  failing("");
  inject(100);
  EXPECT_EQ(driver.events(), Events{});
  EXPECT_EQ(host.actions(), Actions{});
}

TEST_F(MceInjection, theScanTakesEveryMachineInTheOrderOfWorldIdentifiers) {
  failing(R"("vm.lookup":5)");
  inject(50, 0x1a, kDb);
  inject(50, 0x1a, kWeb);
  inject(50, 0x1a, -5);
  driver.pass(2s);
  inject(1, 0x1a, kDb);
  inject(1, 0x1a, kWeb);
  inject(1, 0x1a, -5);
  failing("");
  inject(1, 0x99, 0);  // of another machine altogether
  EXPECT_EQ(driver.events(),
            (Events{killed(51, "0x1a", "early"), killed(51, "0x1a", "web01"), killed(51, "0x1a", "db01")}));
}

TEST_F(MceInjection, theLowestPageOfAMachineIsTheOneReported) {
  failing(R"("vm.lookup":5)");
  injectEnough(0xffff'ffff'ffff'ffff);
  injectEnough(0x2b);
  injectEnough(0x1a);
  failing("");
  inject(1, 0x99);
  EXPECT_EQ(driver.events(), Events{killed(51, "0x1a")});
  EXPECT_EQ(host.actions().size(), 1U);
}

TEST_F(MceInjection, pagesAreUnsigned64BitNumbers) {
  injectEnough(0xffff'ffff'ffff'ffff);
  EXPECT_EQ(driver.events(), Events{killed(51, "0xffffffffffffffff")});
}

TEST_F(MceInjection, anInjectionThatCannotBeReadCountsForPageZeroOfWorldZero) {
  for (int n = 0; n < 50; ++n) driver.observe("kel.pageretire.mce.injected");
  driver.pass(2s);
  driver.observe("kel.pageretire.mce.injected", {L(0x1a)});
  EXPECT_EQ(driver.events(), Events{killed(51, "0", "zero")});
  EXPECT_EQ(host.actions(), Actions{kill(0, "zero")});
}

TEST_F(MceInjection, aClockSetBackWidensTheSpreadAndExpiresNothing) {
  inject(49);
  scenario.clock.correct(scenario.clock.wall() - 24h);
  inject(1);
  EXPECT_EQ(driver.events(), Events{killed(50)});
}

TEST_F(MceInjection, aClockSetForwardExpires) {
  inject(49);
  scenario.clock.correct(scenario.clock.wall() + 24h);
  inject(1);
  EXPECT_EQ(driver.events(), Events{});
}

TEST_F(MceInjection, theHandlerDoesNothingForAnotherIdentifier) {
  scenario::callHandler(scenario, keld::kPageRetireCorrelator, "kel.pageretire.mce.injected", "kel.pageretire.other",
                        {L(0x1a), i(kWeb)});
  EXPECT_EQ(driver.events(), Events{});
}

}  // namespace
