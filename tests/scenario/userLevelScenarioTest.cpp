#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <limits>
#include <string>

#include "modelHost.h"
#include "userScenario.h"

namespace {

using namespace std::chrono_literals;
using scenario::Arguments;
using scenario::diagnostics;
using scenario::Events;
using scenario::Lines;
using support::audit;
using support::clear;
using support::i;
using support::l;
using support::L;
using support::null;
using support::problem;
using support::s;
using support::u;

constexpr const char* kLease = "kel.user.dhclient.lease.offered.noexpiry";
constexpr const char* kLogDirectory = "kel.user.lsyslogd.storage.logdir.invalid";
constexpr const char* kLocked = "kel.user.account.locked";

class UserLevelScenario : public testing::Test {
 protected:
  Events observed(const char* id, const Arguments& arguments = {}) {
    driver.observe(id, arguments);
    return driver.events();
  }
  Events lease(const std::string& server) { return observed(kLease, {s(server)}); }
  Events invalid(const std::string& configured, const std::string& fallback) {
    return observed(kLogDirectory, {s(configured), s(fallback)});
  }
  static Events leaseWithoutExpiry(const std::string& server) {
    return {problem("orn.problem.dhclient.lease.offered.noexpiry",
                    "No expiry time on offered DHCP lease from " + server + ".")};
  }
  static Events invalidDirectory(const std::string& configured, const std::string& fallback) {
    return {problem("orn.problem.lsyslogd.storage.logdir.invalid", "The configured log directory " + configured +
                                                                       " cannot be used.  The default directory " +
                                                                       fallback + " will be used instead.")};
  }
  static Events locked(const std::string& user, int seconds, int attempts) {
    return {audit("orn.audit.account.locked", "Remote access for ORNi local user account '" + user +
                                                  "' has been locked for " + std::to_string(seconds) +
                                                  " seconds after " + std::to_string(attempts) +
                                                  " failed login attempts.")};
  }

  support::Scenario scenario;
  support::Driver driver{scenario, keld::kUserLevelCorrelator};
};

TEST_F(UserLevelScenario, itWatchesItsOneGroupWith94Handlers) {
  EXPECT_STREQ(keld::kUserLevelCorrelator.nameWord, "UserLevel");
  ASSERT_EQ(keld::kUserLevelCorrelator.groups.size(), 1U);
  EXPECT_STREQ(keld::kUserLevelCorrelator.groups[0], "user");
  EXPECT_TRUE(keld::kUserLevelCorrelator.identifiers.empty());
  EXPECT_EQ(keld::kUserLevelCorrelator.make(scenario.services)->handlers().size(), 94U);
}

TEST_F(UserLevelScenario, aDhcpServerIsReportedAgainAfter1201Seconds) {
  EXPECT_EQ(lease("10.0.0.1"), leaseWithoutExpiry("10.0.0.1"));
  driver.pass(1200s);
  EXPECT_EQ(lease("10.0.0.1"), Events{});
  driver.pass(1s);
  EXPECT_EQ(lease("10.0.0.1"), leaseWithoutExpiry("10.0.0.1"));
  driver.pass(1200s);
  EXPECT_EQ(lease("10.0.0.1"), Events{});
  driver.pass(1s);
  EXPECT_EQ(lease("10.0.0.1"), leaseWithoutExpiry("10.0.0.1"));
  EXPECT_EQ(diagnostics(scenario), Lines{});
}

TEST_F(UserLevelScenario, serversWithLongNamesAreToldApartByTheirEnds) {
  const std::string stem(60'000, 'a');
  EXPECT_EQ(lease(stem + "1"), leaseWithoutExpiry(stem + "1"));
  EXPECT_EQ(lease(stem + "2"), leaseWithoutExpiry(stem + "2"));
  EXPECT_EQ(lease(stem), leaseWithoutExpiry(stem));
  EXPECT_EQ(lease(stem + "1"), Events{});
  EXPECT_EQ(lease(stem + "2"), Events{});
}

TEST_F(UserLevelScenario, oneDhcpServerDoesNotHoldBackAnother) {
  EXPECT_EQ(lease("10.0.1.1"), leaseWithoutExpiry("10.0.1.1"));
  EXPECT_EQ(lease("10.0.1.2"), leaseWithoutExpiry("10.0.1.2"));
  EXPECT_EQ(lease("10.0.1.10"), leaseWithoutExpiry("10.0.1.10"));
  driver.pass(600s);
  EXPECT_EQ(lease("10.0.1.3"), leaseWithoutExpiry("10.0.1.3"));
  driver.pass(601s);
  EXPECT_EQ(lease("10.0.1.1"), leaseWithoutExpiry("10.0.1.1"));
  EXPECT_EQ(lease("10.0.1.3"), Events{});
}

TEST_F(UserLevelScenario, aLeaseThatWasHeldBackDoesNotExtendTheHoldOff) {
  EXPECT_EQ(lease("10.0.2.1"), leaseWithoutExpiry("10.0.2.1"));
  for (int n = 0; n < 12; ++n) {
    driver.pass(100s);
    EXPECT_EQ(lease("10.0.2.1"), Events{});
  }
  driver.pass(1s);
  EXPECT_EQ(lease("10.0.2.1"), leaseWithoutExpiry("10.0.2.1"));
}

TEST_F(UserLevelScenario, aClockSetBackHoldsALeaseBackUntilItHasCaughtUp) {
  EXPECT_EQ(lease("10.0.3.1"), leaseWithoutExpiry("10.0.3.1"));
  scenario.clock.correct(scenario.clock.wall() - 24h);
  EXPECT_EQ(lease("10.0.3.1"), Events{});
  EXPECT_EQ(lease("10.0.3.2"), leaseWithoutExpiry("10.0.3.2"));
  driver.pass(24h + 1200s);
  EXPECT_EQ(lease("10.0.3.1"), Events{});
  driver.pass(1s);
  EXPECT_EQ(lease("10.0.3.1"), leaseWithoutExpiry("10.0.3.1"));
}

TEST_F(UserLevelScenario, aClockSetForwardEndsTheHoldOff) {
  EXPECT_EQ(lease("10.0.4.1"), leaseWithoutExpiry("10.0.4.1"));
  scenario.clock.correct(scenario.clock.wall() + 24h);
  EXPECT_EQ(lease("10.0.4.1"), leaseWithoutExpiry("10.0.4.1"));
}

TEST_F(UserLevelScenario, onAHostWithoutATimeTheFirstLeaseWaitsLikeAny) {
  scenario.clock.correct(WallTime(1200s));
  EXPECT_EQ(lease("10.0.5.1"), Events{});
  driver.pass(1s);
  EXPECT_EQ(lease("10.0.5.1"), leaseWithoutExpiry("10.0.5.1"));
}

TEST_F(UserLevelScenario, aLeaseThatCannotBeReadHoldsNothingBack) {
  scenario::expectUnreadable(scenario, driver, {{kLease, {}, {}}, {kLease, {i(1)}, {}}, {kLease, {i(1), s("x")}, {}}});
  EXPECT_EQ(lease("x"), leaseWithoutExpiry("x"));
  EXPECT_EQ(observed(kLease, {null()}), leaseWithoutExpiry("(null)"));
  EXPECT_EQ(lease("y"), leaseWithoutExpiry("y"));
}

TEST_F(UserLevelScenario, aPairOfLogDirectoriesIsReportedAgainAfter91Seconds) {
  EXPECT_EQ(invalid("/vol/1", "/scratch/1"), invalidDirectory("/vol/1", "/scratch/1"));
  driver.pass(90s);
  EXPECT_EQ(invalid("/vol/1", "/scratch/1"), Events{});
  driver.pass(1s);
  EXPECT_EQ(invalid("/vol/1", "/scratch/1"), invalidDirectory("/vol/1", "/scratch/1"));
  driver.pass(90s);
  EXPECT_EQ(invalid("/vol/1", "/scratch/1"), Events{});
  driver.pass(1s);
  EXPECT_EQ(invalid("/vol/1", "/scratch/1"), invalidDirectory("/vol/1", "/scratch/1"));
  EXPECT_EQ(diagnostics(scenario), Lines{});
}

TEST_F(UserLevelScenario, pairsThatDifferInOneDirectoryAreHeldBackApart) {
  EXPECT_EQ(invalid("/vol/2", "/scratch/2"), invalidDirectory("/vol/2", "/scratch/2"));
  EXPECT_EQ(invalid("/vol/2", "/scratch/3"), invalidDirectory("/vol/2", "/scratch/3"));
  EXPECT_EQ(invalid("/vol/3", "/scratch/2"), invalidDirectory("/vol/3", "/scratch/2"));
  EXPECT_EQ(invalid("/scratch/2", "/vol/2"), invalidDirectory("/scratch/2", "/vol/2"));
  EXPECT_EQ(invalid("/vol/2", "/scratch/2"), Events{});
  EXPECT_EQ(invalid("/vol/2", "/scratch/3"), Events{});
}

TEST_F(UserLevelScenario, pairsWhoseTextsRunTogetherAlikeAreDifferentPairs) {
  EXPECT_EQ(invalid("a", "bc"), invalidDirectory("a", "bc"));
  EXPECT_EQ(invalid("ab", "c"), invalidDirectory("ab", "c"));
  EXPECT_EQ(invalid("abc", ""), invalidDirectory("abc", ""));
  EXPECT_EQ(invalid("", "abc"), invalidDirectory("", "abc"));
  EXPECT_EQ(invalid("a b", "c"), invalidDirectory("a b", "c"));
  EXPECT_EQ(invalid("a", "b c"), invalidDirectory("a", "b c"));
  EXPECT_EQ(invalid("a,b", "c"), invalidDirectory("a,b", "c"));
  EXPECT_EQ(invalid("a", "b,c"), invalidDirectory("a", "b,c"));
  EXPECT_EQ(invalid("a\n", "b"), invalidDirectory("a\n", "b"));
  EXPECT_EQ(invalid("a", "\nb"), invalidDirectory("a", "\nb"));
  EXPECT_EQ(invalid("a", "bc"), Events{});
  EXPECT_EQ(invalid("ab", "c"), Events{});
}

TEST_F(UserLevelScenario, aLogDirectoryThatWasHeldBackDoesNotExtendTheHoldOff) {
  EXPECT_EQ(invalid("/vol/4", "/scratch/4"), invalidDirectory("/vol/4", "/scratch/4"));
  for (int n = 0; n < 9; ++n) {
    driver.pass(10s);
    EXPECT_EQ(invalid("/vol/4", "/scratch/4"), Events{});
  }
  driver.pass(1s);
  EXPECT_EQ(invalid("/vol/4", "/scratch/4"), invalidDirectory("/vol/4", "/scratch/4"));
}

TEST_F(UserLevelScenario, aClockSetBackHoldsAPairOfLogDirectoriesBack) {
  EXPECT_EQ(invalid("/vol/5", "/scratch/5"), invalidDirectory("/vol/5", "/scratch/5"));
  scenario.clock.correct(scenario.clock.wall() - 1h);
  EXPECT_EQ(invalid("/vol/5", "/scratch/5"), Events{});
  driver.pass(1h + 90s);
  EXPECT_EQ(invalid("/vol/5", "/scratch/5"), Events{});
  driver.pass(1s);
  EXPECT_EQ(invalid("/vol/5", "/scratch/5"), invalidDirectory("/vol/5", "/scratch/5"));
}

TEST_F(UserLevelScenario, logDirectoriesThatCannotBeReadHoldNothingBack) {
  scenario::expectUnreadable(scenario, driver,
                             {{kLogDirectory, {}, {}},
                              {kLogDirectory, {s("/vol/6")}, {}},
                              {kLogDirectory, {s("/vol/6"), i(1)}, {}},
                              {kLogDirectory, {i(1), s("/scratch/6")}, {}}});
  EXPECT_EQ(invalid("/vol/6", "/scratch/6"), invalidDirectory("/vol/6", "/scratch/6"));
  EXPECT_EQ(invalid("/vol/6", ""), invalidDirectory("/vol/6", ""));
  EXPECT_EQ(invalid("", "/scratch/6"), invalidDirectory("", "/scratch/6"));
}

TEST_F(UserLevelScenario, nullLogDirectoriesAreShownAsSuch) {
  EXPECT_EQ(observed(kLogDirectory, {null(), s("/scratch/7")}), invalidDirectory("(null)", "/scratch/7"));
  EXPECT_EQ(observed(kLogDirectory, {s("/vol/7"), null()}), invalidDirectory("/vol/7", "(null)"));
  EXPECT_EQ(invalid("/vol/7", "/scratch/7"), invalidDirectory("/vol/7", "/scratch/7"));
}

TEST_F(UserLevelScenario, leasesAndLogDirectoriesAreHeldBackApart) {
  EXPECT_EQ(lease("same"), leaseWithoutExpiry("same"));
  EXPECT_EQ(invalid("same", "same"), invalidDirectory("same", "same"));
  driver.pass(91s);
  EXPECT_EQ(lease("same"), Events{});
  EXPECT_EQ(invalid("same", "same"), invalidDirectory("same", "same"));
}

TEST_F(UserLevelScenario, allOtherRowsKeepNoState) {
  scenario::expectRows(
      scenario, driver,
      {{"kel.user.host.boot", {}, audit("orn.audit.host.boot", "Host has booted.")},
       {"kel.user.shell.enabled", {}, audit("orn.audit.shell.enabled", "The ORN command line shell has been enabled.")},
       {"kel.user.coredump.configured",
        {},
        clear("orn.clear.coredump.configured",
              "A qkcore disk partition is available and/or a network coredump server has been configured.  Host core "
              "dumps will be saved.")},
       {"kel.user.coredump.configured2",
        {},
        clear("orn.clear.coredump.configured2",
              "At least one coredump target has been configured. Host core dumps will be saved.")},
       {"kel.user.panl.network.restart",
        {s("mgmt0")},
        audit("orn.audit.panl.network.restart",
              "A management interface mgmt0 has been restarted. Please consult ORNi Embedded and Centrix Server Setup "
              "Guide or follow the Ask Korvel link for more information.")},
       {"kel.user.metadatastore.healthy",
        {},
        problem("orn.problem.metadatastore.healthy", "The metadata store is healthy.")}});
}

TEST_F(UserLevelScenario, rowsWithoutAPlaceholderReadNothing) {
  for (const Arguments& arguments : {Arguments{null()}, Arguments{s("%s%n"), i(1)}, Arguments{i(-1)}}) {
    EXPECT_EQ(observed("kel.user.host.boot", arguments), Events{audit("orn.audit.host.boot", "Host has booted.")});
  }
}

TEST_F(UserLevelScenario, argumentsFillTheTextInTheirOrder) {
  EXPECT_EQ(observed("kel.user.iorm.badversion", {s("host1"), s("ds1"), i(3), i(5)}),
            Events{problem("orn.problem.iorm.badversion",
                           "Host host1 cannot participate in Storage I/O Control(SIOC) on datastore ds1 because the "
                           "version number 3 of the SIOC agent on this host is incompatible with the version number 5 "
                           "of its counterparts on other hosts connected to this datastore.")});
  EXPECT_EQ(observed("kel.user.ntpd.clock.correction.error", {i(1200), i(-7)}),
            Events{problem("orn.problem.ntpd.clock.correction.error",
                           "NTP daemon stopped.  Time correction 1200 > -7 seconds.   Manually set the time and "
                           "restart ntpd.")});
  EXPECT_EQ(observed("kel.user.test.test2", {i(-2), s("two")}),
            Events{problem("orn.problem.test.test2", "Test with both -2 and two.")});
  EXPECT_EQ(observed("kel.user.ssh.session.opened", {s("root"), s("10.1.1.1")}),
            Events{audit("orn.audit.ssh.session.opened", "SSH session was opened for 'root@10.1.1.1'.")});
}

TEST_F(UserLevelScenario, conversionsInArgumentsAreOnlyText) {
  EXPECT_EQ(observed("kel.user.lsyslogd.remote.failure", {s("100%s \"x\"%n")}),
            Events{problem("orn.problem.lsyslogd.remote.failure",
                           "The host \"100%s \"x\"%n\" cannot be reached; logs are no longer being sent to it.")});
}

TEST_F(UserLevelScenario, anyArgumentThatCannotBeReadSuppressesTheEventSilently) {
  scenario::expectUnreadable(scenario, driver,
                             {{"kel.user.test.test1s", {}, {}},
                              {"kel.user.test.test1s", {i(1)}, {}},
                              {"kel.user.test.test1d", {s("1")}, {}},
                              {"kel.user.test.test2", {i(1)}, {}},
                              {"kel.user.test.test2", {s("two"), i(1)}, {}},
                              {"kel.user.driver.abnormal", {s("d"), s("bad")}, {}},
                              {"kel.user.driver.abnormal", {s("d"), s("bad"), s("1")}, {}},
                              {"kel.user.iorm.badversion", {s("h"), s("d"), i(1)}, {}},
                              {"kel.user.iorm.badversion", {s("h"), s("d"), i(1), s("2")}, {}},
                              {"kel.user.ntpd.clock.correction.error", {i(1)}, {}},
                              {"kel.user.host.reboot.reason.management", {s("u"), s("s"), s("t")}, {}},
                              {"kel.user.host.reboot.reason.management", {s("u"), s("s"), i(1), s("r")}, {}}});
}

TEST_F(UserLevelScenario, sizesAreReadInFullAndNeverNegative) {
  struct Case {
    KelEmit::Argument size;
    const char* shown;
  };
  for (const Case& size : {Case{u(4294967295U), "4294967295"}, Case{i(-1), "4294967295"},
                           Case{i(std::numeric_limits<std::int32_t>::min()), "2147483648"}, Case{i(2500), "2500"},
                           Case{l(-1), "18446744073709551615"}, Case{L(9223372036854775808ULL), "9223372036854775808"},
                           Case{l(4294967296), "4294967296"}}) {
    const std::string shown = size.shown;
    EXPECT_EQ(observed("kel.user.coredump.extraction.failed.nospace", {size.size}),
              Events{problem("orn.problem.coredump.extraction.failed.nospace",
                             "No coredump has been extracted. The target partition has insufficient amount of free "
                             "space. At least " +
                                 shown + " MIB is required.")});
    EXPECT_EQ(observed("kel.user.coredump.capacity.insufficient", {size.size}),
              Events{problem("orn.problem.coredump.capacity.insufficient",
                             "The storage capacity of the coredump targets is insufficient to capture a complete "
                             "coredump. Recommended coredump capacity is " +
                                 shown + " MiB.")});
    EXPECT_EQ(observed("kel.user.scratch.partition.size.small", {s("part 1"), size.size}),
              Events{problem("orn.problem.scratch.partition.size.small",
                             "Size of scratch partition part 1 is too small. Recommended scratch partition size is " +
                                 shown + " MiB.")});
    EXPECT_EQ(observed("kel.user.scratch.partition.unconfigured", {size.size}),
              Events{problem("orn.problem.scratch.partition.unconfigured",
                             "No scratch partition has been configured. Recommended scratch partition size is " +
                                 shown + " MiB.")});
  }
}

TEST_F(UserLevelScenario, anUnknownObservationIsIgnoredSilently) {
  for (const char* id : {"kel.user.unheard.of", "kel.user.external.warning", "kel.user.external.error",
                         "kel.user.external.info", "kel.user.host.boot2", "kel.user.HOST.boot", ""}) {
    EXPECT_EQ(observed(id, {s("a"), s("b"), s("c")}), Events{}) << id;
    EXPECT_EQ(observed(id, {s("a"), s("b"), s("c")}), Events{}) << id;
  }
  EXPECT_EQ(scenario.log.take(), Lines{});
}

TEST_F(UserLevelScenario, aLockedAccountIsAuditedAndPutOnTheAuditTrail) {
  const support::ModelHost host;
  EXPECT_EQ(observed(kLocked, {s("alice"), i(900), i(5)}), locked("alice", 900, 5));
  EXPECT_EQ(scenario::auditTrail(host), (Lines{R"("record":"account.locked","user":"alice","text":"","flag":true)"}));
  EXPECT_EQ(observed(kLocked, {s("bob"), i(60), i(3)}), locked("bob", 60, 3));
  EXPECT_EQ(scenario::auditTrail(host), (Lines{R"("record":"account.locked","user":"alice","text":"","flag":true)",
                                               R"("record":"account.locked","user":"bob","text":"","flag":true)"}));
  EXPECT_EQ(diagnostics(scenario), Lines{});
}

TEST_F(UserLevelScenario, aLockedAccountIsPostedBeforeItIsPutOnTheAuditTrail) {
  const support::ModelHost host;
  std::size_t before = 99;
  scenario::WatchedPost post([&] { before = scenario::auditTrail(host).size(); });
  scenario::observeWith(scenario, post, kLocked, {s("alice"), i(900), i(5)});
  EXPECT_EQ(post.count(), 1);
  EXPECT_EQ(before, 0U);
  EXPECT_EQ(scenario::auditTrail(host).size(), 1U);
}

TEST_F(UserLevelScenario, aLockedAccountThatCannotBeReadLeavesNoTrace) {
  const support::ModelHost host;
  scenario::expectUnreadable(scenario, driver,
                             {{kLocked, {}, {}},
                              {kLocked, {s("alice")}, {}},
                              {kLocked, {s("alice"), i(900)}, {}},
                              {kLocked, {s("alice"), i(900), s("5")}, {}},
                              {kLocked, {s("alice"), s("900"), i(5)}, {}},
                              {kLocked, {i(1), i(900), i(5)}, {}}});
  EXPECT_FALSE(std::filesystem::exists(scenario::auditPath(host)));
}

TEST_F(UserLevelScenario, aLockedAccountIsPostedEvenWhereTheAuditTrailCannotBeWritten) {
  const support::ModelHost host;
  std::filesystem::remove_all(host.directory() + "/state");
  std::ofstream(host.directory() + "/state") << "no directory";
  EXPECT_EQ(observed(kLocked, {s("alice"), i(900), i(5)}), locked("alice", 900, 5));
  EXPECT_EQ(observed(kLocked, {s("bob"), i(900), i(5)}), locked("bob", 900, 5));
}

TEST_F(UserLevelScenario, aLockedAccountWithoutANameIsShownAsSuch) {
  const support::ModelHost host;
  EXPECT_EQ(observed(kLocked, {null(), i(900), i(5)}), locked("(null)", 900, 5));
  EXPECT_EQ(scenario::auditTrail(host), Lines{R"-("record":"account.locked","user":"(null)","text":"","flag":true)-"});
}

TEST_F(UserLevelScenario, noOtherRowIsPutOnTheAuditTrail) {
  const support::ModelHost host;
  observed("kel.user.account.loginfailures", {s("alice")});
  observed("kel.user.ssh.session.failed", {s("alice"), s("10.1.1.1")});
  observed("kel.user.panl.login.failed", {s("alice")});
  observed("kel.user.lockdownmode.enabled");
  EXPECT_EQ(driver.events(), Events{});
  EXPECT_FALSE(std::filesystem::exists(scenario::auditPath(host)));
}

}  // namespace
