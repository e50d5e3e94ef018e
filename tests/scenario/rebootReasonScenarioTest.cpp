#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "configstore/read.h"
#include "modelHost.h"
#include "userScenario.h"

namespace {

using namespace std::chrono_literals;
using platform::readStoredObject;
using scenario::Arguments;
using scenario::diagnostics;
using scenario::Events;
using scenario::Lines;
using support::audit;
using support::i;
using support::null;
using support::s;
using Values = std::vector<std::pair<std::string, std::string>>;

constexpr const char* kConsole = "Direct Console User Interface (PANL)";
constexpr const char* kUnknownReason =
    "Last reboot reason is unknown. Please check ORNi and the BMC logs for further details. ";
constexpr const char* kGuide =
    "Please consult ORNi Embedded and Centrix Server Setup Guide or follow the Ask Korvel link for more information.";
constexpr const char* kRebootByOrncli = "kel.user.orncli.host.reboot.reason";

/// Puts a time zone in force; POSIX forms, which need no time zone files.
class TimeZone {
 public:
  explicit TimeZone(const char* zone) {
    if (const char* const before = std::getenv("TZ")) before_ = before;
    put(zone);
  }
  TimeZone(const TimeZone&) = delete;
  TimeZone& operator=(const TimeZone&) = delete;
  ~TimeZone() { put(before_.empty() ? nullptr : before_.c_str()); }
  static void put(const char* zone) {
    if (zone != nullptr) {
      setenv("TZ", zone, 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }

 private:
  std::string before_;
};

class RebootReason : public testing::Test {
 protected:
  Events observed(const char* id, const Arguments& arguments = {}) {
    driver.observe(id, arguments);
    return driver.events();
  }
  /// The recorded values, in their order; none where there is no record.
  static Values recorded() {
    const auto object = readStoredObject("reboot_reason");
    return object.ok() ? object.value.values : Values{};
  }
  static std::string recordedTime() {
    for (const auto& [key, value] : recorded()) {
      if (key == "timestamp") return value;
    }
    return {};
  }
  static Values values(const char* type, const char* user, const char* subsystem, const std::string& reason,
                       const char* time = "Thu, 01 Jan 26 00:00:00 +0000") {
    return {{"type", type}, {"user", user}, {"subsystem", subsystem}, {"timestamp", time}, {"reason", reason}};
  }
  static Events rebootByOrncli(const std::string& reason, const std::string& user) {
    return {audit(
        "orn.audit.orncli.host.reboot.reason",
        "The host is being rebooted through orncli.Reason for reboot: " + reason + ". User: " + user + "." + kGuide)};
  }
  static support::PostedEvent consoleReboot() {
    return audit("orn.audit.panl.host.reboot",
                 std::string("The host is being rebooted through Direct Console User Interface(PANL). ") + kGuide);
  }

  const TimeZone utc{"UTC0"};
  const support::ModelHost host;
  support::Scenario scenario;
  support::Driver driver{scenario, keld::kUserLevelCorrelator};
};

TEST_F(RebootReason, everyWayToRestartTheHostIsAuditedAndRecorded) {
  struct Case {
    const char* id;
    Arguments arguments;
    support::PostedEvent event;
    Values record;
  };
  const std::string guide = kGuide;
  const std::vector<Case> cases = {
      {"kel.user.panl.reboot.host", {}, consoleReboot(), values("REBOOT", "Unknown", kConsole, kUnknownReason)},
      {"kel.user.panl.shutdown.host",
       {},
       audit("orn.audit.panl.host.shutdown",
             "The host is being shutdown through Direct Console User Interface(PANL). " + guide),
       values("POWEROFF", "Unknown", kConsole, kUnknownReason)},
      {"kel.user.subsystem.host.reboot.reason",
       {s("a:patches"), s("alice"), s("updater")},
       audit("orn.audit.subsystem.host.reboot.reason",
             "The host is being rebooted.Reason for reboot: patches. User: alice. Subsystem: updater." + guide),
       values("REBOOT", "alice", "updater", "patches")},
      {"kel.user.subsystem.host.poweroff.reason",
       {s("b:moving"), s("bob"), s("power")},
       audit("orn.audit.subsystem.host.poweroff.reason",
             "The host is being powered off.Reason for power off: moving. User: bob. Subsystem: power." + guide),
       values("POWEROFF", "bob", "power", "moving")},
      {kRebootByOrncli,
       {s("orncli:planned upgrade"), s("carol")},
       rebootByOrncli("planned upgrade", "carol").front(),
       values("REBOOT", "carol", "orncli", "planned upgrade")},
      {"kel.user.orncli.host.poweroff.reason",
       {s("orncli:the end"), s("dave")},
       audit("orn.audit.orncli.host.poweroff.reason",
             "The host is being powered off through orncli.Reason for power off: the end. User: dave." + guide),
       values("POWEROFF", "dave", "orncli", "the end")},
      {"kel.user.hagd.host.reboot.reason",
       {s("hagd:new kernel"), s("erin")},
       audit("orn.audit.hagd.host.reboot.reason",
             "The host is being rebooted through hagd.Reason for reboot: new kernel. User: erin." + guide),
       values("REBOOT", "erin", "hagd", "new kernel")},
      {"kel.user.hagd.host.poweroff.reason",
       {s("hagd:saving power"), s("frank")},
       audit("orn.audit.hagd.host.poweroff.reason",
             "The host is being powered off through hagd.Reason for power off: saving power. User: frank." + guide),
       values("POWEROFF", "frank", "hagd", "saving power")},
  };
  for (const Case& restart : cases) {
    EXPECT_EQ(observed(restart.id, restart.arguments), Events{restart.event}) << restart.id;
    EXPECT_EQ(recorded(), restart.record) << restart.id;
    EXPECT_EQ(diagnostics(scenario), Lines{}) << restart.id;
  }
  EXPECT_EQ(platform::listStoredObjects().value.size(), 1U);
}

TEST_F(RebootReason, theRecordIsTheHostsOwn) {
  observed(kRebootByOrncli, {s("orncli:x"), s("root")});
  const auto objects = platform::listStoredObjects();
  ASSERT_TRUE(objects.ok());
  ASSERT_EQ(objects.value.size(), 1U);
  EXPECT_EQ(objects.value[0].name, "reboot_reason");
  EXPECT_EQ(objects.value[0].component, "qkernel");
  EXPECT_EQ(objects.value[0].product, "orn");
  EXPECT_EQ(objects.value[0].instance, "");
}

TEST_F(RebootReason, theReasonIsWhatFollowsTheFirstColon) {
  struct Case {
    const char* argument;
    const char* reason;
  };
  for (const Case& text :
       {Case{"orncli:planned upgrade", "planned upgrade"}, Case{"orncli: planned", " planned"},
        Case{"orncli:at 12:30: now", "at 12:30: now"}, Case{":whole", "whole"}, Case{"::half", ":half"},
        Case{"a b c:d ", "d "}, Case{"orncli:", ""}, Case{":", ""}, Case{"orncli:100%s\n", "100%s\n"}}) {
    EXPECT_EQ(observed(kRebootByOrncli, {s(text.argument), s("root")}), rebootByOrncli(text.reason, "root"))
        << text.argument;
    EXPECT_EQ(recorded(), values("REBOOT", "root", "orncli", text.reason)) << text.argument;
  }
}

TEST_F(RebootReason, withoutAReasonNothingIsPostedAndNothingRecorded) {
  for (const char* id : {"kel.user.subsystem.host.reboot.reason", "kel.user.subsystem.host.poweroff.reason",
                         kRebootByOrncli, "kel.user.orncli.host.poweroff.reason", "kel.user.hagd.host.reboot.reason",
                         "kel.user.hagd.host.poweroff.reason"}) {
    scenario::expectUnreadable(scenario, driver,
                               {{id, {}, {}},
                                {id, {s("no colon"), s("root"), s("sub")}, {}},
                                {id, {s(""), s("root"), s("sub")}, {}},
                                {id, {null(), s("root"), s("sub")}, {}},
                                {id, {i(1), s("root:x"), s("sub:x")}, {}}});
  }
  EXPECT_EQ(readStoredObject("reboot_reason").outcome.status, ENOENT);
}

TEST_F(RebootReason, withoutAUserNothingIsPostedAndNothingRecorded) {
  for (const char* id : {"kel.user.subsystem.host.reboot.reason", "kel.user.subsystem.host.poweroff.reason",
                         kRebootByOrncli, "kel.user.orncli.host.poweroff.reason", "kel.user.hagd.host.reboot.reason",
                         "kel.user.hagd.host.poweroff.reason"}) {
    scenario::expectUnreadable(scenario, driver, {{id, {s("a:b")}, {}}, {id, {s("a:b"), i(0), s("sub")}, {}}});
  }
  EXPECT_EQ(readStoredObject("reboot_reason").outcome.status, ENOENT);
}

TEST_F(RebootReason, theTwoSubsystemRowsNeedTheirSubsystem) {
  for (const char* id : {"kel.user.subsystem.host.reboot.reason", "kel.user.subsystem.host.poweroff.reason"}) {
    scenario::expectUnreadable(scenario, driver,
                               {{id, {s("a:b"), s("root")}, {}}, {id, {s("a:b"), s("root"), i(1)}, {}}});
  }
  EXPECT_EQ(readStoredObject("reboot_reason").outcome.status, ENOENT);
}

TEST_F(RebootReason, theOtherRowsNameTheirOwnSubsystemWhateverElseTheyAreGiven) {
  EXPECT_EQ(observed(kRebootByOrncli, {s("a:b"), s("root"), s("another")}), rebootByOrncli("b", "root"));
  EXPECT_EQ(recorded(), values("REBOOT", "root", "orncli", "b"));
  EXPECT_EQ(observed(kRebootByOrncli, {s("a:c"), s("root"), i(3)}), rebootByOrncli("c", "root"));
  EXPECT_EQ(recorded(), values("REBOOT", "root", "orncli", "c"));
}

TEST_F(RebootReason, theConsoleRowsReadNoArgument) {
  EXPECT_EQ(observed("kel.user.panl.reboot.host", {s("a:b"), s("root"), s("sub")}), Events{consoleReboot()});
  EXPECT_EQ(recorded(), values("REBOOT", "Unknown", kConsole, kUnknownReason));
}

TEST_F(RebootReason, aUserWithoutANameIsShownAsSuch) {
  EXPECT_EQ(observed(kRebootByOrncli, {s("a:b"), null()}), rebootByOrncli("b", "(null)"));
  EXPECT_EQ(recorded(), values("REBOOT", "(null)", "orncli", "b"));
}

TEST_F(RebootReason, emptyTextsAreTextsToo) {
  EXPECT_EQ(observed(kRebootByOrncli, {s("a:"), s("")}), rebootByOrncli("", ""));
  EXPECT_EQ(recorded(), values("REBOOT", "", "orncli", ""));
}

TEST_F(RebootReason, aLaterReasonReplacesTheWholeRecord) {
  observed("kel.user.subsystem.host.reboot.reason", {s("a:first"), s("alice"), s("updater")});
  driver.pass(61s);
  observed("kel.user.panl.shutdown.host");
  EXPECT_EQ(recorded(), values("POWEROFF", "Unknown", kConsole, kUnknownReason, "Thu, 01 Jan 26 00:01:01 +0000"));
  EXPECT_EQ(platform::listStoredObjects().value.size(), 1U);
}

TEST_F(RebootReason, aReasonThatCannotBeReadLeavesTheEarlierRecord) {
  observed(kRebootByOrncli, {s("a:first"), s("root")});
  EXPECT_EQ(observed(kRebootByOrncli, {s("no colon"), s("root")}), Events{});
  EXPECT_EQ(observed(kRebootByOrncli, {s("a:second")}), Events{});
  EXPECT_EQ(recorded(), values("REBOOT", "root", "orncli", "first"));
}

TEST_F(RebootReason, theTimeIsThatOfTheHandlingInLocalTime) {
  const TimeZone east("<+0530>-5:30");
  driver.pass(17h + 4min + 5s);
  observed("kel.user.panl.reboot.host");
  EXPECT_EQ(recordedTime(), "Thu, 01 Jan 26 22:34:05 +0530");
  driver.pass(2h);
  observed("kel.user.panl.shutdown.host");
  EXPECT_EQ(recordedTime(), "Fri, 02 Jan 26 00:34:05 +0530");
}

TEST_F(RebootReason, westOfGreenwichTheDayIsTheLocalOne) {
  const TimeZone west("AAA8");
  observed(kRebootByOrncli, {s("a:b"), s("root")});
  EXPECT_EQ(recordedTime(), "Wed, 31 Dec 25 16:00:00 -0800");
}

TEST_F(RebootReason, summerTimeCounts) {
  const TimeZone central("CET-1CEST,M3.5.0,M10.5.0/3");
  observed("kel.user.panl.reboot.host");
  EXPECT_EQ(recordedTime(), "Thu, 01 Jan 26 01:00:00 +0100");
  driver.pass(181 * 24h);
  observed("kel.user.panl.reboot.host");
  EXPECT_EQ(recordedTime(), "Wed, 01 Jul 26 02:00:00 +0200");
}

TEST_F(RebootReason, aPartOfASecondIsDropped) {
  scenario.clock.correct(scenario.clock.wall() + 59s + 999ms);
  observed("kel.user.panl.reboot.host");
  EXPECT_EQ(recordedTime(), "Thu, 01 Jan 26 00:00:59 +0000");
}

TEST_F(RebootReason, theEventIsPostedBeforeTheReasonIsRecorded) {
  bool recordedBefore = true;
  scenario::WatchedPost post([&] { recordedBefore = readStoredObject("reboot_reason").ok(); });
  for (const char* id : {"kel.user.panl.reboot.host", kRebootByOrncli, "kel.user.subsystem.host.poweroff.reason"}) {
    (void)platform::deleteStoredObject("reboot_reason");
    scenario::observeWith(scenario, post, id, {s("a:b"), s("root"), s("sub")});
    EXPECT_FALSE(recordedBefore) << id;
    EXPECT_TRUE(readStoredObject("reboot_reason").ok()) << id;
  }
  EXPECT_EQ(post.count(), 3);
}

TEST_F(RebootReason, aFailureOfTheStoreSuppressesTheRecordAlone) {
  for (const char* failure : {"store.create", "store.write"}) {
    host.write("{}");
    observed(kRebootByOrncli, {s("a:before"), s("root")});
    host.write(std::string(R"({"failures": {")") + failure + R"(": 28}})");
    EXPECT_EQ(observed(kRebootByOrncli, {s("a:during"), s("root")}), rebootByOrncli("during", "root")) << failure;
    EXPECT_EQ(observed("kel.user.panl.reboot.host"), Events{consoleReboot()}) << failure;
    EXPECT_EQ(diagnostics(scenario), Lines{}) << failure;
    EXPECT_EQ(recorded(), values("REBOOT", "root", "orncli", "before")) << failure;
    host.write("{}");
    observed(kRebootByOrncli, {s("a:after"), s("root")});
    EXPECT_EQ(recorded(), values("REBOOT", "root", "orncli", "after")) << failure;
  }
}

TEST_F(RebootReason, aStoreThatCannotBeOpenedSuppressesTheRecordAlone) {
  std::filesystem::remove_all(host.directory() + "/state");
  std::ofstream(host.directory() + "/state") << "no directory";
  EXPECT_EQ(observed(kRebootByOrncli, {s("a:b"), s("root")}), rebootByOrncli("b", "root"));
  EXPECT_EQ(observed("kel.user.panl.reboot.host"), Events{consoleReboot()});
  EXPECT_EQ(diagnostics(scenario), Lines{});
}

TEST_F(RebootReason, aDamagedStoreSuppressesTheRecordAlone) {
  std::ofstream(host.directory() + "/state/korvel.db") << std::string(8192, 'x');
  EXPECT_EQ(observed(kRebootByOrncli, {s("a:b"), s("root")}), rebootByOrncli("b", "root"));
  EXPECT_EQ(diagnostics(scenario), Lines{});
}

TEST_F(RebootReason, aValueThatTheStoreRefusesSuppressesTheWholeRecord) {
  const std::string tooLong(70000, 'r');
  observed(kRebootByOrncli, {s("a:before"), s("root")});
  EXPECT_EQ(observed(kRebootByOrncli, {s("a:" + tooLong), s("root")}), rebootByOrncli(tooLong, "root"));
  EXPECT_EQ(observed(kRebootByOrncli, {s("a:b"), s(tooLong)}), rebootByOrncli("b", tooLong));
  EXPECT_EQ(diagnostics(scenario), Lines{});
  EXPECT_EQ(recorded(), values("REBOOT", "root", "orncli", "before"));
}

TEST_F(RebootReason, theRowsOfPastReasonsRecordNothing) {
  observed("kel.user.host.reboot.reason.available", {s("a:b")});
  observed("kel.user.host.reboot.reason.management", {s("a:b"), s("root"), s("sub"), s("c:d")});
  observed("kel.user.host.reboot.reason.unavailable");
  observed("kel.user.host.stop.reboot");
  observed("kel.user.host.stop.shutdown");
  EXPECT_EQ(readStoredObject("reboot_reason").outcome.status, ENOENT);
}

}  // namespace
