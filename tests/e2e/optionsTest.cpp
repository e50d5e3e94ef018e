// The command line, and what start-up makes of the build and of option -e.
#include <csignal>

#include "endToEnd.h"

namespace e2e {
namespace {

std::string usage(const std::string& program) {
  return "Usage: " + program + " [options]\nvalid options are:\n\t--help|-h - display this help\n";
}

class Options : public EndToEnd {
 protected:
  /// The daemon prints the usage, ends with 0, and has done and logged nothing else.
  Outcome expectUsageOnly(const std::vector<std::string>& arguments) {
    Outcome result = run(workspace(), KELD_PROGRAM, arguments);
    EXPECT_TRUE(result.ending.with(0)) << result.ending.text();
    EXPECT_EQ(result.output, usage(KELD_PROGRAM));
    EXPECT_TRUE(workspace().hostActions().empty());
    EXPECT_TRUE(log().lines().empty());
    return result;
  }
};

TEST_F(Options, HelpPrintsTheUsageAndEndsWithZero) {
  for (const char* option : {"-h", "--help"}) {
    EXPECT_EQ(expectUsageOnly({option}).error, "") << option;
  }
}

TEST_F(Options, LogLevelIsTakenWithItsArgumentAndPrintsTheUsage) {
  EXPECT_EQ(expectUsageOnly({"-l", "3"}).error, "");
  EXPECT_EQ(expectUsageOnly({"--loglevel", "3"}).error, "");
  EXPECT_EQ(expectUsageOnly({"--loglevel=3"}).error, "");
}

TEST_F(Options, TestPrintsTheUsage) {
  EXPECT_EQ(expectUsageOnly({"-t"}).error, "");
  EXPECT_EQ(expectUsageOnly({"--test"}).error, "");
}

TEST_F(Options, AnUnknownOptionIsComplainedAboutAndPrintsTheUsage) {
  EXPECT_NE(expectUsageOnly({"-x"}).error, "");
  EXPECT_NE(expectUsageOnly({"--nonsense"}).error, "");
}

TEST_F(Options, LogLevelWithoutItsArgumentIsComplainedAboutAndPrintsTheUsage) {
  EXPECT_NE(expectUsageOnly({"-l"}).error, "");
}

TEST_F(Options, EnablingObservationsBeforeAnotherOptionSetsNothing) {
  EXPECT_EQ(expectUsageOnly({"-e", "-h"}).error, "");
  EXPECT_EQ(expectUsageOnly({"-eh"}).error, "");
  EXPECT_EQ(expectUsageOnly({"--enablekels", "--test"}).error, "");
  EXPECT_EQ(expectUsageOnly({"-e", "-l", "3"}).error, "");
}

TEST_F(Options, TheFirstOptionThatPrintsTheUsageEndsParsing) {
  EXPECT_EQ(expectUsageOnly({"-t", "-x"}).error, "");
  EXPECT_EQ(expectUsageOnly({"-h", "-e"}).error, "");
}

TEST_F(Options, TheUsageNamesTheProgramAsInvoked) {
  Program program(workspace(), KELD_PROGRAM, {"-h"});
  program.setInvokedAs("./some where/else");
  program.start();
  EXPECT_TRUE(program.waitForEnd().with(0));
  EXPECT_EQ(program.standardOutput(), usage("./some where/else"));
}

TEST_F(Options, WithoutArgumentsTheDaemonServesAndSetsNothing) {
  Daemon daemon(workspace());
  daemon.startAndServe();
  EXPECT_TRUE(daemon.terminate().with(0));
  EXPECT_EQ(daemon.standardOutput(), "");
  EXPECT_EQ(daemon.standardError(), "");
  EXPECT_TRUE(workspace().hostActions().empty());
}

TEST_F(Options, AnArgumentThatIsNoOptionIsPassedOver) {
  Daemon daemon(workspace(), std::vector<std::string>{"argument"});
  daemon.startAndServe();
  EXPECT_TRUE(daemon.terminate().with(0));
  EXPECT_EQ(daemon.standardOutput(), "");
}

TEST_F(Options, EnablingObservationsSetsTheKernelOption) {
  for (const char* option : {"-e", "--enablekels"}) {
    const Workspace mine;
    Daemon daemon(mine, std::vector<std::string>{option});
    daemon.startAndServe();
    EXPECT_TRUE(daemon.terminate().with(0));
    EXPECT_EQ(mine.hostActions(),
              std::vector<std::string>{R"({"action":"option.set","option":"Misc/KelAsyncEnable","value":1})"});
  }
}

TEST_F(Options, EnablingObservationsTwiceSetsTheKernelOptionOnce) {
  Daemon daemon(workspace(), {"-e", "-e"});
  daemon.startAndServe();
  EXPECT_TRUE(daemon.terminate().with(0));
  EXPECT_EQ(workspace().hostActions().size(), 1U);
}

TEST_F(Options, AnEnabledOptionIsReadBackAsSet) {
  workspace().setModel(R"({"options": {"Misc/KelAsyncEnable": 0}})");
  Daemon daemon(workspace(), std::vector<std::string>{"-e"});
  daemon.startAndServe();
  const Outcome get = run(workspace(), KELCTL_PROGRAM, {"option", "get", "Misc/KelAsyncEnable"});
  EXPECT_TRUE(get.ending.with(0)) << get.error;
  EXPECT_EQ(get.output, "1\n");
}

TEST_F(Options, AnOptionThatCannotBeSetEndsTheDaemonWithItsErrno) {
  workspace().setModel(R"({"failures": {"option.set": 5}})");
  Daemon daemon(workspace(), std::vector<std::string>{"-e"});
  daemon.start();
  const Ending ending = daemon.waitForEnd();
  EXPECT_TRUE(ending.with(5)) << ending.text();
  log().waitFor("Exiting. rc:5");
  EXPECT_TRUE(workspace().hostActions().empty());
}

TEST_F(Options, ABuildThatDoesNotMatchPanics) {
  workspace().setModel(R"({"build": {"matches": false, "kernel": "QKernel of 2026-02-03 and longer than twenty"}})");
  Program daemon(workspace(), KELD_PROGRAM);
  daemon.start();
  const Ending ending = daemon.waitForEnd();
  EXPECT_FALSE(ending.exited);
  EXPECT_EQ(ending.status, SIGABRT);

  // The kernel's text is cut to twenty characters.
  const std::string error = daemon.standardError();
  const std::string beginning =
      "Keld - Panic: md5 signature mismatch with running qkernel built on QKernel of 2026-02-0 (my build date: ";
  EXPECT_EQ(error.substr(0, beginning.size()), beginning);
  ASSERT_GE(error.size(), beginning.size() + 3);
  EXPECT_EQ(error.substr(error.size() - 2), ")\n");
  EXPECT_EQ(error.find('%'), std::string::npos);

  log().waitFor("md5 signature mismatch with running qkernel built on %s (my build date: %s)");
  EXPECT_EQ(log().texts(),
            (std::vector<std::string>{"Keld - Panic: ",
                                      "md5 signature mismatch with running qkernel built on %s (my build date: %s)"}));
  EXPECT_FALSE(log().lines()[0].lineFeed);
  EXPECT_TRUE(log().lines()[1].lineFeed);
}

TEST_F(Options, AShortKernelBuildTextIsShownWhole) {
  workspace().setModel(R"({"build": {"matches": false, "kernel": "yesterday"}})");
  Program daemon(workspace(), KELD_PROGRAM);
  daemon.start();
  EXPECT_FALSE(daemon.waitForEnd().exited);
  const std::string beginning =
      "Keld - Panic: md5 signature mismatch with running qkernel built on yesterday (my build date: ";
  EXPECT_EQ(daemon.standardError().substr(0, beginning.size()), beginning);
}

}  // namespace
}  // namespace e2e
