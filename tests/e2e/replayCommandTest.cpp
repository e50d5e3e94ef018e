// kelctl replay and explain as programs: whatever is in the file, and whether there is one.
#include <gmock/gmock.h>

#include <algorithm>

#include "endToEnd.h"

namespace e2e {
namespace {

using support::i;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;
using Words = std::vector<std::string>;

const std::string kHost = R"({"vms": [{"worldId": 4711, "groupId": 12, "name": "web01"}]})";
/// Its text names the virtual machine, which only the host knows.
const std::string kObservation = "kel.net.e1000.tso6.notsupported";
const std::string kEvent = "orn.problem.net.e1000.tso6.notsupported";
const std::string kText =
    "Guest-initiated IPv6 TCP Segmentation Offload (TSO) packets ignored. Manually disable TSO inside the guest "
    "operating system in Virtual Machine web01, or use a different virtual adapter.";

/// One line of complaint, behind the program's name.
std::string complaint(const std::string& text) {
  return "kelctl: " + text + "\n";
}

class Replaying : public EndToEnd {
 protected:
  [[nodiscard]] std::string path() const { return workspace().root() + "/a.capture"; }
  [[nodiscard]] Outcome kelctl(const Words& words) const { return run(workspace(), KELCTL_PROGRAM, words); }
  /// Exit status `status`, one line of complaint and nothing else.
  void expectRefused(const Words& words, int status, const std::string& line) const {
    SCOPED_TRACE(testing::PrintToString(words));
    const Outcome outcome = kelctl(words);
    EXPECT_TRUE(outcome.ending.with(status)) << outcome.ending.text();
    EXPECT_EQ(outcome.output, "");
    EXPECT_EQ(outcome.error, complaint(line));
  }
};

TEST_F(Replaying, APlainReadOfTheTraceIsACaptureWhoseHostIsGiven) {
  workspace().setModel(kHost);
  const EventReceiver agent(workspace().eventSocket());
  Daemon daemon(workspace());
  daemon.startAndServe();
  Emitter::toContext(workspace()).send(kObservation, {i(12)});
  const std::string in = daemon.trace().nextRaw() + "\n";
  const std::string out = daemon.trace().nextRaw() + "\n";
  ASSERT_THAT(out, HasSubstr(",OUT,"));
  ASSERT_TRUE(daemon.terminate().with(0));
  replaceFile(path(), in + out);
  // The file's own host is none: the daemon's is gone with its model.
  workspace().setModel("{}");
  const std::string model = workspace().root() + "/that-host.json";
  replaceFile(model, kHost);

  const Outcome same = kelctl({"replay", path(), "--diff", "--host", "model:" + model});
  EXPECT_TRUE(same.ending.with(0));
  EXPECT_EQ(same.output + same.error, "");
  const Outcome text = kelctl({"replay", path(), "--text", "--host", "model:" + model});
  EXPECT_THAT(text.output, EndsWith("Z problem " + kEvent + " " + kText + "\n"));
  const Outcome why = kelctl({"explain", path(), "--host", "model:" + model});
  EXPECT_TRUE(why.ending.with(0)) << why.error;
  EXPECT_THAT(why.output, HasSubstr(" line 1: " + kObservation + " 12\n"));
  EXPECT_THAT(why.output, HasSubstr(kText));

  const Outcome without = kelctl({"replay", path(), "--diff"});
  EXPECT_TRUE(without.ending.with(1));
  EXPECT_THAT(without.output, HasSubstr("\n-"));
  EXPECT_THAT(without.output, HasSubstr(kEvent));
}

TEST_F(Replaying, TheRunningDaemonsRecentHistoryIsExplainedWithItsNumbers) {
  const EventReceiver agent(workspace().eventSocket());
  Daemon daemon(workspace());
  daemon.startAndServe();
  const Emitter emitter = Emitter::toContext(workspace());
  emitter.send("kel.clock.state.reset");
  daemon.trace().waitFor("OUT", "orn.problem.clock.state.reset");
  emitter.send("kel.clock.state.reset");
  daemon.trace().waitFor("IN", "kel.clock.state.reset");

  const Outcome told = kelctl({"explain", "--id", "kel.clock.*"});
  EXPECT_TRUE(told.ending.with(0)) << told.error;
  const std::size_t second = told.output.rfind(": kel.clock.state.reset\n");
  ASSERT_NE(second, std::string::npos) << told.output;
  EXPECT_THAT(told.output.substr(0, second), HasSubstr("\n    problem orn.problem.clock.state.reset\n"));
  EXPECT_THAT(told.output.substr(second), testing::ContainsRegex("held off: last posted [0-9]+ s ago, limit 3600 s"));
  EXPECT_THAT(told.output.substr(second), EndsWith("\n    no event now\n"));

  expectRefused({"explain", "--id", "kel.net.*"}, 1, "nothing there that was asked for");
  expectRefused({"explain", "--event", "orn.clear.*"}, 1, "nothing there that was asked for");
  ASSERT_TRUE(daemon.terminate().with(0));
  EXPECT_THAT(kelctl({"explain"}).error, HasSubstr("is keld running?"));
}

TEST_F(Replaying, WhatCannotBeReadIsToldByItsLineAndTheRestGoesOn) {
  replaceFile(path(),
              "#keld-capture 1 {}\n"
              "1767225600.100000000,IN,1767225600099000,kel.net.firewall.disabled,\n"
              "so much for this line\n"
              "#facts 1767225600.200000000 {\n"
              "1767225601.100000000,IN,1767225601099000,kel.net.firewall.disabled,\n"
              "#end 1767225610.000000000\n");
  const std::string end = " audit   orn.audit.net.firewall.disabled Firewall has been disabled.\n";
  const Outcome outcome = kelctl({"replay", path(), "--text"});
  EXPECT_TRUE(outcome.ending.with(0)) << outcome.ending.text();
  EXPECT_EQ(outcome.output, "2026-01-01T00:00:00.100000Z" + end + "2026-01-01T00:00:01.100000Z" + end);
  EXPECT_THAT(outcome.error, StartsWith("kelctl: " + path() + ":3: "));
  EXPECT_THAT(outcome.error, HasSubstr("; left out\nkelctl: " + path() + ":4: "));
  EXPECT_EQ(std::count(outcome.error.begin(), outcome.error.end(), '\n'), 2);

  const Outcome strict = kelctl({"replay", path(), "--text", "--strict"});
  EXPECT_TRUE(strict.ending.with(1)) << strict.ending.text();
  EXPECT_THAT(strict.error, StartsWith("kelctl: " + path() + ":3: "));
  EXPECT_EQ(std::count(strict.error.begin(), strict.error.end(), '\n'), 1);
  EXPECT_EQ(strict.output.find("00:00:01"), std::string::npos);
}

TEST_F(Replaying, AnOptionThatMayBeRepeatedTakesOneWordEachTime) {
  replaceFile(path(), "1767225600.100000000,IN,1767225600099000,kel.net.firewall.disabled,\n");
  for (const char* const command : {"replay", "explain"}) {
    const Outcome outcome =
        kelctl({command, "--option", "Net/LinkFlappingThreshold=3", "--id", "kel.net.*", "--id", "orn.*", path()});
    EXPECT_TRUE(outcome.ending.with(0)) << command << ": " << outcome.error;
    EXPECT_THAT(outcome.output, HasSubstr("orn.audit.net.firewall.disabled"));
  }
}

TEST_F(Replaying, WhatCannotBeDoneIsToldInOneLine) {
  replaceFile(path(), "1767225600.100000000,IN,1767225600099000,kel.net.firewall.disabled,\n");
  const std::string missing = workspace().root() + "/missing.capture";
  for (const char* const command : {"replay", "explain"}) {
    expectRefused({command, missing}, 1, "cannot open " + missing + ": No such file or directory");
    expectRefused({command, path(), "--option", "Net/LinkFlappingThreshold"}, 2,
                  "--option takes GROUP/NAME=VALUE with a whole number, not 'Net/LinkFlappingThreshold'");
    expectRefused({command, path(), "--option", "Net/LinkFlappingThreshold=three"}, 2,
                  "--option takes GROUP/NAME=VALUE with a whole number, not 'Net/LinkFlappingThreshold=three'");
    expectRefused({command, path(), "--from", "noon"}, 2,
                  "--from takes a time such as 2026-01-01T00:00:00Z or 1767225600");
    expectRefused({command, path(), "--host", "model:" + missing}, 1,
                  "cannot read " + missing + ": No such file or directory");
  }
}

}  // namespace
}  // namespace e2e
