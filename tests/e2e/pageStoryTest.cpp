// Errors of processors and pages, and what the host does about them.
#include "story.h"

namespace e2e {
namespace {

using support::i, support::L, support::s;
using Actions = std::vector<std::string>;

constexpr std::uint64_t kAddressValid = std::uint64_t{1} << 58;
constexpr std::uint64_t kOverflow = std::uint64_t{1} << 62;
constexpr std::uint64_t kLevelOneCache = 0x0101;
constexpr std::uint64_t kLevelTwoCache = 0x0102;

class CorrectedErrors : public Story {
 protected:
  /// One record of the machine check log.
  void error(std::uint64_t status, std::uint64_t cpu, std::uint64_t address, std::uint64_t count = 1) {
    observe("kel.cpu.mce.log4", {L(11), L(status), L(12), L(13), L(cpu), L(address), L(14), L(count)});
  }
  /// Returns once the correlator has done with all before.
  void mark() {
    observe("kel.cpu.mce.invalid");
    nextEvent("orn.problem.cpu.mce.invalid");
  }
};

TEST_F(CorrectedErrors, TheThirdOfOnePageAsksForItsRetirement) {
  begin(
      R"({"options": {"PageRetire/PageErrorCorrPeriod": 3600}, "pageRetire": {"status": {"0x1234": 0, "0x1235": 0}}})");
  error(kAddressValid, 2, 0x1234000);
  error(kAddressValid, 3, 0x1234fff);
  error(kAddressValid, 2, 0x1235000, 2);
  error(0, 2, 0x1234000, 100);
  mark();
  EXPECT_TRUE(workspace().hostActions().empty());
  error(kAddressValid, 2, 0x1234567);
  mark();
  const std::string retirement = R"({"action":"page.retire","page":4660,"count":1,"mode":"NiceRetire"})";
  EXPECT_EQ(workspace().hostActions(), Actions{retirement});

  // The request is made again until the page is found to be pending; then the page is let be.
  error(kAddressValid, 2, 0x1234000);
  mark();
  EXPECT_EQ(workspace().hostActions(), (Actions{retirement, retirement}));
  workspace().setModel(
      R"({"options": {"PageRetire/PageErrorCorrPeriod": 3600}, "pageRetire": {"status": {"0x1234": 1}}})");
  error(kAddressValid, 2, 0x1234000);
  mark();
  workspace().setModel(
      R"({"options": {"PageRetire/PageErrorCorrPeriod": 3600}, "pageRetire": {"status": {"0x1234": 0}}})");
  error(kAddressValid, 2, 0x1234000);
  mark();
  EXPECT_EQ(workspace().hostActions(), (Actions{retirement, retirement}));
  end();
}

TEST_F(CorrectedErrors, AThresholdIsComparedByItsLowEightBits) {
  begin(
      R"({"options": {"PageRetire/PageErrorCorrThreshold": 258, "PageRetire/PageErrorCorrPeriod": 3600}, "pageRetire": {"status": {"0x7": 0}}})");
  error(kAddressValid, 0, 0x7000, 2);
  mark();
  EXPECT_TRUE(workspace().hostActions().empty());
  error(kAddressValid, 0, 0x7000);
  mark();
  EXPECT_EQ(workspace().hostActions(), Actions{R"({"action":"page.retire","page":7,"count":1,"mode":"NiceRetire"})"});
  end();
}

/// Four cores of two processors each.
std::string processors(const std::string& vendor, int threshold, bool offlineEnabled = true) {
  return R"({"cpu": {"vendor": ")" + vendor + R"(", "cores": 4, "pcpus": 8, "offlineEnabled": )" +
         (offlineEnabled ? "true" : "false") + R"(}, "options": {"Cpu/CPUOfflineThreshold": )" +
         std::to_string(threshold) + "}}";
}

TEST_F(CorrectedErrors, TheThirdOfOneCoresNearestCacheTakesTheReportingProcessorOffline) {
  begin(processors("GenuineIntel", 3));
  error(kLevelOneCache, 4, 0);
  error(kLevelTwoCache, 4, 0);
  error(kLevelOneCache, 6, 0);
  error(kLevelOneCache | 0x1000, 5, 0);
  mark();
  EXPECT_TRUE(workspace().hostActions().empty());
  error(kLevelOneCache, 5, 0);
  mark();
  const std::string offline = R"({"action":"cpu.offline","cpu":5})";
  EXPECT_EQ(workspace().hostActions(), Actions{offline});
  for (int n = 0; n < 5; ++n) error(kLevelOneCache, 4, 0);  // the core is done with
  mark();
  EXPECT_EQ(workspace().hostActions(), Actions{offline});
  end();
}

TEST_F(CorrectedErrors, AnErrorThatOverflowedCountsTwice) {
  begin(processors("GenuineIntel", 3));
  error(kOverflow | 0x0010, 1, 0);
  mark();
  EXPECT_TRUE(workspace().hostActions().empty());
  error(0x000c, 1, 0);
  mark();
  EXPECT_EQ(workspace().hostActions(), Actions{R"({"action":"cpu.offline","cpu":1})"});
  end();
}

TEST_F(CorrectedErrors, NoProcessorGoesOfflineWhereThatIsDisabledOrTheVendorIsAnother) {
  begin();
  for (const std::string& model : {processors("GenuineIntel", 0), processors("GenuineIntel", 3, false),
                                   processors("AuthenticAMD", 3), processors("GenuineIntel2", 3)}) {
    workspace().setModel(model);
    for (int n = 0; n < 5; ++n) error(kLevelOneCache, 4, 0);
    mark();
  }
  EXPECT_TRUE(workspace().hostActions().empty());
  end();
}

class PageRetirement : public Story {};

TEST_F(PageRetirement, AFirmwareRequestIsFatalWhereItsOptionCannotBeRead) {
  begin(R"({"failures": {"option.read:PageRetire/ApeiLoggingEnabled": 5}})");
  observe("kel.pageretire.selectedbutnotretired.high", {L(3)});
  nextEvent("orn.problem.pageretire.selectedbutnotretired.high");
  observe("kel.pageretire.platform.retire.request", {s("FRU 1"), s("log 1")});
  expectNotReached("apps/keld/keldPageRetireCorrelator", 126);
}

TEST_F(PageRetirement, AThresholdThatCannotBeReadAtTheStartIsFatal) {
  for (const auto& [failure, line] :
       {std::pair{"pageRetire.threshold", 178}, {"option.read:PageRetire/ThresholdInterval", 189}}) {
    const Workspace mine;
    mine.setModel(std::string(R"({"failures": {")") + failure + "\": 5}}");
    Program program(mine, KELD_PROGRAM);
    program.start();
    EXPECT_FALSE(program.waitForEnd().exited);
    const std::string panic =
        "Keld - Panic: NOT_REACHED apps/keld/keldPageRetireCorrelator:" + std::to_string(line) + "\n";
    EXPECT_EQ(program.standardError().substr(0, panic.size()), panic);
  }
}

TEST_F(PageRetirement, WithAStepAboveTheCountEveryCountAboveTheThresholdIsReported) {
  const std::string event = "orn.problem.pageretire.selectedmpnthreshold.host.exceeded";
  begin(R"({"options": {"PageRetire/ThresholdInterval": 200}, "pageRetire": {"threshold": 100}})");
  for (const int count : {101, 102, 101, 100, 150}) {
    observe("kel.pageretire.selectedmpnthreshold.host.exceeded", {L(static_cast<std::uint64_t>(count))});
    if (count == 100) continue;
    expectEvent("pageretireCorrelator", event,
                "Number of host physical memory pages that have been selected for retirement (" +
                    std::to_string(count) + ") exceeds threshold (100).");
  }
  end();
}

class InjectedErrors : public ShiftedStory {
 protected:
  static constexpr const char* kHost =
      R"({"options": {"PageRetire/ApeiLoggingEnabled": 1}, "vms": [{"worldId": 4711, "groupId": 12, "name": "web01"}]})";

  void inject(std::uint64_t page, std::int32_t world, int count) {
    for (int n = 0; n < count; ++n) observe("kel.pageretire.mce.injected", {L(page), i(world)});
  }
  /// Lets the correlator finish and then moves the clock.
  void passTo(int seconds) {
    mark();
    setTime(seconds);
  }
  void mark() {
    observe("kel.pageretire.platform.retire.request", {s("a"), s("b")});
    nextEvent("orn.problem.pageretire.platform.retire.request");
  }
  void expectKill(int count) {
    expectEvent("pageretireCorrelator", "orn.problem.pageretire.mce.injected.2",
                "Killing web01 because at least " + std::to_string(count) +
                    " uncorrectable memory error machine check exceptions were injected for guest physical page 0x123 "
                    "but the virtual machine's operating system kept using the page.");
  }
  const std::string kill_ = R"({"action":"vm.kill","worldId":4711,"name":"web01"})";
};

TEST_F(InjectedErrors, FiftyInASecondKillNothingAndTheNextTwoSecondsLaterKillsTheVm) {
  beginAtZero(kHost);
  inject(0x123, 4711, 25);
  passTo(1);
  inject(0x123, 4711, 25);
  passTo(2);
  EXPECT_TRUE(workspace().hostActions().empty());
  inject(0x123, 4711, 1);
  expectKill(51);
  mark();
  EXPECT_EQ(workspace().hostActions(), Actions{kill_});
  inject(0x123, 4711, 60);
  passTo(4);
  inject(0x123, 4711, 60);
  mark();
  EXPECT_EQ(workspace().hostActions(), Actions{kill_});

  // A minute later all of that is forgotten.
  passTo(65);
  inject(0x123, 4711, 49);
  passTo(67);
  inject(0x123, 4711, 1);
  expectKill(50);
  mark();
  EXPECT_EQ(workspace().hostActions(), (Actions{kill_, kill_}));
  end();
}

TEST_F(InjectedErrors, OnDifferentPagesOrVmsOrTooFarApartTheyKillNothing) {
  beginAtZero(kHost);
  for (std::uint64_t page = 0; page < 100; ++page) inject(page, 4711, 1);
  inject(0x123, 4712, 49);
  passTo(2);
  for (std::uint64_t page = 0; page < 100; ++page) inject(page, 4711, 1);
  inject(0x123, 4711, 49);
  passTo(63);
  inject(0x123, 4711, 49);
  mark();
  EXPECT_TRUE(workspace().hostActions().empty());
  end();
}

TEST_F(InjectedErrors, AVmThatIsNotFoundIsTriedAgainAndOneThatCannotBeKilledIsNot) {
  beginAtZero(R"({"options": {"PageRetire/ApeiLoggingEnabled": 1}})");
  inject(0x123, 4711, 50);
  passTo(2);
  inject(0x123, 4711, 1);
  mark();
  workspace().setModel(
      R"({"options": {"PageRetire/ApeiLoggingEnabled": 1}, "vms": [{"worldId": 4711, "name": "web01"}], "failures": {"vm.kill": 1}})");
  inject(0x123, 4711, 1);
  expectKill(51);
  mark();
  workspace().setModel(kHost);
  inject(0x123, 4711, 1);
  mark();
  EXPECT_TRUE(workspace().hostActions().empty());
  end();
}

}  // namespace
}  // namespace e2e
