// The tool as a whole, as far as it needs no daemon: what is refused, and with which exit status.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "command.h"
#include "failure.h"

namespace {

using kelctl::kDone;
using kelctl::kFailed;
using kelctl::kUsage;
using kelctl::Words;

struct Result {
  int status;
  std::string out;
  std::string error;
};

class ToolTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (std::filesystem::temp_directory_path() / "kelctl-XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    directory_ = pattern;
    for (const char* variable : {"KORVEL_RUN_DIR", "KORVEL_STATE_DIR", "KORVEL_CONF_DIR"}) {
      ::setenv(variable, directory_.c_str(), 1);
    }
    ::setenv("KORVEL_HOST", ("model:" + (directory_ / "host.json").string()).c_str(), 1);
    std::ofstream(directory_ / "host.json") << "{}";
  }
  void TearDown() override {
    for (const char* variable : {"KORVEL_RUN_DIR", "KORVEL_STATE_DIR", "KORVEL_CONF_DIR", "KORVEL_HOST"}) {
      ::unsetenv(variable);
    }
    std::filesystem::remove_all(directory_);
  }

  static Result run(const Words& words) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int status = kelctl::runTool(words);
    return {status, testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr()};
  }

  std::filesystem::path directory_;
};

TEST_F(ToolTest, HelpIsThereForEverySubCommand) {
  const Result all = run({"--help"});
  EXPECT_EQ(all.status, kDone);
  for (const kelctl::Command& command : kelctl::commands()) {
    EXPECT_NE(all.out.find(std::string("  ") + command.name + " "), std::string::npos) << command.name;
    const Result help = run({command.name, "--help"});
    EXPECT_EQ(help.status, kDone) << command.name;
    EXPECT_NE(help.out.find(std::string("kelctl ") + command.name), std::string::npos) << command.name;
    EXPECT_EQ(help.error, "") << command.name;
  }
}

TEST_F(ToolTest, VersionIsTheProjects) {
  EXPECT_TRUE(run({"--version"}).out.starts_with("kelctl "));
}

TEST_F(ToolTest, WrongUsageHasItsOwnStatusAndSaysSoInOneLine) {
  for (const Words& words : {Words{},
                             {"nope"},
                             {"--nope"},
                             {"emit"},
                             {"emit", "kel.x", "bad"},
                             {"emit", "kel.x", "--nope"},
                             {"emit", "--file", "f", "kel.x"},
                             {"emit", "kel.x", "s:" + std::string(200000, 'x')},
                             {"trace", "--nope"},
                             {"trace", "--in", "--out"},
                             {"trace", "x"},
                             {"capture"},
                             {"capture", "a", "b"},
                             {"capture", "a", "--append", "--force"},
                             {"capture", "a", "--rotate", "0"},
                             {"capture", "a", "--rotate", "64m"},
                             {"capture", "a", "--keep", "3"},
                             {"capture", "a", "--rotate", "1M", "--keep", "0"},
                             {"capture", "a", "--duration", "0"},
                             {"capture", "a", "--no-facts", "--facts-every", "2"},
                             {"capture", "-", "--append"},
                             {"capture", "-", "--force"},
                             {"capture", "-", "--rotate", "1M"},
                             {"events", "--count", "0"},
                             {"events", "--count", "x"},
                             {"events", "--timeout", "0"},
                             {"events", "--timeout", "nan"},
                             {"option"},
                             {"option", "get"},
                             {"option", "set", "A/B"},
                             {"option", "set", "A/B", "x"},
                             {"option", "get", "AB"},
                             {"option", "nope"},
                             {"host", "--nope"},
                             {"host", "--dry-run"},
                             {"host", "--dry-run", ""},
                             {"host", "--dry-run", "nic.down"},
                             {"host", "--dry-run", "nic.down:"},
                             {"host", "--dry-run", "cpu.offline:-1"},
                             {"host", "--dry-run", "page.retire:0x10000000000000000"},
                             {"host", "--dry-run", "vm.kill:web01"},
                             {"host", "--dry-run", "swap.reconfigure:now"},
                             {"host", "--dry-run", "option.set:A/b"},
                             {"host", "--json", "--dry-run", "swap.reconfigure"},
                             {"catalog", "--json", "--markdown"}}) {
    const Result result = run(words);
    EXPECT_EQ(result.status, kUsage) << testing::PrintToString(words);
    EXPECT_EQ(result.out, "") << testing::PrintToString(words);
    EXPECT_TRUE(result.error.starts_with("kelctl: ")) << result.error;
    EXPECT_EQ(result.error.find('\n'), result.error.size() - 1) << result.error;
  }
}

TEST_F(ToolTest, AMissingDaemonIsAFailureThatSaysWhatToLookAt) {
  const std::string runDirectory = directory_.string();
  const Result trace = run({"trace"});
  EXPECT_EQ(trace.status, kFailed);
  EXPECT_EQ(trace.error, "kelctl: cannot reach keld's trace socket at " + runDirectory +
                             "/keld-trace.sock: No such file or directory; is keld running?\n");
  const Result emit = run({"emit", "kel.x"});
  EXPECT_EQ(emit.status, kFailed);
  EXPECT_EQ(emit.error, "kelctl: cannot reach keld at " + runDirectory +
                            "/kel/async-00.sock: No such file or directory; is keld running?\n");
}

TEST_F(ToolTest, BadLinesOfAFileAreReportedWithTheirNumbers) {
  const std::string file = (directory_ / "lines").string();
  std::ofstream(file) << "# comment\n\nkel.x bad\nkel.x 'open\n";
  const Result result = run({"emit", "--file", file});
  EXPECT_EQ(result.status, kFailed);
  EXPECT_EQ(result.error, "kelctl: " + file +
                              ":3: 'bad' is no argument: write s:TEXT, n:, i:N, u:N, l:N, L:N or d:X, not sent\n" +
                              "kelctl: " + file + ":4: a single quote is not closed, not sent\n");
}

TEST_F(ToolTest, AFileWithoutObservationsIsDoneAtOnce) {
  const std::string file = (directory_ / "lines").string();
  std::ofstream(file) << "# comment\n\n";
  EXPECT_EQ(run({"emit", "--file", file}).status, kDone);
}

TEST_F(ToolTest, AFileThatIsNotThereIsAFailure) {
  EXPECT_EQ(run({"emit", "--file", (directory_ / "none").string()}).status, kFailed);
}

TEST_F(ToolTest, OptionsAreStoredAndRead) {
  EXPECT_EQ(run({"option", "get", "Net/LinkFlappingThreshold"}).out, "0\n");
  EXPECT_EQ(run({"option", "set", "Net/LinkFlappingThreshold", "3"}).status, kDone);
  EXPECT_EQ(run({"option", "get", "Net/LinkFlappingThreshold"}).out, "3\n");
  EXPECT_EQ(run({"option", "set", "Net/LinkFlappingThreshold", "-1"}).status, kDone);
  EXPECT_EQ(run({"option", "get", "Net/LinkFlappingThreshold"}).out, "-1\n");
  EXPECT_NE(run({"option", "list"}).out.find("Net/LinkFlappingThreshold = -1  # stored\n"), std::string::npos);
}

TEST_F(ToolTest, AnUnknownOptionIsAFailure) {
  EXPECT_EQ(run({"option", "get", "No/Such"}).status, kFailed);
}

TEST_F(ToolTest, TheHostIsShownAsTextAndAsJson) {
  const Result text = run({"host"});
  EXPECT_EQ(text.status, kDone);
  EXPECT_TRUE(text.out.starts_with("host: model:")) << text.out;
  EXPECT_TRUE(run({"host", "--json"}).out.starts_with("{\n  \"host\": \"model:"));
}

TEST_F(ToolTest, ADryRunPrintsTheActionsLineAndDoesNothing) {
  std::ofstream(directory_ / "host.json") << R"({"vms": [{"worldId": 4711, "name": "web01"}]})";
  const std::pair<const char*, const char*> lines[] = {
      {"nic.down:vmnic0", R"({"action":"nic.down","nic":"vmnic0"})"},
      {"cpu.offline:3", R"({"action":"cpu.offline","cpu":3})"},
      {"page.retire:0x1234", R"({"action":"page.retire","page":4660,"count":1,"mode":"NiceRetire"})"},
      {"vm.kill:4711", R"({"action":"vm.kill","worldId":4711,"name":"web01"})"},
      {"swap.reconfigure", R"({"action":"swap.reconfigure"})"}};
  for (const auto& [action, line] : lines) {
    const Result planned = run({"host", "--dry-run", action});
    EXPECT_EQ(planned.status, kDone) << planned.error;
    EXPECT_EQ(planned.out, std::string(line) + "\n");
  }
  EXPECT_FALSE(std::filesystem::exists(directory_ / "host-actions.jsonl"));
  EXPECT_FALSE(std::filesystem::exists(directory_ / "audit.jsonl"));
}

TEST_F(ToolTest, ADryRunSaysInOneLineWhyAnActionWouldFail) {
  std::ofstream(directory_ / "host.json") << R"({"failures": {"swap.reconfigure": "no\nswap"}})";
  const Result swap = run({"host", "--dry-run", "swap.reconfigure"});
  EXPECT_EQ(swap.status, kFailed);
  EXPECT_EQ(swap.out, "");
  EXPECT_EQ(swap.error, "kelctl: swap.reconfigure would fail: no\\nswap\n");
  const Result vm = run({"host", "--dry-run", "vm.kill:4711"});
  EXPECT_EQ(vm.status, kFailed);
  EXPECT_EQ(vm.error, "kelctl: vm.kill:4711 would fail: the model has no such VM\n");
}

TEST_F(ToolTest, EventsEndsWhenItsTimeIsOver) {
  EXPECT_EQ(run({"events", "--timeout", "0.001"}).status, kDone);
  EXPECT_EQ(run({"events", "--timeout", "0.001", "--count", "1"}).status, kFailed);
}

}  // namespace
