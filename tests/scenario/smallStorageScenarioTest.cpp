#include <gtest/gtest.h>

#include <string>

#include "scenarioTools.h"

namespace {

using scenario::diagnostics;
using scenario::Events;
using scenario::Lines;
using support::clear;
using support::i;
using support::null;
using support::problem;
using support::s;
using support::u;

class ApdScenario : public testing::Test {
 protected:
  support::Scenario scenario;
  support::Driver driver{scenario, keld::kApdCorrelator};
};

TEST_F(ApdScenario, startAndTimeoutAreProblemsAndExitIsAClear) {
  scenario::expectRows(
      scenario, driver,
      {{"kel.storage.apd.start",
        {s("naa.1")},
        problem("orn.problem.storage.apd.start",
                "Device or filesystem with identifier [naa.1] has entered the All Paths Down state.")},
       {"kel.storage.apd.exit",
        {s("naa.1")},
        clear("orn.clear.storage.apd.exit",
              "Device or filesystem with identifier [naa.1] has exited the All Paths Down state.")},
       {"kel.storage.apd.timeout",
        {s("naa.1"), i(140)},
        problem("orn.problem.storage.apd.timeout",
                "Device or filesystem with identifier [naa.1] has entered the All Paths Down Timeout state after being "
                "in the All Paths Down state for 140 seconds. I/Os will now be fast failed.")}});
}

TEST_F(ApdScenario, unreadableArgumentsAreDroppedSilently) {
  scenario::expectUnreadable(scenario, driver,
                             {{"kel.storage.apd.start", {}, {}},
                              {"kel.storage.apd.start", {i(1)}, {}},
                              {"kel.storage.apd.exit", {}, {}},
                              {"kel.storage.apd.timeout", {s("naa.1")}, {}},
                              {"kel.storage.apd.timeout", {s("naa.1"), s("140")}, {}},
                              {"kel.storage.apd.timeout", {i(1), i(140)}, {}}});
}

TEST_F(ApdScenario, anUnknownObservationIsIgnoredSilently) {
  driver.observe("kel.storage.apd.unheard.of", {s("naa.1")});
  EXPECT_EQ(driver.events(), Events{});
  EXPECT_EQ(scenario.log.take(), Lines{});
}

class IscsiScenario : public testing::Test {
 protected:
  Events login(std::uint32_t code, const std::string& id = "kel.iscsi.target.login.error") {
    driver.observe(id, {s("hba"), s("target"), u(code)});
    return driver.events();
  }
  static support::PostedEvent loginError(const std::string& code) {
    return problem("orn.problem.storage.iscsi.target.login.error",
                   "Login to iSCSI target target on hba failed. Target returned login error of: " + code + ".");
  }

  support::Scenario scenario;
  support::Driver driver{scenario, keld::kIscsiCorrelator};
};

TEST_F(IscsiScenario, discoveryAndLoginErrorsNameTheSecondTextFirstAndARemovalKeepsTheOrder) {
  scenario::expectRows(
      scenario, driver,
      {{"kel.iscsi.isns.discovery.error",
        {s("a0"), s("a1"), s("a2"), s("a3")},
        problem("orn.problem.storage.iscsi.isns.discovery.error", "iSns discovery to a1 on a0 failed. (a2 : a3).")},
       {"kel.iscsi.discovery.connect.error",
        {s("a0"), s("a1")},
        problem(
            "orn.problem.storage.iscsi.discovery.connect.error",
            "iSCSI discovery to a1 on a0 failed. The iSCSI Initiator could not establish a network connection to the "
            "discovery address.")},
       {"kel.iscsi.discovery.login.error",
        {s("a0"), s("a1"), u(0x1f)},
        problem("orn.problem.storage.iscsi.discovery.login.error",
                "iSCSI discovery to a1 on a0 failed. The Discovery target returned a login error of: 001f.")},
       {"kel.iscsi.target.connect.error",
        {s("a0"), s("a1")},
        problem(
            "orn.problem.storage.iscsi.target.connect.error",
            "Login to iSCSI target a1 on a0 failed. The iSCSI initiator could not establish a network connection to "
            "the target.")},
       {"kel.iscsi.target.login.error",
        {s("a0"), s("a1"), u(0x203)},
        problem("orn.problem.storage.iscsi.target.login.error",
                "Login to iSCSI target a1 on a0 failed. Target returned login error of: 0203.")},
       {"kel.iscsi.target.permanently.removed",
        {s("a0"), s("a1")},
        problem("orn.problem.storage.iscsi.target.permanently.removed",
                "The target a0 was permanently removed from a1.")}});
}

TEST_F(IscsiScenario, aLoginCodeIsFourLowerCaseHexadecimalDigits) {
  EXPECT_EQ(login(0), Events{loginError("0000")});
  EXPECT_EQ(login(0x1f), Events{loginError("001f")});
  EXPECT_EQ(login(0xABCD), Events{loginError("abcd")});
  EXPECT_EQ(login(0xffff), Events{loginError("ffff")});
}

TEST_F(IscsiScenario, aLargerLoginCodeKeepsItsFirstFourDigits) {
  EXPECT_EQ(login(0x10000), Events{loginError("1000")});
  EXPECT_EQ(login(0x12345), Events{loginError("1234")});
  EXPECT_EQ(login(0xfedcba98), Events{loginError("fedc")});
  EXPECT_EQ(login(0x12345, "kel.iscsi.discovery.login.error"),
            Events{problem("orn.problem.storage.iscsi.discovery.login.error",
                           "iSCSI discovery to target on hba failed. The Discovery target returned a login error of: "
                           "1234.")});
}

TEST_F(IscsiScenario, fiveObservationsAreAcceptedAndGiveNoEvent) {
  for (const char* id : {"kel.iscsi.connection.started", "kel.iscsi.connection.stopped", "kel.iscsi.connection.error",
                         "kel.iscsi.session.recovery.timeout", "kel.iscsi.target.async.event"}) {
    driver.observe(id);
    driver.observe(id, {s("a"), s("b"), u(1)});
    EXPECT_EQ(driver.events(), Events{}) << id;
    EXPECT_EQ(scenario.log.take().size(), 2U) << id << " has a handler, so it is logged by the framework";
  }
}

TEST_F(IscsiScenario, unreadableArgumentsAreDroppedSilently) {
  scenario::expectUnreadable(scenario, driver,
                             {{"kel.iscsi.isns.discovery.error", {s("a"), s("b"), s("c")}, {}},
                              {"kel.iscsi.discovery.connect.error", {s("a")}, {}},
                              {"kel.iscsi.discovery.login.error", {s("a"), s("b")}, {}},
                              {"kel.iscsi.discovery.login.error", {s("a"), s("b"), s("c")}, {}},
                              {"kel.iscsi.target.connect.error", {s("a"), i(1)}, {}},
                              {"kel.iscsi.target.login.error", {s("a"), s("b")}, {}},
                              {"kel.iscsi.target.permanently.removed", {}, {}}});
}

TEST_F(IscsiScenario, nullTextsShowAsNull) {
  driver.observe("kel.iscsi.target.login.error", {null(), null(), u(1)});
  EXPECT_EQ(driver.events(),
            Events{problem("orn.problem.storage.iscsi.target.login.error",
                           "Login to iSCSI target (null) on (null) failed. Target returned login error "
                           "of: 0001.")});
}

TEST_F(IscsiScenario, anUnknownObservationIsIgnoredSilently) {
  driver.observe("kel.iscsi.unheard.of");
  EXPECT_EQ(driver.events(), Events{});
  EXPECT_EQ(scenario.log.take(), Lines{});
}

class VscsiScenario : public testing::Test {
 protected:
  support::Scenario scenario;
  support::Driver driver{scenario, keld::kVscsiCorrelator};
};

TEST_F(VscsiScenario, rowsGiveTheirEvents) {
  scenario::expectRows(
      scenario, driver,
      {{"kel.vscsi.shared.vdsk.no.free.slot.available",
        {u(5)},
        problem("orn.problem.vscsi.shared.vdsk.no.free.slot.available",
                "No Free slot available. Maximum number of VMs supported in MSCS cluster are 5")},
       {"kel.vscsi.shared.vdsk.no.free.slot.available",
        {u(4294967295)},
        problem("orn.problem.vscsi.shared.vdsk.no.free.slot.available",
                "No Free slot available. Maximum number of VMs supported in MSCS cluster are 4294967295")},
       {"kel.vscsi.shared.vdsk.add.failure.max.count",
        {u(128)},
        problem("orn.problem.vscsi.shared.vdsk.add.failure.max.count",
                "Failed to add shared virtual disk. Maximum number of shared vdsks supported per ORN host are 128")},
       {"kel.vscsi.shared.vdsk.virtual.machine.power.on.failed",
        {s("vm1"), s("vm2")},
        problem("orn.problem.vscsi.shared.vdsk.virtual.machine.power.on.failed",
                "Two or more VMs (vm1 and vm2) sharing same virtual disk are not allowed to be Powered-On on same "
                "host.")}});
}

TEST_F(VscsiScenario, unreadableArgumentsAreLoggedWithoutALineEnd) {
  scenario::expectUnreadable(
      scenario, driver,
      {{"kel.vscsi.shared.vdsk.no.free.slot.available", {}, {"Failed to get args: 75"}},
       {"kel.vscsi.shared.vdsk.no.free.slot.available", {s("5")}, {"Failed to get args: 22"}},
       {"kel.vscsi.shared.vdsk.add.failure.max.count", {}, {"Failed to get args: 75"}},
       {"kel.vscsi.shared.vdsk.virtual.machine.power.on.failed", {}, {"Failed to get VM-1 name: 75"}},
       {"kel.vscsi.shared.vdsk.virtual.machine.power.on.failed", {i(1), s("vm2")}, {"Failed to get VM-1 name: 22"}},
       {"kel.vscsi.shared.vdsk.virtual.machine.power.on.failed", {s("vm1")}, {"Failed to get VM-2 name: 75"}},
       {"kel.vscsi.shared.vdsk.virtual.machine.power.on.failed", {s("vm1"), i(1)}, {"Failed to get VM-2 name: 22"}}});
}

TEST_F(VscsiScenario, anUnknownObservationIsIgnoredSilently) {
  driver.observe("kel.vscsi.unheard.of");
  EXPECT_EQ(driver.events(), Events{});
  EXPECT_EQ(scenario.log.take(), Lines{});
}

}  // namespace
