// The decisions of the correlators that hold repeated reports off, and of the swap correlator.
#include <filesystem>
#include <memory>
#include <string>

#include "decisionCases.h"
#include "keldVfatCorrelator.h"
#include "modelHost.h"
#include "socketReceiver.h"

namespace {

using namespace std::chrono_literals;
using support::acts;
using support::concludes;
using support::forgets;
using support::holds;
using support::i;
using support::null;
using support::s;

/// A correlator that is driven.
struct Scene {
  explicit Scene(const keld::CorrelatorInfo& info) : driver(scenario, info) {}
  void setBack(std::chrono::seconds time) { scenario.clock.correct(scenario.clock.wall() - time); }
  /// What was decided so far is not asked for.
  void skip() { scenario.decisions.take(); }

  support::Scenario scenario;
  support::Driver driver;
};

struct ClockScene : Scene {
  ClockScene() : Scene(keld::kClockCorrelator) {}
  void reset() { driver.observe("kel.clock.state.reset"); }
  void sync() { driver.observe("kel.clock.correction.adjtime.sync"); }
  void unsync() { driver.observe("kel.clock.correction.adjtime.unsync"); }
};

using ClockCase = scenario::DecisionCase<ClockScene>;

const std::vector<ClockCase> kClockCases = {
    {"whatWasNeverPostedIsNotHeldOff",
     [](ClockScene& clock) { clock.reset(); },
     {concludes("clock.never", "state.reset", "never posted before, so not held off"),
      concludes("clock.begins", "state.reset", "posted: held off for 3600 s from now on", 3600)}},
    {"anHourIsCountedFromTheLastPost",
     [](ClockScene& clock) {
       clock.reset();
       clock.driver.pass(3599s);
       clock.skip();
       clock.reset();
       clock.driver.pass(1s);
       clock.reset();
     },
     {holds("clock.held", "state.reset", "held off: last posted 3599 s ago, limit 3600 s"),
      concludes("clock.over", "state.reset", "not held off: last posted 3600 s ago, limit 3600 s"),
      concludes("clock.begins", "state.reset", "posted: held off for 3600 s from now on", 3600)}},
    {"aClockSetBackHoldsOff",
     [](ClockScene& clock) {
       clock.reset();
       clock.setBack(24h);
       clock.skip();
       clock.reset();
     },
     {holds("clock.ahead", "state.reset",
            "held off: last posted 86400 s ahead of the clock, which was set back; limit 3600 s")}},
    {"aClockThatBeginsIn1970HoldsOffWhatWasNeverPosted",
     [](ClockScene& clock) {
       clock.scenario.clock.correct(WallTime(100s));
       clock.reset();
     },
     {holds("clock.held", "state.reset", "held off: last posted 100 s ago, limit 3600 s")}},
    {"aLossLetsTheNextRegainPass",
     [](ClockScene& clock) {
       clock.sync();
       clock.driver.pass(10s);
       clock.skip();
       clock.sync();
       clock.unsync();
       clock.sync();
     },
     {holds("clock.held", "correction.adjtime.sync", "held off: last posted 10 s ago, limit 3600 s"),
      concludes("clock.never", "correction.adjtime.unsync", "never posted before, so not held off"),
      concludes("clock.begins", "correction.adjtime.unsync", "posted: held off for 3600 s from now on", 3600),
      forgets("clock.rearmed", "correction.adjtime.sync",
              "held off no longer: correction.adjtime.unsync was posted, a loss of synchronisation"),
      concludes("clock.free", "correction.adjtime.sync",
                "never posted before, or not since the last loss of synchronisation, so not held off"),
      concludes("clock.begins", "correction.adjtime.sync", "posted: held off for 3600 s from now on", 3600)}},
    {"whatCannotBeReadBeginsNoHour",
     [](ClockScene& clock) { clock.driver.observe("kel.clock.correction.step.unsync", {i(1)}); },
     {concludes("clock.never", "correction.step.unsync", "never posted before, so not held off")}},
};

struct UserScene : Scene {
  UserScene() : Scene(keld::kUserLevelCorrelator) {}
  void lease(const std::string& server) { driver.observe("kel.user.dhclient.lease.offered.noexpiry", {s(server)}); }
  void directory(const char* configured, const char* fallback) {
    driver.observe("kel.user.lsyslogd.storage.logdir.invalid", {s(configured), s(fallback)});
  }
};

using UserCase = scenario::DecisionCase<UserScene>;

const std::vector<UserCase> kUserCases = {
    {"aServerIsHeldOffForTwentyMinutes",
     [](UserScene& user) {
       user.lease("10.0.0.1");
       user.driver.pass(1200s);
       user.lease("10.0.0.1");
       user.lease("10.0.0.2");
       user.driver.pass(1s);
       user.lease("10.0.0.1");
     },
     {concludes("user.held-off.never", "10.0.0.1",
                "lease without expiry: never posted before, so not held off; limit 1200 s", 1200),
      holds("user.held-off.held", "10.0.0.1", "lease without expiry: held off, last posted 1200 s ago, limit 1200 s"),
      concludes("user.held-off.never", "10.0.0.2",
                "lease without expiry: never posted before, so not held off; limit 1200 s", 1200),
      concludes("user.held-off.over", "10.0.0.1",
                "lease without expiry: not held off, last posted 1201 s ago, limit 1200 s", 1200)}},
    {"aLogDirectoryIsHeldOffByBothNames",
     [](UserScene& user) {
       user.directory("/a", "/b");
       user.driver.pass(90s);
       user.directory("/a", "/b");
       user.directory("/a", "/c");
     },
     {concludes("user.held-off.never", "/a -> /b", "log directory: never posted before, so not held off; limit 90 s",
                90),
      holds("user.held-off.held", "/a -> /b", "log directory: held off, last posted 90 s ago, limit 90 s"),
      concludes("user.held-off.never", "/a -> /c", "log directory: never posted before, so not held off; limit 90 s",
                90)}},
    {"aClockSetBackHoldsOff",
     [](UserScene& user) {
       user.lease("10.0.0.1");
       user.setBack(60s);
       user.skip();
       user.lease("10.0.0.1");
     },
     {holds("user.held-off.ahead", "10.0.0.1",
            "lease without expiry: held off, last posted 60 s ahead of the clock, which was set back; limit 1200 s")}},
    {"aServerWithoutANameAndALongOneAreToldByTheirKeys",
     [](UserScene& user) {
       user.driver.observe("kel.user.dhclient.lease.offered.noexpiry", {null()});
       user.lease(std::string(256, 'n'));
     },
     {concludes("user.held-off.never", "(null)",
                "lease without expiry: never posted before, so not held off; limit 1200 s", 1200),
      concludes("user.held-off.never", std::string(256, 'n'),
                "lease without expiry: never posted before, so not held off; limit 1200 s", 1200)}},
    {"moreServersThanAreKeptAreForgotten",
     [](UserScene& user) {
       for (int n = 0; n < 65536; ++n) user.lease(std::to_string(n));
       user.skip();
       user.lease("more");
     },
     {concludes("user.held-off.never", "more",
                "lease without expiry: never posted before, so not held off; limit 1200 s", 1200),
      forgets("user.held-off.forgotten", "more",
              "lease without expiry: more on record than are kept, 65536 are held off no longer, 1 still are")}},
};

struct SwapScene : Scene {
  SwapScene() : Scene(keld::kSwapCorrelator) {}
  void removed() { driver.observe("kel.swap.systemSwap.isPDL.removed", {s("/volumes/5f/sys.swp")}); }

  support::ModelHost host;
};

using SwapCase = scenario::DecisionCase<SwapScene>;

const std::vector<SwapCase> kSwapCases = {
    {"swapThatWasPlacedAnewGivesNoEvent",
     [](SwapScene& swap) { swap.removed(); },
     {acts("swap.reconfigured", "/volumes/5f/sys.swp", "no event: the host placed system swap anew when asked to")}},
    {"whySwapWasNotPlacedAnewIsSaid",
     [](SwapScene& swap) {
       swap.host.write(R"({"failures":{"swap.reconfigure":"no room"}})");
       swap.removed();
     },
     {acts("swap.not-reconfigured", "/volumes/5f/sys.swp",
           "the host did not place system swap anew when asked to: no room")}},
};

struct VfatScene {
  VfatScene() { std::filesystem::create_symlink("/volumes/uuid-1", link()); }
  [[nodiscard]] std::string link() const { return directory.path() + "/scratch"; }
  void full(const char* uuid) { driver.observe("kel.vfat.filesystem.full", {s("vol"), s(uuid)}); }
  /// What was decided so far is not asked for.
  void skip() { scenario.decisions.take(); }

  support::TemporaryDirectory directory;
  support::Scenario scenario;
  support::Driver driver{scenario, std::make_unique<keld::VfatCorrelator>(scenario.services, link())};
};

using VfatCase = scenario::DecisionCase<VfatScene>;

const std::vector<VfatCase> kVfatCases = {
    {"whichVolumeItIsIsSaid",
     [](VfatScene& vfat) {
       vfat.full("uuid-1");
       vfat.full("uuid-2");
     },
     {concludes("vfat.quiet.never", "uuid-1", "full: never seen before, so not held off; limit 300 s", 300),
      concludes("vfat.scratch", "uuid-1", "its UUID is that of the scratch partition"),
      concludes("vfat.quiet.never", "uuid-2", "full: never seen before, so not held off; limit 300 s", 300),
      concludes("vfat.other", "uuid-2", "its UUID is not that of the scratch partition, \"uuid-1\"")}},
    {"onlyMoreThanFiveMinutesOfQuietPass",
     [](VfatScene& vfat) {
       vfat.full("uuid-1");
       vfat.skip();
       vfat.driver.pass(300s);
       vfat.full("uuid-1");
       vfat.driver.pass(301s);
       vfat.full("uuid-1");
     },
     {holds("vfat.quiet.held", "uuid-1", "full: held off, last seen 300 s ago, limit 300 s", 300),
      concludes("vfat.quiet.over", "uuid-1", "full: not held off, last seen 301 s ago, limit 300 s", 300),
      concludes("vfat.scratch", "uuid-1", "its UUID is that of the scratch partition")}},
    {"aClockSetBackHoldsOff",
     [](VfatScene& vfat) {
       vfat.full("uuid-1");
       vfat.scenario.clock.correct(vfat.scenario.clock.wall() - 10s);
       vfat.skip();
       vfat.full("uuid-1");
     },
     {holds("vfat.quiet.ahead", "uuid-1",
            "full: held off, last seen 10 s ahead of the clock, which was set back; limit 300 s", 300)}},
};

struct MemfsScene : Scene {
  MemfsScene() : Scene(keld::kMemfsCorrelator) {}
  void ramdisk() { driver.observe("kel.memfs.ramdisk.full", {s("/tmp/f"), s("tmp")}); }
  void inodes() { driver.observe("kel.memfs.ramdisk.inodetable.full", {s("/tmp/f"), s("tmp"), s("app"), s("")}); }
  void failure() { driver.observe("kel.memfs.unheard.of"); }
};

using MemfsCase = scenario::DecisionCase<MemfsScene>;

const std::vector<MemfsCase> kMemfsCases = {
    {"aClockThatBeginsIn1970HoldsOffWhatWasNeverSeen",
     [](MemfsScene& memfs) {
       memfs.scenario.clock.correct(WallTime(100s));
       memfs.ramdisk();
     },
     {holds("memfs.quiet.held", "/tmp/f", "ramdisk full: held off, last seen 100 s ago, limit 300 s", 300)}},
    {"whatWasNeverSeenIsNotHeldOff",
     [](MemfsScene& memfs) {
       memfs.ramdisk();
       memfs.inodes();
       memfs.failure();
     },
     {concludes("memfs.quiet.never", "/tmp/f", "ramdisk full: never seen before, so not held off; limit 300 s", 300),
      concludes("memfs.quiet.never", "/tmp/f", "file table full: never seen before, so not held off; limit 300 s", 300),
      concludes("memfs.quiet.never", "", "failure: never seen before, so not held off; limit 300 s", 300)}},
    {"onlyMoreThanFiveMinutesOfQuietPass",
     [](MemfsScene& memfs) {
       memfs.ramdisk();
       memfs.inodes();
       memfs.failure();
       memfs.driver.pass(300s);
       memfs.skip();
       memfs.ramdisk();
       memfs.inodes();
       memfs.failure();
       memfs.driver.pass(301s);
       memfs.ramdisk();
       memfs.inodes();
       memfs.failure();
     },
     {holds("memfs.quiet.held", "/tmp/f", "ramdisk full: held off, last seen 300 s ago, limit 300 s", 300),
      holds("memfs.quiet.held", "/tmp/f", "file table full: held off, last seen 300 s ago, limit 300 s", 300),
      holds("memfs.quiet.held", "", "failure: held off, last seen 300 s ago, limit 300 s", 300),
      concludes("memfs.quiet.over", "/tmp/f", "ramdisk full: not held off, last seen 301 s ago, limit 300 s", 300),
      concludes("memfs.quiet.over", "/tmp/f", "file table full: not held off, last seen 301 s ago, limit 300 s", 300),
      concludes("memfs.quiet.over", "", "failure: not held off, last seen 301 s ago, limit 300 s", 300)}},
    {"aClockSetBackHoldsOff",
     [](MemfsScene& memfs) {
       memfs.failure();
       memfs.setBack(10s);
       memfs.skip();
       memfs.failure();
     },
     {holds("memfs.quiet.ahead", "",
            "failure: held off, last seen 10 s ahead of the clock, which was set back; limit 300 s", 300)}},
};

class ClockDecisions : public testing::TestWithParam<ClockCase> {};
TEST_P(ClockDecisions, isTold) {
  scenario::expectTold(GetParam());
}
INSTANTIATE_TEST_SUITE_P(Cases, ClockDecisions, testing::ValuesIn(kClockCases), scenario::kCaseName);

class UserDecisions : public testing::TestWithParam<UserCase> {};
TEST_P(UserDecisions, isTold) {
  scenario::expectTold(GetParam());
}
INSTANTIATE_TEST_SUITE_P(Cases, UserDecisions, testing::ValuesIn(kUserCases), scenario::kCaseName);

class SwapDecisions : public testing::TestWithParam<SwapCase> {};
TEST_P(SwapDecisions, isTold) {
  scenario::expectTold(GetParam());
}
INSTANTIATE_TEST_SUITE_P(Cases, SwapDecisions, testing::ValuesIn(kSwapCases), scenario::kCaseName);

class VfatDecisions : public testing::TestWithParam<VfatCase> {};
TEST_P(VfatDecisions, isTold) {
  scenario::expectTold(GetParam());
}
INSTANTIATE_TEST_SUITE_P(Cases, VfatDecisions, testing::ValuesIn(kVfatCases), scenario::kCaseName);

class MemfsDecisions : public testing::TestWithParam<MemfsCase> {};
TEST_P(MemfsDecisions, isTold) {
  scenario::expectTold(GetParam());
}
INSTANTIATE_TEST_SUITE_P(Cases, MemfsDecisions, testing::ValuesIn(kMemfsCases), scenario::kCaseName);

TEST(HoldOffDecisionsList, leavesNoneOut) {
  scenario::expectAllInCases(keld::kClockCorrelator, "clock", kClockCases);
  scenario::expectAllInCases(keld::kUserLevelCorrelator, "user", kUserCases);
  scenario::expectAllInCases(keld::kSwapCorrelator, "swap", kSwapCases);
  scenario::expectAllInCases(keld::kVfatCorrelator, "vfat", kVfatCases);
  scenario::expectAllInCases(keld::kMemfsCorrelator, "memfs", kMemfsCases);
}

}  // namespace
