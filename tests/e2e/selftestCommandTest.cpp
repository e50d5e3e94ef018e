// kelctl selftest: what an operator sees, and what a script gets.
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "endToEnd.h"

namespace e2e {
namespace {

constexpr const char* kIds[] = {
    "kel.tests.async.noData",
    "kel.tests.async.withPath",
    "kel.tests.async.withLog",
    "kel.tests.async.withWarn",
    "kel.tests.async.withIntParams",
    "kel.tests.async.withUintParams",
    "kel.tests.async.withStringParams",
    "kel.tests.async.withLongStringParam",
    "kel.tests.async.withLongStringParams",
    "kel.tests.corrupt.format.empty",
    "kel.tests.corrupt.format.doublepercent",
    "kel.tests.corrupt.format.s.zeros",
    "kel.tests.corrupt.format.s.zero3",
    "kel.tests.corrupt.format.tag.invalid1",
    "kel.tests.corrupt.format.tag.invalid2",
    "kel.tests.corrupt.format.tag.nestedInval",
    "kel.tests.corrupt.format.tag.ugly",
    "kel.tests.corrupt.format.tag.vugly",
    "kel.tests.corrupt.format.tag.assign.inval",
    "kel.tests.corrupt.format.tag.notreally",
    "kel.tests.corrupt.format.tag.notreally2",
};

const std::string kAllReachable =
    "installation: keld running, trace socket reachable, event socket has an owner, system log reachable";

using Lines = std::vector<std::string>;

Lines linesOf(const std::string& text) {
  std::istringstream content(text);
  Lines lines;
  for (std::string line; std::getline(content, line);) lines.push_back(line);
  return lines;
}

bool holds(const Lines& lines, const std::string& line) {
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

class SelftestCommand : public EndToEnd {
 protected:
  void SetUp() override {
    EndToEnd::SetUp();
    if (IsSkipped()) return;
    std::filesystem::create_directory(temporary());
  }
  [[nodiscard]] std::string temporary() const { return workspace().root() + "/t"; }

  std::unique_ptr<Program> prepare(std::vector<std::string> options) {
    options.insert(options.begin(), "selftest");
    auto program = std::make_unique<Program>(workspace(), KELCTL_PROGRAM, options);
    program->setEnvironment("TMPDIR", temporary());
    return program;
  }
  Outcome selftest(const std::vector<std::string>& options = {}) {
    const auto program = prepare(options);
    program->start();
    const Ending ending = program->waitForEnd();
    return {ending, program->standardOutput(), program->standardError()};
  }
  /// Something in the place of the daemon.
  [[nodiscard]] std::string script(const std::string& text) const {
    std::string path = workspace().root() + "/daemon";
    std::ofstream(path) << "#!/bin/sh\n" << text << "\n";
    ::chmod(path.c_str(), 0700);
    return path;
  }
  /// Nothing of a run is left: neither files nor a process that was given them.
  void expectNothingLeft() const {
    EXPECT_TRUE(std::filesystem::is_empty(temporary()));
    EXPECT_TRUE(eventually([this] { return processes() == 0; }));
  }
  [[nodiscard]] std::size_t processes() const {
    std::size_t count = 0;
    std::error_code error;
    for (const auto& process : std::filesystem::directory_iterator("/proc", error)) {
      const std::string environment = fileContent(process.path() / "environ");
      if (environment.find("KORVEL_RUN_DIR=" + temporary()) != std::string::npos) ++count;
    }
    return count;
  }
};

TEST_F(SelftestCommand, AGoodRunShows21PassLinesAndExitsWithZero) {
  const Outcome outcome = selftest();
  EXPECT_TRUE(outcome.ending.with(0)) << outcome.ending.text() << outcome.output;
  EXPECT_EQ(outcome.error, "");
  const Lines lines = linesOf(outcome.output);
  Lines numbered, expected;
  for (const std::string& line : lines) {
    if (line.starts_with("PASS: [")) numbered.push_back(line);
  }
  for (const char* id : kIds) expected.push_back("PASS: [" + std::to_string(expected.size()) + "]: " + id);
  EXPECT_EQ(numbered, expected);
  ASSERT_GE(lines.size(), 2U);
  for (std::size_t n = 0; n + 2 < lines.size(); ++n) EXPECT_TRUE(lines[n].starts_with("PASS: ")) << lines[n];
  EXPECT_EQ(lines[lines.size() - 2], "self-test: passed (21 of 21 observations, 5 of 5 events)");
  EXPECT_TRUE(lines.back().starts_with("installation: ")) << lines.back();
  expectNothingLeft();
}

TEST_F(SelftestCommand, EverythingTheDaemonSaysIsShownOnRequest) {
  const Outcome outcome = selftest({"--verbose"});
  EXPECT_TRUE(outcome.ending.with(0)) << outcome.ending.text() << outcome.error;
  const Lines lines = linesOf(outcome.output);
  EXPECT_TRUE(lines.at(0) == "INFO: Testing VProb_PostProblem.") << outcome.output;
  EXPECT_TRUE(holds(lines, "PASS: [20]: kel.tests.corrupt.format.tag.notreally2"));
  EXPECT_TRUE(holds(lines, "INFO: Tests completed. Failures = 0"));
}

TEST_F(SelftestCommand, ItLeavesTheInstallationAloneAndTellsThatAllOfItIsReachable) {
  const EventReceiver agent(workspace().eventSocket());
  Daemon daemon(workspace());
  daemon.startAndServe();
  const Emitter emitter = Emitter::toContext(workspace());
  settle(daemon, emitter);
  const std::size_t descriptors = daemon.openDescriptors();
  const Outcome outcome = selftest({"--installation"});
  EXPECT_TRUE(outcome.ending.with(0)) << outcome.ending.text() << outcome.output << outcome.error;
  EXPECT_EQ(linesOf(outcome.output).back(), kAllReachable);
  EXPECT_TRUE(settle(daemon, emitter).empty());
  EXPECT_TRUE(eventually([&] { return daemon.openDescriptors() == descriptors; }));
  EXPECT_TRUE(daemon.terminate().with(0));
  EXPECT_EQ(agent.count(), 0U);
  EXPECT_EQ(log().count(
                [](const LogLine& line) { return line.tag == "keld" && line.text.find("rror") != std::string::npos; }),
            0U);
}

TEST_F(SelftestCommand, WhatIsNotReachableChangesTheExitStatusOnRequestOnly) {
  const Outcome plain = selftest();
  EXPECT_TRUE(plain.ending.with(0)) << plain.ending.text();
  const std::string expected =
      "installation: keld not running, trace socket not reachable (No such file or directory), event socket has no "
      "owner (No such file or directory), system log reachable";
  EXPECT_EQ(linesOf(plain.output).back(), expected);
  const Outcome strict = selftest({"--installation"});
  EXPECT_TRUE(strict.ending.with(1)) << strict.ending.text();
  EXPECT_EQ(linesOf(strict.output).back(), expected);
}

TEST_F(SelftestCommand, NoFailureIsHiddenByAMissingLineEnd) {
  const Outcome outcome =
      selftest({"--daemon", script("printf \"WARNING: received kel kel.tests.x before test 'START' kel. (Ignoring.)\"\n"
                                   "printf 'INFO: Got kel: kel.tests.marker.start\\n'\n"
                                   "printf 'FAILURE: Received END without matching start!'\n"
                                   "printf 'FAIL: No. of tests = 21, but received only 0 kels.\\n'\n"
                                   "printf 'INFO: Tests completed. Failures = 1\\n'\n"
                                   "printf 'INFO: cut offFAIL: the last'\n"
                                   "exit 1")});
  EXPECT_TRUE(outcome.ending.with(1)) << outcome.ending.text();
  const Lines lines = linesOf(outcome.output);
  ASSERT_EQ(lines.size(), 6U) << outcome.output;
  EXPECT_EQ(lines[0], "WARNING: received kel kel.tests.x before test 'START' kel. (Ignoring.)");
  EXPECT_EQ(lines[1], "FAILURE: Received END without matching start!");
  EXPECT_EQ(lines[2], "FAIL: No. of tests = 21, but received only 0 kels.");
  EXPECT_EQ(lines[3], "INFO: cut offFAIL: the last");
  EXPECT_EQ(lines[4], "self-test: failed with exit status 1 (0 of 21 observations, 0 of 5 events)");
}

TEST_F(SelftestCommand, LinesAreShownAsTheyCome) {
  const std::string go = workspace().root() + "/go";
  const auto program = prepare({"--daemon", script("echo 'PASS: [0]: early'\nwhile [ ! -e " + go +
                                                   " ]; do sleep 0.02; done\necho 'PASS: [1]: late'\nexit 4")});
  program->start();
  EXPECT_TRUE(eventually([&] { return program->standardOutput() == "PASS: [0]: early\n"; }));
  std::ofstream(go) << "go";
  EXPECT_TRUE(program->waitForEnd().with(4));
  EXPECT_TRUE(program->standardOutput().starts_with("PASS: [0]: early\nPASS: [1]: late\n"));
}

TEST_F(SelftestCommand, TheExitStatusIsTheDaemonsNumberOfFailures) {
  const Outcome outcome = selftest({"--daemon", script("echo 'INFO: Tests completed. Failures = 17'; exit 17")});
  EXPECT_TRUE(outcome.ending.with(17)) << outcome.ending.text();
  EXPECT_EQ(outcome.error, "");
}

TEST_F(SelftestCommand, ADaemonThatEndsBeforeTheTestIsCompleteIsReported) {
  const Outcome failing = selftest({"--daemon", script("exit 98")});
  EXPECT_TRUE(failing.ending.with(98)) << failing.ending.text();
  EXPECT_EQ(failing.error,
            "kelctl: " + workspace().root() + "/daemon ended with exit status 98 before the self-test was complete\n");
  const Outcome quiet = selftest({"--daemon", "/bin/true"});
  EXPECT_TRUE(quiet.ending.with(1)) << quiet.ending.text();
  EXPECT_EQ(quiet.error, "kelctl: the daemon ended without having completed the self-test\n");
}

TEST_F(SelftestCommand, ASuccessThatContradictsTheLinesIsNone) {
  const Outcome contradicted =
      selftest({"--daemon", script("echo 'FAIL: x'; echo 'INFO: Tests completed. Failures = 256'; exit 0")});
  EXPECT_TRUE(contradicted.ending.with(1)) << contradicted.ending.text();
  EXPECT_EQ(contradicted.error, "kelctl: the daemon reported failures, but none in its exit status\n");
  const Outcome empty = selftest({"--daemon", script("echo 'INFO: Tests completed. Failures = 0'")});
  EXPECT_TRUE(empty.ending.with(1)) << empty.ending.text();
  EXPECT_EQ(empty.error, "kelctl: 0 of 21 observations passed\n");
}

TEST_F(SelftestCommand, ADaemonThatPostsNothingFails) {
  const std::string passes = "for n in $(seq 0 20); do echo \"PASS: [$n]: kel.tests.x\"; done\n";
  const Outcome outcome = selftest({"--daemon", script(passes + "echo 'INFO: Tests completed. Failures = 0'")});
  EXPECT_TRUE(outcome.ending.with(1)) << outcome.ending.text();
  EXPECT_EQ(outcome.error,
            "kelctl: event orn.problem.keldtestcorrelator.test.0 did not arrive once at the event socket\n");
}

TEST_F(SelftestCommand, ADaemonThatASignalEndsFailsWithOne) {
  const Outcome outcome = selftest({"--daemon", script("kill -ABRT $$")});
  EXPECT_TRUE(outcome.ending.with(1)) << outcome.ending.text();
  EXPECT_EQ(outcome.error, "kelctl: " + workspace().root() + "/daemon was ended by signal 6 (Aborted)\n");
  expectNothingLeft();
}

TEST_F(SelftestCommand, ADaemonThatCannotBeStartedFailsWithOne) {
  const Outcome missing = selftest({"--daemon", "/nowhere/keld-selftest"});
  EXPECT_TRUE(missing.ending.with(1)) << missing.ending.text();
  EXPECT_EQ(missing.error, "kelctl: cannot start /nowhere/keld-selftest: No such file or directory\n");
  EXPECT_TRUE(linesOf(missing.output).back().starts_with("installation: ")) << missing.output;
  const Outcome refused = selftest({"--daemon", workspace().modelFile()});
  EXPECT_TRUE(refused.ending.with(1)) << refused.ending.text();
  EXPECT_EQ(refused.error, "kelctl: cannot start " + workspace().modelFile() + ": Permission denied\n");
  expectNothingLeft();
}

TEST_F(SelftestCommand, ADaemonThatNeverEndsIsEndedAndWhatItSaidIsShown) {
  const Outcome outcome = selftest({"--timeout", "0.5", "--daemon",
                                    script("trap 'echo FAIL: ended; exit 0' TERM\necho 'PASS: [0]: x'\n"
                                           "while :; do sleep 0.05; done")});
  EXPECT_TRUE(outcome.ending.with(1)) << outcome.ending.text();
  EXPECT_TRUE(outcome.output.starts_with("PASS: [0]: x\nFAIL: ended\n")) << outcome.output;
  EXPECT_EQ(outcome.error,
            "kelctl: the self-test has not ended within 0.5 seconds; " + workspace().root() + "/daemon was ended\n");
  expectNothingLeft();
}

TEST_F(SelftestCommand, ADaemonWithoutTheTestAgentsRunsIntoTheTimeLimit) {
  const Outcome outcome = selftest({"--timeout", "1", "--daemon", KELD_PROGRAM});
  EXPECT_TRUE(outcome.ending.with(1)) << outcome.ending.text();
  EXPECT_EQ(outcome.error,
            std::string("kelctl: the self-test has not ended within 1 seconds; ") + KELD_PROGRAM + " was ended\n");
  expectNothingLeft();
}

TEST_F(SelftestCommand, ASignalEndsItAndItsDaemon) {
  const auto program = prepare({"--daemon", script("exec sleep 1000")});
  program->start();
  ASSERT_TRUE(eventually([this] { return processes() == 1; }));
  program->signal(SIGTERM);
  EXPECT_TRUE(program->waitForEnd().with(1));
  EXPECT_EQ(program->standardError(), "kelctl: the self-test was stopped by a signal\n");
  expectNothingLeft();
}

TEST_F(SelftestCommand, WhatItsDaemonLeavesBehindEndsWithIt) {
  const std::string note = workspace().root() + "/left";
  const Outcome outcome =
      selftest({"--timeout", "0.5", "--daemon", script("sleep 1000 &\necho $! >" + note + "\nexit 0")});
  EXPECT_TRUE(outcome.ending.with(1)) << outcome.ending.text();
  const std::string left = fileContent(note);
  ASSERT_NE(left, "");
  // Dead, though perhaps not reaped by whoever inherits it here.
  EXPECT_TRUE(eventually([&] { return fileContent("/proc/" + left.substr(0, left.find('\n')) + "/cmdline").empty(); }));
}

TEST_F(SelftestCommand, ItsDaemonDoesNotOutliveIt) {
  const auto program = prepare({"--daemon", script("exec sleep 1000")});
  program->start();
  ASSERT_TRUE(eventually([this] { return processes() == 1; }));
  program->signal(SIGKILL);
  EXPECT_FALSE(program->waitForEnd().exited);
  EXPECT_TRUE(eventually([this] { return processes() == 0; }));
}

TEST_F(SelftestCommand, AReaderThatLeavesDoesNotChangeTheExitStatus) {
  Program shell(workspace(), "/bin/sh",
                {"-c", "{ \"$0\" selftest --verbose; echo $? > status; } | head -n 1", KELCTL_PROGRAM});
  shell.setEnvironment("TMPDIR", temporary());
  shell.start();
  EXPECT_TRUE(shell.waitForEnd().with(0));
  EXPECT_EQ(fileContent(workspace().root() + "/status"), "0\n");
}

TEST_F(SelftestCommand, WrongUsageIsTwo) {
  for (const Lines& words : {Lines{"--daemon"}, Lines{"--timeout", "0"}, Lines{"surplus"}, Lines{"--unknown"}}) {
    const Outcome outcome = selftest(words);
    EXPECT_TRUE(outcome.ending.with(2)) << words[0] << outcome.ending.text();
    EXPECT_EQ(outcome.output, "");
  }
}

}  // namespace
}  // namespace e2e
