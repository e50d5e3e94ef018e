// kelctl capture against a daemon that runs: what it records is the trace, whatever happens meanwhile.
#include <gmock/gmock.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>

#include "endToEnd.h"
#include "fakeTime.h"

namespace e2e {
namespace {

using nlohmann::json;
using support::i, support::s;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

/// The lines of a capture that are the trace's.
std::string traceOf(const std::string& text) {
  std::string trace;
  for (const std::string& line : linesOf(text)) {
    if (!line.starts_with('#')) trace += line + "\n";
  }
  return trace;
}

std::vector<std::string> directivesOf(const std::string& text) {
  std::vector<std::string> lines = linesOf(text);
  std::erase_if(lines, [](const std::string& line) { return !line.starts_with('#'); });
  return lines;
}

json headerOf(const std::string& text) {
  const std::string begin = "#keld-capture 1 ";
  EXPECT_THAT(text, StartsWith(begin));
  return json::parse(text.substr(begin.size(), text.find('\n') - begin.size()));
}

class Capture : public EndToEnd {
 protected:
  void SetUp() override {
    EndToEnd::SetUp();
    if (IsSkipped()) return;
    startDaemon();
  }

  void startDaemon() {
    daemon_ = std::make_unique<Daemon>(workspace());
    daemon_->startAndServe();
    emitter_ = std::make_unique<Emitter>(Emitter::toContext(workspace()));
  }
  Daemon& daemon() { return *daemon_; }
  const Emitter& emitter() { return *emitter_; }

  [[nodiscard]] std::string path(const std::string& suffix = "") const {
    return workspace().root() + "/a.capture" + suffix;
  }
  [[nodiscard]] std::string content(const std::string& suffix = "") const { return fileContent(path(suffix)); }

  /// Starts a capture, and returns once it records.
  std::unique_ptr<Program> start(std::vector<std::string> options = {}) {
    options.insert(options.begin(), {"capture", path()});
    auto program = std::make_unique<Program>(workspace(), KELCTL_PROGRAM, options);
    startIn(*program);
    return program;
  }
  void startIn(Program& program) {
    program.start();
    ASSERT_TRUE(eventually([&] {
      if (program.hasEnded()) return true;
      emitter().send("kel.unheard.probe");
      return recorded("kel.unheard.probe");
    })) << program.standardError();
    ASSERT_FALSE(program.hasEnded()) << program.standardError();
    settleTrace();
  }
  bool recorded(const std::string& text) { return content().find(text) != std::string::npos; }
  /// Reads the trace to the last probe, so that what comes next is new to it and to the capture.
  void settleTrace() {
    emitter().send("kel.unheard.ready");
    daemon().trace().waitFor("IN", "kel.unheard.ready");
    ASSERT_TRUE(eventually([&] { return recorded("kel.unheard.ready"); }));
  }
  /// Ends a capture in order.
  static void end(Program& capture, int signal = SIGTERM) {
    capture.signal(signal);
    const Ending ending = capture.waitForEnd();
    EXPECT_TRUE(ending.with(0)) << ending.text() << capture.standardError();
  }
  /// What a capture holds behind its start.
  [[nodiscard]] static std::string behindStart(const std::string& text) {
    const std::size_t at = text.find("kel.unheard.ready,");
    EXPECT_NE(at, std::string::npos);
    return text.substr(text.find('\n', at) + 1);
  }

 private:
  std::unique_ptr<Daemon> daemon_;
  std::unique_ptr<Emitter> emitter_;
};

TEST_F(Capture, HoldsTheTraceByteForByte) {
  const auto capture = start();
  std::string expected;
  for (int n = 0; n < 300; ++n) {
    emitter().send("kel.unheard.line", {s("a \"b\",\n#facts 1.000000000 {}"), i(n)});
    // The string holds a line feed.
    expected += daemon().trace().nextRaw() + "\n";
    expected += daemon().trace().nextRaw() + "\n";
  }
  EventReceiver agent(workspace().eventSocket());
  emitter().send("kel.net.fence.port.fail", {s("port \"7\""), s("dvs"), i(0xbad0007), i(501)});
  for (int n = 0; n < 2; ++n) expected += daemon().trace().nextRaw() + "\n";
  ASSERT_THAT(expected, HasSubstr(",OUT,"));
  ASSERT_TRUE(eventually([&] { return content().ends_with(expected); }));
  end(*capture);
  const std::string text = behindStart(content());
  EXPECT_EQ(text.substr(0, text.find("\n#end ") + 1), expected);
  EXPECT_EQ(capture->standardOutput(), "");
  EXPECT_EQ(capture->standardError(), "");
}

TEST_F(Capture, BeginsWithTheHostAndEndsInOrder) {
  workspace().setModel(R"({"portGroups": {"Production": "switch0"}, "options": {"Net/LinkFlappingThreshold": 3}})");
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    std::filesystem::remove(path());  // what an earlier one has recorded is no sign of this one
    const auto capture = start();
    end(*capture, signal);
    const auto directives = directivesOf(content());
    ASSERT_EQ(directives.size(), 2U);
    EXPECT_THAT(directives[1], testing::MatchesRegex("#end [0-9]{10}\\.[0-9]{9}"));
    const json header = headerOf(content());
    EXPECT_EQ(header["facts"]["portGroups"], json::parse(R"({"Production": "switch0"})"));
    EXPECT_EQ(header["options"]["Net/LinkFlappingThreshold"], 3);
    EXPECT_EQ(header["options"]["PageRetire/PageErrorCorrPeriod"], 30);
    EXPECT_THAT(header["started"].get<std::string>(),
                testing::MatchesRegex("20[0-9]{2}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6}Z"));
    EXPECT_FALSE(header["host"].get<std::string>().empty());
  }
}

TEST_F(Capture, EndsByItselfAfterItsDuration) {
  const Outcome outcome = run(workspace(), KELCTL_PROGRAM, {"capture", "-", "--duration", "0.2", "--no-facts"});
  EXPECT_TRUE(outcome.ending.with(0)) << outcome.error;
  EXPECT_FALSE(headerOf(outcome.output).contains("facts"));
  EXPECT_EQ(headerOf(outcome.output)["options"]["Misc/KelAsyncEnable"], 1);
  EXPECT_EQ(directivesOf(outcome.output).size(), 2U);
}

TEST_F(Capture, TakesTheHistoryOnDemand) {
  std::string history;
  for (int n = 0; n < 5; ++n) {
    emitter().send("kel.unheard.before", {i(n)});
    history += daemon().trace().nextRaw() + "\n";
  }
  const Outcome with = run(workspace(), KELCTL_PROGRAM, {"capture", path(), "--duration", "0.2", "--history"});
  EXPECT_THAT(traceOf(content()), HasSubstr(history)) << with.error;
  const Outcome without = run(workspace(), KELCTL_PROGRAM, {"capture", path(), "--duration", "0.2", "--force"});
  EXPECT_EQ(traceOf(content()), "") << without.error;
}

TEST_F(Capture, AFileThatIsThereIsRefusedUnlessItIsAddedTo) {
  const auto first = run(workspace(), KELCTL_PROGRAM, {"capture", path(), "--duration", "0.1"});
  ASSERT_TRUE(first.ending.with(0)) << first.error;
  const std::string before = content();
  const auto second = run(workspace(), KELCTL_PROGRAM, {"capture", path(), "--duration", "0.1"});
  EXPECT_TRUE(second.ending.with(1));
  EXPECT_EQ(second.error, "kelctl: " + path() + " is there already; --append adds to it, --force replaces it\n");
  EXPECT_EQ(content(), before);
  const auto third = run(workspace(), KELCTL_PROGRAM, {"capture", path(), "--duration", "0.1", "--append"});
  EXPECT_TRUE(third.ending.with(0)) << third.error;
  EXPECT_THAT(content(), StartsWith(before + "#keld-capture 1 "));
}

TEST_F(Capture, ARotatedCaptureLosesNothing) {
  const auto capture = start({"--rotate", "4K", "--keep", "1000"});
  std::string expected;
  for (int n = 0; n < 1000; ++n) {
    emitter().send("kel.unheard.line", {s(std::string(static_cast<std::size_t>(n % 97), 'x')), i(n)});
    expected += daemon().trace().nextRaw() + "\n";
  }
  end(*capture);
  std::string all;
  int files = 0;
  for (; std::filesystem::exists(path("." + std::to_string(files + 1))); ++files) {
    const std::string text = content("." + std::to_string(files + 1));
    headerOf(text);
    EXPECT_EQ(directivesOf(text).size(), 1U);
    EXPECT_GE(text.size(), 4096U);
    all.insert(0, traceOf(text));
  }
  EXPECT_GT(files, 10);
  all += traceOf(content());
  EXPECT_EQ(behindStart(all), expected);
}

TEST_F(Capture, KilledItLeavesAtMostOneCutLine) {
  for (int round = 0; round < 5; ++round) {
    std::filesystem::remove(path());
    const auto capture = start();
    std::string expected;
    for (int n = 0; n < 200; ++n) {
      emitter().send("kel.unheard.line", {s(std::string(1000, 'x')), i(n)});
      if (n == 100 + 20 * round) capture->signal(SIGKILL);
      expected += daemon().trace().nextRaw() + "\n";
    }
    EXPECT_FALSE(capture->waitForEnd().exited);
    const std::string text = behindStart(content());
    EXPECT_TRUE(expected.starts_with(text)) << "what is there is what came, in order";
    const auto added = run(workspace(), KELCTL_PROGRAM, {"capture", path(), "--duration", "0.1", "--append"});
    EXPECT_TRUE(added.ending.with(0)) << added.error;
    const std::string whole = behindStart(content());
    EXPECT_TRUE(whole.starts_with(text.substr(0, text.rfind('\n') + 1) + "#keld-capture 1 "));
  }
}

TEST_F(Capture, AFullDiskEndsItWithWholeLinesAndOneMessage) {
  const auto capture = start();
  const rlimit small{static_cast<rlim_t>(std::filesystem::file_size(path()) + 5000), RLIM_INFINITY};
  ASSERT_EQ(::prlimit(capture->pid(), RLIMIT_FSIZE, &small, nullptr), 0);
  std::string expected;
  for (int n = 0; n < 100; ++n) {
    emitter().send("kel.unheard.line", {s(std::string(100, 'x')), i(n)});
    expected += daemon().trace().nextRaw() + "\n";
  }
  EXPECT_TRUE(capture->waitForEnd().with(1));
  EXPECT_EQ(capture->standardError(),
            "kelctl: cannot write to " + path() + ": File too large; the capture ends with the last line that fits\n");
  const std::string text = behindStart(content());
  EXPECT_GT(text.size(), 4000U);
  EXPECT_TRUE(text.ends_with('\n'));
  EXPECT_TRUE(expected.starts_with(text));
}

TEST_F(Capture, AFullDeviceIsAFailure) {
  const Outcome outcome = run(workspace(), KELCTL_PROGRAM, {"capture", "/dev/full", "--force"});
  EXPECT_TRUE(outcome.ending.with(1));
  EXPECT_EQ(outcome.error, "kelctl: cannot write to /dev/full: No space left on device\n");
}

TEST_F(Capture, AChangeOfTheHostStandsBeforeTheNextLine) {
  workspace().setModel(R"({"portGroups": {"Production": "switch0", "Backup": "switch1"}})");
  const auto capture = start({"--facts-every", "0.001"});
  workspace().setModel(R"({"portGroups": {"Production": "switch2"}})");
  emitter().send("kel.unheard.after");
  const std::string line = daemon().trace().nextRaw();
  const std::string facts =
      "#facts " + line.substr(0, line.find(',')) + R"( {"portGroups":{"Backup":null,"Production":"switch2"}})" + "\n";
  ASSERT_TRUE(eventually([&] { return recorded("kel.unheard.after"); }));
  EXPECT_EQ(behindStart(content()), facts + line + "\n");
  ASSERT_TRUE(run(workspace(), KELCTL_PROGRAM, {"option", "set", "Net/LinkFlappingThreshold", "7"}).ending.with(0));
  emitter().send("kel.unheard.last");
  ASSERT_TRUE(eventually([&] { return recorded("kel.unheard.last"); }));
  EXPECT_THAT(content(), HasSubstr(R"( {"options":{"Net/LinkFlappingThreshold":7}})"));
  end(*capture);
}

TEST_F(Capture, GoesOnWithADaemonThatIsStartedAnew) {
  const auto capture = start();
  emitter().send("kel.unheard.first");
  const std::string first = daemon().trace().nextRaw() + "\n";
  ASSERT_TRUE(daemon().terminate().with(0));
  startDaemon();
  emitter().send("kel.unheard.second");
  const std::string second = daemon().trace().nextRaw() + "\n";
  ASSERT_TRUE(eventually([&] { return recorded("kel.unheard.second"); }));
  end(*capture);
  const std::string text = behindStart(content());
  ASSERT_THAT(text, StartsWith(first + "#restart "));
  const std::string restart = text.substr(first.size(), text.find('\n', first.size()) - first.size());
  EXPECT_LE(std::stod(restart.substr(9)), std::stod(second));
  EXPECT_THAT(text.substr(first.size() + restart.size() + 1), StartsWith(second + "#end "));
  EXPECT_EQ(capture->standardError(), "kelctl: keld closed the trace; waiting for it\nkelctl: keld is back\n");
}

TEST_F(Capture, EndsInOrderWhileItWaitsForTheDaemon) {
  const auto capture = start();
  ASSERT_TRUE(daemon().terminate().with(0));
  ASSERT_TRUE(eventually([&] { return capture->standardError().find("waiting") != std::string::npos; }));
  end(*capture);
  EXPECT_THAT(behindStart(content()), StartsWith("#end "));
}

TEST_F(Capture, WithoutADaemonNoFileIsMade) {
  ASSERT_TRUE(daemon().terminate().with(0));
  const Outcome outcome = run(workspace(), KELCTL_PROGRAM, {"capture", path()});
  EXPECT_TRUE(outcome.ending.with(1));
  EXPECT_THAT(outcome.error, HasSubstr("is keld running?"));
  EXPECT_FALSE(std::filesystem::exists(path()));
}

TEST_F(Capture, TheSettingOfTheClockStandsAmongTheLines) {
  if (const std::string why = FakeTime::missing(); !why.empty()) GTEST_SKIP() << why;
  Program capture(workspace(), KELCTL_PROGRAM, {"capture", path()});
  // The tool's clock alone stands and is set, the monotonic one of the same program goes on.
  capture.setEnvironment("FAKETIME_DONT_FAKE_MONOTONIC", "1");
  capture.setEnvironment("DONT_FAKE_MONOTONIC", "1");
  const FakeTime time(workspace(), capture, "+0");
  startIn(capture);
  time.set("+7200");
  emitter().send("kel.unheard.after");
  ASSERT_TRUE(eventually([&] {
    emitter().send("kel.unheard.after");
    return recorded("#step ");
  }));
  end(capture);
  const std::string text = content().substr(content().find("#step "));
  const double from = std::stod(text.substr(6)), to = std::stod(text.substr(text.find(' ', 6)));
  EXPECT_NEAR(to - from, 7200, 1);
}

}  // namespace
}  // namespace e2e
