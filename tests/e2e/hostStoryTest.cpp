// Corrected clocks, crashes and full volumes over the time that matters to them, and system swap.
#include <filesystem>

#include "story.h"

namespace e2e {
namespace {

using support::i, support::s;
using Actions = std::vector<std::string>;

class ClockHoldOff : public ShiftedStory {
 protected:
  void expectClock(const std::string& key) { nextEvent("orn.problem.clock." + key); }
  void tell(const std::string& key, const Arguments& arguments = {}) { observe("kel.clock." + key, arguments); }
  /// Lets the correlator finish and then moves the clock.
  void passTo(int seconds) {
    const std::string unknown = "kel.clock.unheard" + std::to_string(++unknown_);
    observe(unknown);
    log().waitFor("No system clock correlator for " + unknown);
    setTime(seconds);
  }

 private:
  int unknown_ = 0;
};

TEST_F(ClockHoldOff, AnIdentifierIsReportedAgainAfterAnHourAndNoSooner) {
  beginAtZero();
  tell("correction.adjtime.sync");
  expectClock("correction.adjtime.sync");
  passTo(3599);
  tell("correction.adjtime.sync");
  tell("state.reset");
  expectClock("state.reset");
  passTo(3600);
  tell("correction.adjtime.sync");
  expectClock("correction.adjtime.sync");
  passTo(7198);
  tell("state.reset");
  passTo(7199);
  tell("state.reset");
  expectClock("state.reset");
  end();
}

TEST_F(ClockHoldOff, ALossOfSynchronisationLetsTheNextGainBeToldUnlessItCannotBeRead) {
  beginAtZero();
  tell("correction.adjtime.sync");
  expectClock("correction.adjtime.sync");
  passTo(10);
  tell("correction.step.unsync", {i(5)});
  passTo(20);
  tell("correction.adjtime.sync");
  tell("correction.step.unsync", {i(5), i(6)});
  expectClock("correction.step.unsync");
  passTo(30);
  tell("correction.adjtime.sync");
  expectClock("correction.adjtime.sync");
  end();
}

TEST_F(ClockHoldOff, AClockThatIsSteppedBackKeepsAnIdentifierSilentUntilItsHourHasCome) {
  beginAtZero();
  tell("correction.adjtime.sync");
  expectClock("correction.adjtime.sync");
  passTo(-86400);
  tell("correction.adjtime.sync");
  tell("state.reset");
  expectClock("state.reset");
  passTo(3599);
  tell("correction.adjtime.sync");
  passTo(3600);
  tell("correction.adjtime.sync");
  expectClock("correction.adjtime.sync");
  end();
}

class Crashes : public ShiftedStory {
 protected:
  void crash(const std::string& name, const std::string& core) {
    observe("kel.uw.core.dumped", {s(name), i(0), s(core)});
  }
  void passTo(int seconds) {
    observe("kel.uw.secpolicy.alldomains.level.changed", {s("permissive"), i(0)});
    nextEvent("orn.audit.uw.secpolicy.alldomains.level.changed");
    setTime(seconds);
  }
  void expectCrash(int count, const std::string& core) {
    expectEvent("UserWorldCorrelator", "orn.problem.application.core.dumped",
                "An application (backupd) running on ORNi host has crashed (" + std::to_string(count) +
                    " time(s) so far). A core file may have been created at " + core + ".");
  }
};

TEST_F(Crashes, AnApplicationIsReportedAtItsFirstCrashAndThenOnceInTenHoursWithItsCount) {
  beginAtZero();
  crash("backupd", "/cores/0");
  expectCrash(1, "/cores/0");
  passTo(100);
  crash("backupd", "/cores/1");
  passTo(35999);
  observe("kel.uw.core.dumpFailed", {s("backupd"), i(0), s("")});
  expectEvent(
      "UserWorldCorrelator", "orn.problem.application.core.dumpFailed",
      "An application (backupd) running on ORNi host has crashed (1 time(s) so far), but core dump creation failed.");
  passTo(36100);
  crash("backupd", "/cores/2");
  expectCrash(3, "/cores/2");
  passTo(36100 + 35999);
  crash("backupd", "/cores/3");
  passTo(36100 + 36000);
  crash("backupd", "/cores/4");
  expectCrash(5, "/cores/4");
  end();
}

class AgentCrash : public Story {};

TEST_F(AgentCrash, ACrashOfTheAgentWaitsInTheQueueAlthoughSomebodyListens) {
  begin();
  observe("kel.uw.core.dumped", {s("hagd-worker"), i(0), s("/cores/hagd"), s("key-1")});
  const std::string event = "orn.problem.hagd.core.dumped.encrypted";
  log().waitFor("An event (" + event + ") could not be sent immediately to hagd; queueing for retry.");
  const TraceLine out = daemon().trace().waitFor("OUT", event);
  log().waitFor(observationLine("UserWorldCorrelator", std::stoull(out.stamp), event,
                                "hagd-worker crashed (1 time(s) so far) and an encrypted core file using keyId key-1 "
                                "may have been created at /cores/hagd. This may have caused connections to the host to "
                                "be dropped."));
  // An event that is sent at once overtakes it.
  observe("kel.uw.core.dumped", {s("backupd"), i(0), s("/cores/backupd")});
  nextEvent("orn.problem.application.core.dumped");
  end();
}

TEST_F(AgentCrash, ACrashOfTheAgentIsDeliveredByTheFirstRetry) {
  if (const std::string why = FakeTime::missing(); !why.empty()) GTEST_SKIP() << why;
  EventReceiver agent(workspace().eventSocket());
  Daemon fast(workspace());
  FakeTime::runFast(fast, 60);
  fast.startAndServe();
  Emitter::toContext(workspace()).send("kel.uw.core.dumped", {s("cagt-worker"), i(0), s("/cores/cagt")});
  log().waitFor("Successfully sent event (orn.problem.cagt.core.dumped) after 1 failure.");
  EXPECT_EQ(agent.waitForCount(1)[0].name, "orn.problem.cagt.core.dumped");
  EXPECT_TRUE(fast.terminate().with(0));
}

class QuietPeriod : public ShiftedStory {
 protected:
  /// What the volume's name is compared with.
  static std::string scratch() {
    std::error_code none;
    const std::filesystem::path target = std::filesystem::read_symlink("/scratch", none);
    return none ? "scratch" : target.filename().string();
  }
  void full(const std::string& uuid) { observe("kel.vfat.filesystem.full", {s("bootbank"), s(uuid)}); }
  void expectFull(const std::string& uuid) {
    expectEvent("VfatCorrelator", "orn.problem.vfat.filesystem.full.other",
                "The VFAT filesystem bootbank (UUID " + uuid + ") is full.");
  }
  /// Lets the correlator finish and then moves the clock.
  void passTo(int seconds) {
    const std::string marker = "marker" + std::to_string(++markers_);
    full(marker);
    expectFull(marker);
    setTime(seconds);
  }

 private:
  int markers_ = 0;
};

TEST_F(QuietPeriod, AVolumeThatIsFullAllTheTimeIsReportedOnce) {
  beginAtZero();
  full("1234-5678");
  expectFull("1234-5678");
  for (int seconds = 200; seconds <= 3600; seconds += 200) {
    passTo(seconds);
    full("1234-5678");
  }
  passTo(3900);
  full("1234-5678");
  passTo(4201);
  full("1234-5678");
  expectFull("1234-5678");
  end();
}

TEST_F(QuietPeriod, TheScratchPartitionHasAMessageOfItsOwn) {
  beginAtZero();
  full(scratch());
  expectEvent("VfatCorrelator", "orn.problem.vfat.filesystem.full.scratch",
              "The host's scratch partition, which is the VFAT filesystem bootbank (UUID " + scratch() + "), is full.");
  full(scratch() + "2");
  expectFull(scratch() + "2");
  end();
}

TEST_F(QuietPeriod, AFailureOfTheRootFileSystemIsReportedAgainAfterMoreThanFiveMinutesOfQuiet) {
  beginAtZero();
  const auto writable = [&](const std::string& file) {
    observe("kel.memfs.ramdisk.full", {s(file), s("var")});
    nextEvent("orn.problem.memfs.ramdisk.full");
  };
  observe("kel.memfs.one");
  nextEvent("orn.problem.memfs.failure");
  setTime(300);
  observe("kel.memfs.two");
  writable("/a");
  setTime(600);
  observe("kel.memfs.one");
  writable("/b");
  setTime(901);
  observe("kel.memfs.three");
  expectEvent("MemfsCorrelator", "orn.problem.memfs.failure", "An operation on the root filesystem has failed.");
  end();
}

class SystemSwap : public Story {};

TEST_F(SystemSwap, ARemovalPlacesSwapAnewAndSaysSo) {
  begin();
  const std::string path = "/cvfs/volumes/5f/sys.swp";
  observe("kel.swap.systemSwap.isPDL.removed", {s(path)});
  log().waitFor("System swap at path " + path +
                " was affected by the PDL of its datastore and was removed. System swap has been reconfigured.");
  EXPECT_EQ(workspace().hostActions(), Actions{R"({"action":"swap.reconfigure"})"});
  end();
}

TEST_F(SystemSwap, AFailureIsAnEventAndItsReasonALogLine) {
  begin(
      R"({"failures": {"swap.reconfigure": "no room: 100% full"}, "datastorePaths": {"/cvfs/volumes/5f/sys.swp": "store1: sys.swp"}})");
  observe("kel.swap.systemSwap.isPDL.removed", {s("/cvfs/volumes/5f/sys.swp")});
  expectEvent(
      "SWAPCorrelator", "orn.problem.swap.systemSwap.isPDL.removed.reconfig.failure.2",
      "System swap on store1: sys.swp was affected by PDL. It was removed but the subsequent reconfiguration failed.");
  log().waitFor("no room: 100% full");
  EXPECT_TRUE(workspace().hostActions().empty());
  end();
}

}  // namespace
}  // namespace e2e
