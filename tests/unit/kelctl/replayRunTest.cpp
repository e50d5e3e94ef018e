#include "replayRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "captureText.h"
#include "failure.h"

namespace {

using kelctl::ReplayForm;
using kelctl::ReplayInput;
using support::in;
using support::inactive;
using support::inactiveLine;
using support::inputOf;
using support::linkDown;
using support::linkDownLine;
using support::moment;
using support::note;
using support::Replayed;
using support::replayed;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

const std::string kEnd = note("end", 10'000);

/// A capture in which a NIC goes down twice under a header.
std::string twoDowns(const std::string& header, const std::string& between = "") {
  return "#keld-capture 1 " + header + '\n' + linkDown(0) + between + linkDown(2000) + kEnd;
}

constexpr const char* kTakenDown =
    "2026-01-01T00:00:02.000000Z action  {\"action\":\"nic.down\",\"nic\":\"qnic0\"}\n"
    "2026-01-01T00:00:02.000000Z problem orn.problem.net.qnic.linkstate.flapping Taking down physical NIC qnic0 "
    "because "
    "the link is flapping.\n";
constexpr const char* kThresholdOfOne = R"({"Net/LinkFlappingThreshold":1})";
constexpr const char* kThresholdOff = R"({"Net/LinkFlappingThreshold":0})";

bool takesDown(const ReplayInput& input) {
  return replayed(input).lines.find(kTakenDown) != std::string::npos;
}
bool takesDown(const std::string& capture) {
  return takesDown(inputOf(capture));
}

std::string header(const std::string& options, const std::string& facts) {
  return "{\"options\":" + options + ",\"facts\":" + facts + '}';
}

class Directory {
 public:
  Directory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "replay-XXXXXX").string();
    EXPECT_NE(::mkdtemp(pattern.data()), nullptr);
    path_ = pattern;
  }
  Directory(const Directory&) = delete;
  Directory& operator=(const Directory&) = delete;
  ~Directory() { std::filesystem::remove_all(path_); }
  [[nodiscard]] std::string file(const std::string& name, const std::string& content) const {
    std::ofstream(path_ / name, std::ios::binary) << content;
    return (path_ / name).string();
  }

 private:
  std::filesystem::path path_;
};

TEST(ReplayOptions, OfTheHeaderGoBeforeThoseOfItsFacts) {
  const std::string facts = std::string("{\"options\":") + kThresholdOff + '}';
  EXPECT_TRUE(takesDown(twoDowns(header(kThresholdOfOne, facts))));
  EXPECT_FALSE(takesDown(twoDowns(header("{}", facts))));
  EXPECT_TRUE(takesDown(twoDowns(header("{}", std::string("{\"options\":") + kThresholdOfOne + '}'))));
}

TEST(ReplayOptions, ChangeWithTheFacts) {
  EXPECT_TRUE(takesDown(twoDowns(header(kThresholdOff, "{}"),
                                 note("facts", 1000, std::string("{\"options\":") + kThresholdOfOne + '}'))));
}

TEST(ReplayOptions, OfTheCommandLineGoBeforeAllAlsoBehindAChangeOfFacts) {
  const std::string off = note("facts", 1000, std::string("{\"options\":") + kThresholdOff + '}');
  ReplayInput input = inputOf(twoDowns(header(kThresholdOff, "{}"), off));
  EXPECT_FALSE(takesDown(input));
  kelctl::addOption(input.options, "Net/LinkFlappingThreshold=1");
  EXPECT_TRUE(takesDown(input));
}

TEST(ReplayOptions, OfTheCommandLineHoldWithoutAHeader) {
  ReplayInput input = inputOf(linkDown(0) + linkDown(2000) + kEnd);
  kelctl::addOption(input.options, "Net/LinkFlappingThreshold=1");
  EXPECT_TRUE(takesDown(input));
}

TEST(ReplayOptions, AreReadFromWords) {
  kelctl::Json options = kelctl::Json::object();
  kelctl::addOption(options, "Net/LinkFlappingThreshold=3");
  kelctl::addOption(options, "a/b=-1");
  EXPECT_EQ(options, kelctl::Json::parse(R"({"Net/LinkFlappingThreshold":3,"a/b":-1})"));
  for (const char* const words : {"", "a", "a/b", "a/b=", "a/b=x", "a/b=1.5", "=1", "a=b/1", "a=1", "a/b=1 "}) {
    EXPECT_THROW(kelctl::addOption(options, words), kelctl::UsageError) << words;
  }
}

TEST(ReplayHost, OfAFileTakesThePlaceOfTheCapturesFacts) {
  const Directory directory;
  const std::string off = note("facts", 1000, std::string("{\"options\":") + kThresholdOff + '}');
  ReplayInput input = inputOf(twoDowns(header(kThresholdOff, "{}"), off));
  input.host = "model:" + directory.file("host.json", std::string("{\"options\":") + kThresholdOfOne + '}');
  EXPECT_TRUE(takesDown(input));
}

TEST(ReplayHost, OfAFileIsRefusedWhereItIsNone) {
  const Directory directory;
  ReplayInput input = inputOf(inactive(0));
  for (const char* const content : {"", "[]", "{", R"({"options":[]})", R"({"vms":{}})"}) {
    input.host = "model:" + directory.file("host.json", content);
    EXPECT_THROW(replayed(input), kelctl::Failure) << content;
  }
  input.host = "model:/nonexistent/host.json";
  EXPECT_THROW(replayed(input), kelctl::Failure);
  input.host = "linux";
  EXPECT_THROW(replayed(input), kelctl::UsageError);
}

TEST(ReplayFacts, ThatAreNoHostAreRefusedAndChangeNothing) {
  for (const char* const patch :
       {R"({"options":[1]})", R"({"options":{"Net/LinkFlappingThreshold":"many"}})", R"({"portGroups":["a"]})",
        R"({"options":{"Net/LinkFlappingThreshold":99999999999999999999}})", R"({"vms":{"a":1}})", R"({"cpu":7})",
        R"({"options":{"Net/LinkFlappingThreshold":0},"cpu":{"cores":-1}})", R"({"options":7})"}) {
    const std::string capture = twoDowns(header(kThresholdOfOne, "{}"), note("facts", 1000, patch));
    const Replayed result = replayed(capture);
    EXPECT_EQ(result.bad, 1U) << patch;
    EXPECT_THAT(result.complaints, StartsWith("kelctl: the.capture:3: ")) << patch;
    EXPECT_THAT(result.lines, HasSubstr(kTakenDown)) << patch;
    ReplayInput input = inputOf(capture);
    kelctl::addOption(input.options, "Net/LinkFlappingThreshold=0");
    EXPECT_FALSE(takesDown(input)) << patch;
  }
}

TEST(ReplayFacts, OfAHeaderThatAreNoHostAreRefusedAndTheLinesReplayed) {
  for (const char* const facts : {R"({"options":[1]})", R"({"options":7})", R"({"portGroups":7})"}) {
    const Replayed result = replayed(twoDowns(header(kThresholdOfOne, facts)));
    EXPECT_EQ(result.bad, 1U) << facts;
    EXPECT_EQ(result.lines, linkDownLine("00:00:01.000000") + linkDownLine("00:00:03.000000")) << facts;
  }
}

TEST(ReplayFacts, MayBeNegativeOrHuge) {
  EXPECT_EQ(replayed(twoDowns(header(R"({"Net/LinkFlappingThreshold":-1})", "{}"))).bad, 0U);
  EXPECT_EQ(replayed(twoDowns(header(R"({"Net/LinkFlappingThreshold":9223372036854775807})", "{}"))).bad, 0U);
  EXPECT_EQ(replayed(twoDowns(header(R"({"Net/LinkFlappingThreshold":9223372036854775808})", "{}"))).bad, 1U);
}

TEST(ReplayObservation, HasNullStringsAndNumbersThatNobodyReads) {
  EXPECT_EQ(replayed(inactive(0, "(null)")).lines, inactiveLine("00:00:00.000000", "(null)"));
  EXPECT_EQ(replayed(in(0, "kel.net.lacp.uplink.inactive", ",\"msw1\",???")).lines, inactiveLine("00:00:00.000000"));
  EXPECT_EQ(replayed(in(0, "kel.net.lacp.uplink.inactive", ",???")).lines, "");
}

TEST(ReplayObservation, HasIntegersAsWideAsTheyAreRead) {
  constexpr const char* kLatency =
      "2026-01-01T00:00:00.000000Z problem orn.problem.scsi.device.io.latency.high Device naa.1 performance has "
      "deteriorated. I/O latency increased from average value of 7 microseconds to 5000000000 microseconds.\n";
  EXPECT_EQ(replayed(in(0, "kel.scsi.device.io.latency.high", ",\"naa.1\",7,5000000000")).lines, kLatency);
  constexpr const char* kThreads =
      "2026-01-01T00:00:00.000000Z problem orn.problem.cpu.smp.ht.invalid Disabling HyperThreading due to invalid "
      "configuration: Number of threads: 7, Number of PCPUs: -1.\n";
  EXPECT_EQ(replayed(in(0, "kel.cpu.smp.ht.invalid", ",7,-1")).lines, kThreads);
  EXPECT_EQ(replayed(in(0, "kel.cpu.smp.ht.invalid", ",7,4294967295")).lines, kThreads);
}

TEST(ReplayObservation, WithANulIsRefused) {
  const std::string nul(1, '\0');
  const Replayed result = replayed(in(0, "kel.net" + nul) + inactive(0, "a" + nul) + inactive(1000));
  EXPECT_EQ(result.bad, 2U);
  EXPECT_EQ(result.lines, inactiveLine("00:00:01.000000"));
}

TEST(ReplayObservation, MayBeAnything) {
  std::string capture = in(0, "") + in(0, "kel") + in(0, "kel.") + in(0, "kel.net.") +
                        in(0, std::string(100'000, 'x')) +
                        in(0, "kel.net.lacp.uplink.inactive", std::string(20'000, ',').replace(1, 0, "1")) +
                        in(0, "kel.net.lacp.uplink.inactive", ",-9223372036854775808,18446744073709551615") +
                        in(0, "kel.uw.core.dumped", ",\"\",-1,\"\"");
  for (int n = 0; n < 1000; ++n) capture += in(0, "kel.\x1b[31m.", ",\"\x1b\xff\"");
  const Replayed result = replayed(capture + inactive(1000));
  EXPECT_THAT(result.lines, testing::EndsWith(inactiveLine("00:00:01.000000")));
  EXPECT_THAT(result.complaints, Not(HasSubstr("\x1b")));
}

TEST(ReplayLine, ThatCannotBeReadIsToldByItsNumberAndLeftOut) {
  const Replayed result = replayed("hello\n" + in(0, "kel.x", ",\"a\nb\"") + "#what 1.000000000\n" + inactive(0));
  EXPECT_EQ(result.bad, 2U);
  EXPECT_EQ(result.lines, inactiveLine("00:00:00.000000"));
  EXPECT_THAT(result.complaints, StartsWith("kelctl: the.capture:1: "));
  EXPECT_THAT(result.complaints, HasSubstr("\nkelctl: the.capture:4: "));
}

TEST(ReplayLine, ThatCannotBeReadIsToldTwentyTimesAtMost) {
  std::string capture = inactive(0);
  for (int n = 0; n < 1000; ++n) capture += "hello\n";
  const Replayed result = replayed(capture);
  EXPECT_EQ(result.bad, 1000U);
  EXPECT_THAT(result.complaints, HasSubstr("the.capture:21: "));
  EXPECT_THAT(result.complaints, Not(HasSubstr("the.capture:22: ")));
}

TEST(ReplayLine, ThatCannotBeReadEndsAStrictReplay) {
  ReplayInput input = inputOf(inactive(0) + "hello\n" + inactive(1000));
  input.strict = true;
  std::string lines;
  kelctl::ReplayLines watcher(ReplayForm::text, {}, {}, [&](std::string_view line) { lines += line; });
  try {
    kelctl::replay(input, watcher);
    FAIL() << "no failure";
  } catch (const kelctl::Failure& failure) {
    EXPECT_THAT(failure.what(), StartsWith("the.capture:2: "));
  }
  EXPECT_EQ(lines, inactiveLine("00:00:00.000000"));
}

TEST(ReplayLine, WithFactsThatAreNoHostEndsAStrictReplay) {
  ReplayInput input = inputOf(inactive(0) + note("facts", 1000, R"({"options":[1]})"));
  input.strict = true;
  EXPECT_THROW(replayed(input), kelctl::Failure);
}

TEST(ReplayLine, BehindTheEndIsRefused) {
  const Replayed result = replayed(inactive(0) + note("end", 1000) + inactive(2000) + note("restart", 3000));
  EXPECT_EQ(result.lines, inactiveLine("00:00:00.000000"));
  EXPECT_EQ(result.bad, 2U);
  EXPECT_THAT(result.complaints, StartsWith("kelctl: the.capture:3: "));
}

TEST(ReplayLine, CutAtTheEndIsLeftOutWithoutAWord) {
  const std::string last = inactive(1000);
  const Replayed result = replayed(inactive(0) + last.substr(0, last.size() - 1));
  EXPECT_EQ(result.lines, inactiveLine("00:00:00.000000"));
  EXPECT_EQ(result.complaints, "");
}

TEST(ReplayLine, OfAnEventIsNotRead) {
  EXPECT_EQ(replayed(support::out(0, "orn.problem.net.lacp.uplink.inactive", ",\"msw1\"") + inactive(0)).lines,
            inactiveLine("00:00:00.000000"));
}

TEST(ReplayFile, ThatIsNoCaptureFails) {
  EXPECT_THROW(replayed("hello\nworld\n"), kelctl::Failure);
  EXPECT_THROW(replayed(std::string(100'000, '\0') + "\n"), kelctl::Failure);
  EXPECT_THROW(replayed("#keld-capture 2 {}\n"), kelctl::Failure);
}

TEST(ReplayFile, WithNothingInItSaysNothing) {
  for (const char* const capture : {"", "\n\n", "# a comment\n", "#keld-capture 1 {}\n"}) {
    const Replayed result = replayed(std::string(capture));
    EXPECT_EQ(result.lines + result.complaints, "") << capture;
  }
}

TEST(ReplayFile, ThatIsNotThereFailsWithItsName) {
  ReplayInput input;
  input.file = "/nonexistent/the.capture";
  try {
    replayed(input);
    FAIL() << "no failure";
  } catch (const kelctl::Failure& failure) {
    EXPECT_THAT(failure.what(), HasSubstr("/nonexistent/the.capture"));
  }
  input.file = "/";
  EXPECT_THROW(replayed(input), kelctl::Failure);
}

TEST(ReplayFile, IsReadFromStandardInput) {
  const Directory directory;
  const std::string file = directory.file("a.capture", "hello\n" + inactive(0));
  std::FILE* const input = std::freopen(file.c_str(), "re", stdin);
  ASSERT_NE(input, nullptr);
  ReplayInput wanted;
  wanted.file = "-";
  const Replayed result = replayed(wanted);
  EXPECT_EQ(result.lines, inactiveLine("00:00:00.000000"));
  EXPECT_THAT(result.complaints, StartsWith("kelctl: standard input:1: "));
}

TEST(ReplayFile, GivesTheSameBytesEachTime) {
  std::string capture =
      "#keld-capture 1 " + header(kThresholdOfOne, R"({"portGroups":{"Production":"switch0"}})") + '\n';
  for (int n = 0; n < 50; ++n) {
    const std::string nic = "qnic" + std::to_string(n % 7);
    capture += linkDown(n * 300, nic) + inactive(n * 300 + 100);
    capture += in(n * 300 + 200, "kel.net.pg.uplink.transition.down", ",\"" + nic + "\",\"Production\",0,1");
    if (n == 20) capture += note("agent", n * 300 + 250, "away");
  }
  for (const ReplayForm form : {ReplayForm::trace, ReplayForm::text, ReplayForm::json}) {
    const std::string first = replayed(inputOf(capture), form).lines;
    EXPECT_NE(first, "");
    EXPECT_EQ(replayed(inputOf(capture), form).lines, first);
  }
}

TEST(ReplayTime, FiresTimersInAGapAtTheirOwnSeconds) {
  EXPECT_EQ(replayed(linkDown(100) + inactive(3'600'500)).lines,
            linkDownLine("00:00:01.000000") + inactiveLine("01:00:00.500000"));
}

TEST(ReplayTime, OfPendingRecordsIsTenSecondsBehindTheLastLine) {
  EXPECT_EQ(replayed(linkDown(0)).lines, linkDownLine("00:00:01.000000"));
  EXPECT_EQ(replayed(linkDown(0) + note("end", 500)).lines, "");
}

/// Counts the steps that begin.
class Steps final : public kelctl::ReplayWatcher {
 public:
  void begins(const kelctl::ReplayStep& step) override {
    all_.push_back(step.what);
    last_ = step.time;
  }
  [[nodiscard]] const std::vector<kelctl::ReplayStep::What>& all() const { return all_; }
  [[nodiscard]] WallTime last() const { return last_; }

 private:
  std::vector<kelctl::ReplayStep::What> all_;
  WallTime last_;
};

TEST(ReplayTime, OfAYearWithoutObservationsPassesAtOnce) {
  constexpr std::int64_t kYear = 365LL * 24 * 3600 * 1000;
  Steps steps;
  kelctl::replay(inputOf(inactive(0) + inactive(kYear) + note("end", kYear + 1000)), steps);
  EXPECT_LT(steps.all().size(), 1000U);
  EXPECT_EQ(steps.last().time_since_epoch(), std::chrono::milliseconds(support::kCaptureStart * 1000 + kYear + 1000));
}

TEST(ReplayTime, ThatIsSetBackLetsNonePass) {
  // The report is due at the second 101 of a clock that shows it only later.
  EXPECT_EQ(replayed(linkDown(100'000) + note("step", 100'500, moment(0)) + inactive(50'000) + inactive(101'500)).lines,
            inactiveLine("00:00:50.000000") + linkDownLine("00:01:41.000000") + inactiveLine("00:01:41.500000"));
}

TEST(ReplayTime, ThatIsSetForwardFiresWhatItPasses) {
  EXPECT_EQ(replayed(linkDown(0) + note("step", 500, moment(3'600'000)) + inactive(3'600'250)).lines,
            linkDownLine("01:00:00.000000") + inactiveLine("01:00:00.250000"));
}

TEST(ReplayTime, OfALineBeforeTheLastIsAClockThatWasSetBack) {
  EXPECT_EQ(replayed(linkDown(100'000) + inactive(50'000) + inactive(101'500)).lines,
            inactiveLine("00:00:50.000000") + linkDownLine("00:01:41.000000") + inactiveLine("00:01:41.500000"));
}

TEST(ReplayTime, EndsWhereItIsToldTo) {
  ReplayInput input = inputOf(linkDown(0) + inactive(5000) + note("end", 10'000));
  input.until = kelctl::parseTime("--until", "2026-01-01T00:00:03Z");
  EXPECT_EQ(replayed(input).lines, linkDownLine("00:00:01.000000"));
  input.until = kelctl::parseTime("--until", "2026-01-01T00:00:00Z");
  EXPECT_EQ(replayed(input).lines, "");
  input.until = kelctl::parseTime("--until", "2025-01-01");
  EXPECT_EQ(replayed(input).lines, "");
}

TEST(ReplayTime, AtTheEndOfAllTimeIsStillReplayed) {
  const Replayed result = replayed("9200000000.000000000,IN,1,kel.net.qnic.linkstate.down,,\"qnic0\"\n" +
                                   std::string("0.000000000,IN,1,kel.net.lacp.uplink.inactive,,\"msw1\"\n"));
  EXPECT_EQ(result.lines,
            "1970-01-01T00:00:00.000000Z problem orn.problem.net.lacp.uplink.inactive All uplinks on MSW msw1 must be "
            "active for LACP\n");
}

TEST(ReplayTime, IsReadFromWords) {
  const auto seconds = [](const char* text) {
    return kelctl::parseTime("--from", text).time_since_epoch() / std::chrono::nanoseconds(1);
  };
  EXPECT_EQ(seconds("1767225600"), 1'767'225'600'000'000'000);
  EXPECT_EQ(seconds("1767225600.000000042"), 1'767'225'600'000'000'042);
  EXPECT_EQ(seconds("2026-01-01T00:00:00Z"), 1'767'225'600'000'000'000);
  EXPECT_EQ(seconds("2026-01-01T00:00:00.000042Z"), 1'767'225'600'000'042'000);
  EXPECT_EQ(seconds("2026-01-01T12:34:56"), 1'767'270'896'000'000'000);
  EXPECT_EQ(seconds("2026-01-01T12"), 1'767'268'800'000'000'000);
  EXPECT_EQ(seconds("2026-01-02"), 1'767'312'000'000'000'000);
  EXPECT_EQ(seconds("1970-01-01"), 0);
  for (const char* const text :
       {"", "x", "-1", "2026-13-01", "2026-02-29", "2026-01-01T24:00:00Z", "2026-01-01T00:60", "2026-01-01 00:00",
        "1969-12-31", "2261-01-01", "2026-01-01T00:00:00ZZ", "2026-01-01T00:00:00+01:00", "2026-01.5",
        "2026-01-01T12:30.5", "2026-01-01T00:00:00.", "9200000001", "2026-1-1", "2026/01/01"}) {
    EXPECT_THROW(kelctl::parseTime("--from", text), kelctl::UsageError) << text;
  }
}

TEST(ReplayRestart, ForgetsWhatThePreviousDaemonKnew) {
  // What waits, what is counted and what is held off.
  const std::string options = "#keld-capture 1 " + header(kThresholdOfOne, "{}") + '\n';
  EXPECT_EQ(replayed(options + linkDown(0) + note("restart", 500) + linkDown(2000) + kEnd).lines,
            linkDownLine("00:00:03.000000"));
  const std::string lease = "kel.user.dhclient.lease.offered.noexpiry";
  const std::string said =
      "Z problem orn.problem.dhclient.lease.offered.noexpiry No expiry time on offered DHCP lease from a.\n";
  EXPECT_EQ(replayed(in(0, lease, ",\"a\"") + in(1000, lease, ",\"a\"")).lines, "2026-01-01T00:00:00.000000" + said);
  EXPECT_EQ(replayed(in(0, lease, ",\"a\"") + note("restart", 500) + in(1000, lease, ",\"a\"")).lines,
            "2026-01-01T00:00:00.000000" + said + "2026-01-01T00:00:01.000000" + said);
}

TEST(ReplayRestart, KeepsTheHostsFacts) {
  EXPECT_TRUE(takesDown("#keld-capture 1 {}\n" +
                        note("facts", -2000 + 2000, std::string("{\"options\":") + kThresholdOfOne + '}') +
                        note("restart", 0) + linkDown(0) + linkDown(2000) + kEnd));
}

TEST(ReplayDaemon, ThatEndsItselfWhileItStartsComesBackWithOtherFacts) {
  const std::string capture =
      "#keld-capture 1 {\"facts\":{\"failures\":{\"option.read:PageRetire/ThresholdInterval\":5}}}\n" + inactive(0) +
      linkDown(500) + note("facts", 5000, R"({"failures":null})") + inactive(6000) + kEnd;
  EXPECT_EQ(replayed(capture).lines,
            "2026-01-01T00:00:00.000000Z stopped NOT_REACHED apps/keld/keldPageRetireCorrelator:189\\n\n" +
                inactiveLine("00:00:06.000000"));
}

TEST(ReplayDaemon, ThatEndsItselfWhileItStartsMayDoSoAgain) {
  const std::string stopped = "Z stopped NOT_REACHED apps/keld/keldPageRetireCorrelator:178\\n\n";
  const std::string capture = "#keld-capture 1 {\"facts\":{\"failures\":{\"pageRetire.threshold\":5}}}\n" +
                              inactive(0) + note("restart", 1000) + note("facts", 2000, "{}") + kEnd;
  EXPECT_EQ(replayed(capture).lines, "2026-01-01T00:00:00.000000" + stopped + "2026-01-01T00:00:01.000000" + stopped +
                                         "2026-01-01T00:00:02.000000" + stopped);
}

TEST(ReplayDaemon, ThatEndsItselfIsAFirstStart) {
  const std::string facts =
      R"({"storage":{"paths":{"q1":"naa.9"},"devices":{"naa.9":{"redundancyState":4,"disk":true,"partitions":[]}}}})";
  const std::string capture = "#keld-capture 1 {\"facts\":" + facts + "}\n" +
                              in(0, "kel.scsi.scsipath.pathstate.dead", ",\"q1\",\"on\"") + linkDown(500) +
                              in(600, "kel.scsi.scsipath.pathstate.on", ",\"q1\",\"dead\"") + inactive(2000);
  EXPECT_EQ(replayed(capture).lines,
            "2026-01-01T00:00:00.600000Z stopped NOT_REACHED apps/keld/keldScsiCorrelator:1050\\n\n" +
                inactiveLine("00:00:02.000000"));
}

TEST(ReplayForm, OfTheTraceIsWhatTheDaemonWrites) {
  EXPECT_EQ(replayed(inputOf(inactive(1500)), ReplayForm::trace).lines,
            "1767225601.500000000,OUT,1767225601500000,orn.problem.net.lacp.uplink.inactive,,\"msw1\"\n");
}

TEST(ReplayForm, InJsonHasOneObjectForEachLine) {
  const std::string capture = "#keld-capture 1 " + header(kThresholdOfOne, "{}") + '\n' + note("agent", 0, "away") +
                              linkDown(0) + linkDown(2000) + kEnd;
  const std::string text = replayed(inputOf(capture), ReplayForm::json).lines;
  std::vector<kelctl::Json> lines;
  for (std::size_t at = 0; at < text.size(); at = text.find('\n', at) + 1) {
    lines.push_back(kelctl::Json::parse(text.substr(at, text.find('\n', at) - at)));
  }
  ASSERT_EQ(lines.size(), 7U);
  EXPECT_EQ(lines[0]["kind"], "problem");
  EXPECT_EQ(lines[0]["time_us"], 1'767'225'601'000'000);
  EXPECT_EQ(lines[0]["event"], "orn.problem.net.qnic.linkstate.down");
  EXPECT_EQ(lines[0]["text"], "Physical NIC qnic0 linkstate is down");
  EXPECT_EQ(lines[0]["args"], kelctl::Json::parse(R"(["qnic0"])"));
  EXPECT_EQ(lines[1], kelctl::Json::parse(R"({"time_us":1767225601000000,"kind":"queued",)"
                                          R"("event":"orn.problem.net.qnic.linkstate.down"})"));
  EXPECT_EQ(lines[2], kelctl::Json::parse(R"({"time_us":1767225602000000,"kind":"action",)"
                                          R"("action":{"action":"nic.down","nic":"qnic0"}})"));
}

}  // namespace
