#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "keldVfatCorrelator.h"
#include "scenarioTools.h"
#include "socketReceiver.h"

namespace {

using namespace std::chrono_literals;
using scenario::diagnostics;
using scenario::Events;
using scenario::Lines;
using support::i;
using support::null;
using support::problem;
using support::s;

class MemfsScenario : public testing::Test {
 protected:
  Events full(const std::string& ramdisk = "tmp") {
    driver.observe("kel.memfs.ramdisk.full", {s(ramdisk), s("/tmp/f")});
    return driver.events();
  }
  Events inodesFull(const std::string& key = "/tmp/f") {
    driver.observe("kel.memfs.ramdisk.inodetable.full", {s(key), s("tmp"), s("app"), s("unused")});
    return driver.events();
  }
  Events failure(const std::string& id = "kel.memfs.unheard.of") {
    driver.observe(id);
    return driver.events();
  }
  static support::PostedEvent failed() {
    return problem("orn.problem.memfs.failure", "An operation on the root filesystem has failed.");
  }

  support::Scenario scenario;
  support::Driver driver{scenario, keld::kMemfsCorrelator};
};

TEST_F(MemfsScenario, aFullRamdiskIsNamedByTheSecondValueAndTheFileByTheFirst) {
  driver.observe("kel.memfs.ramdisk.full", {s("one"), s("two")});
  EXPECT_EQ(driver.events(), Events{problem("orn.problem.memfs.ramdisk.full",
                                            "The ramdisk 'two' is full.  As a result, the file one could not be "
                                            "written.")});
  EXPECT_EQ(diagnostics(scenario), Lines{});
}

TEST_F(MemfsScenario, aFullFileTableNamesRamdiskFileAndApplicationAndNotTheFourthValue) {
  driver.observe("kel.memfs.ramdisk.inodetable.full", {s("one"), s("two"), s("three"), s("four")});
  EXPECT_EQ(driver.events(), Events{problem("orn.problem.memfs.ramdisk.inodetable.full",
                                            "The file table of the ramdisk 'two' is full.  As a result, the file one "
                                            "could not be created by the application 'three'.")});
}

TEST_F(MemfsScenario, aGapOfMoreThan300SecondsIsReportedAgain) {
  EXPECT_EQ(full().size(), 1U);
  driver.pass(300s);
  EXPECT_EQ(full().size(), 0U);
  driver.pass(301s);
  EXPECT_EQ(full().size(), 1U);
  EXPECT_EQ(inodesFull().size(), 1U);
  driver.pass(300s);
  EXPECT_EQ(inodesFull().size(), 0U);
  driver.pass(301s);
  EXPECT_EQ(inodesFull().size(), 1U);
}

TEST_F(MemfsScenario, theQuietPeriodIsRefreshedThoughNothingIsPosted) {
  EXPECT_EQ(full().size() + inodesFull().size() + failure().size(), 3U);
  for (int n = 0; n < 20; ++n) {
    driver.pass(200s);
    EXPECT_EQ(full().size() + inodesFull().size() + failure().size(), 0U) << n;
  }
  driver.pass(301s);
  EXPECT_EQ(full().size() + inodesFull().size() + failure().size(), 3U);
}

TEST_F(MemfsScenario, keysAreTheFirstValuesAndHeldOffApart) {
  driver.observe("kel.memfs.ramdisk.full", {s("a"), s("tmp")});
  EXPECT_EQ(driver.events().size(), 1U);
  driver.observe("kel.memfs.ramdisk.full", {s("b"), s("tmp")});
  EXPECT_EQ(driver.events().size(), 1U);
  driver.observe("kel.memfs.ramdisk.full", {s("a"), s("var")});
  EXPECT_EQ(driver.events().size(), 0U);
  EXPECT_EQ(inodesFull("c").size(), 1U);
  EXPECT_EQ(inodesFull("d").size(), 1U);
  EXPECT_EQ(inodesFull("c").size(), 0U);
}

TEST_F(MemfsScenario, theTwoRamdiskRowsAreHeldOffApart) {
  EXPECT_EQ(full("same").size(), 1U);
  EXPECT_EQ(inodesFull("same").size(), 1U);
}

TEST_F(MemfsScenario, everyUnknownObservationIsTheGenericFailureOnOneQuietPeriod) {
  EXPECT_EQ(failure("kel.memfs.one"), Events{failed()});
  EXPECT_EQ(failure("kel.memfs.two"), Events{});
  driver.pass(300s);
  EXPECT_EQ(failure("kel.memfs.three"), Events{});
  driver.pass(301s);
  EXPECT_EQ(failure("kel.memfs.one"), Events{failed()});
  EXPECT_EQ(full().size(), 1U);  // on its own
}

TEST_F(MemfsScenario, anUnknownObservationIsLoggedWhetherItIsPostedOrNot) {
  for (int n = 0; n < 2; ++n) {
    driver.observe("kel.memfs.unheard.of", {s("x")});
    const Lines lines = scenario.log.take();
    ASSERT_EQ(lines.size(), 1U) << n;
    EXPECT_TRUE(lines[0].ends_with("us: [kel.memfs.unheard.of] kel.memfs.unheard.of\n")) << lines[0];
  }
}

TEST_F(MemfsScenario, aReadOnlyFileIsIgnoredAndDisturbsNoQuietPeriod) {
  EXPECT_EQ(failure("kel.memfs.tardisk.readonlyfile"), Events{});
  EXPECT_EQ(failure(), Events{failed()});
  driver.pass(200s);
  EXPECT_EQ(failure("kel.memfs.tardisk.readonlyfile"), Events{});
  driver.pass(101s);
  EXPECT_EQ(failure(), Events{failed()});
}

TEST_F(MemfsScenario, whatCannotBeReadIsDroppedSilentlyAndHoldsNothingOff) {
  scenario::expectUnreadable(scenario, driver,
                             {{"kel.memfs.ramdisk.full", {s("tmp")}, {}},
                              {"kel.memfs.ramdisk.full", {s("tmp"), i(1)}, {}},
                              {"kel.memfs.ramdisk.inodetable.full", {s("/tmp/f"), s("2"), s("3")}, {}},
                              {"kel.memfs.ramdisk.inodetable.full", {s("/tmp/f"), s("2"), s("3"), i(4)}, {}}});
  EXPECT_EQ(full().size(), 1U);
  EXPECT_EQ(inodesFull().size(), 1U);
}

TEST_F(MemfsScenario, nullTextsHarmNothing) {
  driver.observe("kel.memfs.ramdisk.full", {null(), null()});
  driver.observe("kel.memfs.ramdisk.inodetable.full", {null(), null(), null(), null()});
  driver.events();
  EXPECT_EQ(full().size() + inodesFull().size(), 2U);
}

TEST_F(MemfsScenario, aClockSetBackIsSilentOnceAndStartsANewPeriod) {
  EXPECT_EQ(full().size() + failure().size(), 2U);
  scenario.clock.correct(scenario.clock.wall() - 24h);
  EXPECT_EQ(full().size() + failure().size(), 0U);
  driver.pass(301s);
  EXPECT_EQ(full().size() + failure().size(), 2U);
}

class VfatScenario : public testing::Test {
 protected:
  Events full(const std::string& uuid, const std::string& name = "vol") {
    driver.observe("kel.vfat.filesystem.full", {s(name), s(uuid)});
    return driver.events();
  }
  void pointScratchTo(const std::string& target) const {
    std::filesystem::remove(link());
    std::filesystem::create_symlink(target, link());
  }
  [[nodiscard]] std::string link() const { return directory.path() + "/scratch"; }
  static support::PostedEvent scratch(const std::string& uuid) {
    return problem("orn.problem.vfat.filesystem.full.scratch",
                   "The host's scratch partition, which is the VFAT filesystem vol (UUID " + uuid + "), is full.");
  }
  static support::PostedEvent other(const std::string& uuid) {
    return problem("orn.problem.vfat.filesystem.full.other", "The VFAT filesystem vol (UUID " + uuid + ") is full.");
  }

  support::TemporaryDirectory directory;
  support::Scenario scenario;
  support::Driver driver{scenario, std::make_unique<keld::VfatCorrelator>(scenario.services, link())};
};

TEST_F(VfatScenario, theVolumeThatScratchPointsToIsTheScratchPartition) {
  pointScratchTo("/volumes/uuid-1");
  EXPECT_EQ(full("uuid-1"), Events{scratch("uuid-1")});
  EXPECT_EQ(full("uuid-2"), Events{other("uuid-2")});
  EXPECT_EQ(full("uuid-"), Events{other("uuid-")});
  EXPECT_EQ(full("/volumes/uuid-1"), Events{other("/volumes/uuid-1")});
  EXPECT_EQ(diagnostics(scenario), Lines{});
}

TEST_F(VfatScenario, aTargetWithoutASlashIsTakenWhole) {
  pointScratchTo("uuid-1");
  EXPECT_EQ(full("uuid-1"), Events{scratch("uuid-1")});
}

TEST_F(VfatScenario, withoutALinkItsOwnNameIsTheScratchPartition) {
  EXPECT_EQ(full("uuid-1"), Events{other("uuid-1")});
  EXPECT_EQ(full("scratch"), Events{scratch("scratch")});
}

TEST_F(VfatScenario, theLinkIsReadAfreshOnEveryPost) {
  pointScratchTo("/volumes/uuid-1");
  EXPECT_EQ(full("uuid-1"), Events{scratch("uuid-1")});
  pointScratchTo("/volumes/uuid-2");
  driver.pass(301s);
  EXPECT_EQ(full("uuid-1"), Events{other("uuid-1")});
  EXPECT_EQ(full("uuid-2"), Events{scratch("uuid-2")});
}

TEST_F(VfatScenario, aLongTargetIsReadToItsEnd) {
  std::string target;
  while (target.size() < 3900) target += "/directory";
  pointScratchTo(target + "/uuid-1");
  EXPECT_EQ(full("uuid-1"), Events{scratch("uuid-1")});
}

TEST_F(VfatScenario, aVolumeReportedEvery200SecondsForAnHourIsPostedOnce) {
  EXPECT_EQ(full("uuid-1").size(), 1U);
  for (int second = 200; second <= 3600; second += 200) {
    driver.pass(200s);
    EXPECT_EQ(full("uuid-1"), Events{}) << second;
  }
}

TEST_F(VfatScenario, after300SecondsItIsSilentAndAfter301Posted) {
  EXPECT_EQ(full("uuid-1").size(), 1U);
  driver.pass(301s);
  EXPECT_EQ(full("uuid-1").size(), 1U);
  driver.pass(300s);
  EXPECT_EQ(full("uuid-1").size(), 0U);
}

TEST_F(VfatScenario, theQuietPeriodIsKeyedByTheUuid) {
  EXPECT_EQ(full("uuid-1", "a").size(), 1U);
  EXPECT_EQ(full("uuid-2", "a").size(), 1U);
  EXPECT_EQ(full("uuid-1", "b").size(), 0U);
}

TEST_F(VfatScenario, aClockSetBackIsSilentOnceAndStartsANewPeriod) {
  EXPECT_EQ(full("uuid-1").size(), 1U);
  scenario.clock.correct(scenario.clock.wall() - 24h);
  EXPECT_EQ(full("uuid-1").size(), 0U);
  driver.pass(301s);
  EXPECT_EQ(full("uuid-1").size(), 1U);
}

TEST_F(VfatScenario, whatCannotBeReadIsDroppedSilentlyAndHoldsNothingOff) {
  scenario::expectUnreadable(scenario, driver,
                             {{"kel.vfat.filesystem.full", {s("vol")}, {}},
                              {"kel.vfat.filesystem.full", {i(1), s("uuid-1")}, {}},
                              {"kel.vfat.filesystem.full", {s("vol"), i(1)}, {}}});
  EXPECT_EQ(full("uuid-1").size(), 1U);
}

TEST_F(VfatScenario, nullTextsHarmNothing) {
  driver.observe("kel.vfat.filesystem.full", {null(), null()});
  driver.events();
  EXPECT_EQ(full("uuid-1").size(), 1U);
}

TEST_F(VfatScenario, anUnknownObservationIsIgnoredSilently) {
  driver.observe("kel.vfat.unheard.of", {s("vol"), s("uuid-1")});
  EXPECT_EQ(driver.events(), Events{});
  EXPECT_EQ(scenario.log.take(), Lines{});
}

}  // namespace
