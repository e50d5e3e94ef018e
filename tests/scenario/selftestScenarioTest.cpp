#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "correlatorHarness.h"
#include "keldTestCorrelator.h"

namespace {

using namespace std::chrono_literals;
using support::i;
using support::L;
using support::l;
using support::s;
using support::u;

/// Where the process would have ended.
struct Exit {
  int status;
};

struct Sent {
  const char* id;
  std::vector<KelEmit::Argument> arguments;
  const char* message;
};

/// The 21 observations of a correct run, by the templates that a test tool would emit.
const std::vector<Sent>& correctRun() {
  static const std::string kLong = "some looong long long long long long string";
  static const std::vector<Sent> kRun = {
      {"kel.tests.async.noData", {}, "this is an observation with no data"},
      {"kel.tests.async.withPath", {s("/a/fake/path")}, "this is an observation with a complicated %s${path} path."},
      {"kel.tests.async.withLog", {}, "this is an ob with an associated Log message."},
      {"kel.tests.async.withWarn", {}, "this is an ob with an associated Warn message."},
      {"kel.tests.async.withIntParams",
       {i(-559038737), i(-559038737), l(-2401053088876216593)},
       "this is an observation with integer parameters. %d, %x, %ld"},
      {"kel.tests.async.withUintParams",
       {u(0xdeadbeef), u(0xdeadbeef), L(16045690984833335023ULL)},
       "this is an observation with unsigned integer parameters. %u, %x, %lu"},
      {"kel.tests.async.withStringParams", {s("some string")}, "this is an observation with a string parameter: %s"},
      {"kel.tests.async.withLongStringParam", {s(kLong)}, "this is an observation with a string parameter: %s"},
      {"kel.tests.async.withLongStringParams",
       {s(kLong), s("some string")},
       "this is an observation with a string parameter: %s and another: %s"},
      {"kel.tests.corrupt.format.empty", {}, nullptr},
      {"kel.tests.corrupt.format.doublepercent", {}, "%%"},
      {"kel.tests.corrupt.format.s.zeros", {s("")}, "%s"},
      {"kel.tests.corrupt.format.s.zero3", {s("000")}, "%s"},
      {"kel.tests.corrupt.format.tag.invalid1", {i(0)}, "%d${"},
      {"kel.tests.corrupt.format.tag.invalid2", {i(0)}, "%d${asdf"},
      {"kel.tests.corrupt.format.tag.nestedInval", {i(0), i(0)}, "%d${a%d{df}"},
      {"kel.tests.corrupt.format.tag.ugly", {i(0)}, "%d${009__.asdf}"},
      {"kel.tests.corrupt.format.tag.vugly", {i(0)}, "%d${009__.asdf=bar=baz=foof}"},
      {"kel.tests.corrupt.format.tag.assign.inval", {i(0)}, "%d${=invalid}"},
      {"kel.tests.corrupt.format.tag.notreally", {}, "%%${ignore}"},
      {"kel.tests.corrupt.format.tag.notreally2", {}, "%%${=ignore}"},
  };
  return kRun;
}

class SelftestScenario : public testing::Test {
 protected:
  void send(const Sent& sent) {
    KelEmit::Observation observation{sent.id, sent.message == nullptr ? "" : sent.message, sent.arguments, 1};
    std::vector<char> record;
    ASSERT_EQ(KelEmit::appendRecord(observation, record), 0);
    auto* copy = static_cast<char*>(std::malloc(record.size()));
    std::copy(record.begin(), record.end(), copy);
    const support::KelPtr kel(Kel_MakeKel(copy, record.size()));
    ASSERT_TRUE(kel);
    correlator.handle(kel.get());
  }
  void send(const char* id) { send({id, {}, id}); }
  void sendRun(std::size_t count) {
    for (std::size_t n = 0; n < count; ++n) send(correctRun()[n]);
  }
  /// The status with which a step ends the process; -1 where it does not.
  template <typename Step>
  int exitOf(Step step) {
    try {
      step();
    } catch (const Exit& exit) {
      return exit.status;
    }
    return -1;
  }
  int end() {
    return exitOf([this] { send("kel.tests.marker.end"); });
  }
  [[nodiscard]] bool said(const std::string& text) const { return output.find(text) != std::string::npos; }
  [[nodiscard]] std::size_t numberedPasses() const {
    std::size_t count = 0;
    for (std::size_t at = 0; (at = output.find("PASS: [", at)) != std::string::npos; ++at) ++count;
    return count;
  }

  support::Scenario scenario;
  std::string output;
  keld::TestCorrelator correlator{
      scenario.services, {[this](const std::string& text) { output += text; }, [](int status) { throw Exit{status}; }}};
};

TEST_F(SelftestScenario, aCorrectRunSays21PassLinesAndExitsWithZero) {
  send("kel.tests.marker.start");
  sendRun(21);
  EXPECT_EQ(end(), 0);
  EXPECT_EQ(numberedPasses(), 21U);
  EXPECT_FALSE(said("FAIL"));
  EXPECT_TRUE(
      said("INFO: Got kel: kel.tests.marker.start\nINFO: Received 'test start' kel: kel.tests.marker.start\n"
           "INFO: Alarm handler ready\n"));
  EXPECT_TRUE(said("PASS: [0]: kel.tests.async.noData\n"));
  EXPECT_TRUE(said("PASS: [20]: kel.tests.corrupt.format.tag.notreally2\n"));
  EXPECT_TRUE(
      said("PASS: Kel_GetArgs succeeded for KEL kel.tests.async.withIntParams. Args: -559038737, deadbeef, "
           "-2401053088876216593\n"));
  EXPECT_TRUE(
      said("PASS: Kel_GetArgs (with field width specifiers) succeeded for KEL kel.tests.async.withIntParams. "
           "Args: -559038737, deadbeef, -2401053088876216593\n"));
  EXPECT_TRUE(
      said("PASS: Kel_GetArgs succeeded for KEL kel.tests.async.withUintParams. Args: -559038737, deadbeef, "
           "-2401053088876216593\n"));
  EXPECT_TRUE(said("PASS: Kel_GetArgs succeeded for KEL kel.tests.async.withStringParams. Args: some string\n"));
  EXPECT_TRUE(
      said("PASS: Kel_GetArgs succeeded for KEL kel.tests.async.withLongStringParams. Args: some looong long long "
           "long long long string, some string\n"));
  EXPECT_TRUE(output.ends_with("INFO: Got kel: kel.tests.marker.end\nINFO: Tests completed. Failures = 0\n"));
}

TEST_F(SelftestScenario, itWatchesTheGroupOfTheTests) {
  EXPECT_STREQ(keld::kTestCorrelator.nameWord, "KeldTest");
  ASSERT_EQ(keld::kTestCorrelator.groups.size(), 1U);
  EXPECT_STREQ(keld::kTestCorrelator.groups[0], "tests");
  EXPECT_TRUE(keld::kTestCorrelator.identifiers.empty());
}

TEST_F(SelftestScenario, theLinesOfARunComeInTheirOrder) {
  send("kel.tests.marker.start");
  output.clear();
  sendRun(21);
  end();
  std::string expected;
  int number = 0;
  for (const Sent& sent : correctRun()) {
    const std::string id = sent.id;
    const std::string passed = "PASS: Kel_GetArgs succeeded for KEL " + id + ". Args: ";
    expected += "INFO: Got kel: " + id + "\n";
    if (number == 4) {
      expected += passed + "-559038737, deadbeef, -2401053088876216593\n";
      expected += "PASS: Kel_GetArgs (with field width specifiers) succeeded for KEL " + id +
                  ". Args: -559038737, deadbeef, -2401053088876216593\n";
    }
    if (number == 5) expected += passed + "-559038737, deadbeef, -2401053088876216593\n";
    if (number == 6) expected += passed + "some string\n";
    if (number == 7) expected += passed + "some looong long long long long long string\n";
    if (number == 8) expected += passed + "some looong long long long long long string, some string\n";
    expected += "PASS: [" + std::to_string(number++) + "]: " + id + "\n";
  }
  expected += "INFO: Got kel: kel.tests.marker.end\nINFO: Tests completed. Failures = 0\n";
  EXPECT_EQ(output, expected);
}

TEST_F(SelftestScenario, the22ndObservationExitsAtOnceWithOneMoreFailure) {
  send("kel.tests.marker.start");
  sendRun(21);
  EXPECT_EQ(exitOf([this] { send("kel.tests.more"); }), 1);
  EXPECT_TRUE(
      output.ends_with("FAIL: More KELs receieved than expected! kelId = 'kel.tests.more'.  Did more get added to the "
                       "testworld?\n"));
}

TEST_F(SelftestScenario, anEndMarkerAfter20ReportsTheShortfall) {
  send("kel.tests.marker.start");
  sendRun(20);
  EXPECT_EQ(end(), 1);
  EXPECT_TRUE(said("FAIL: No. of tests = 21, but received only 20 kels.\nINFO: Tests completed. Failures = 1\n"));
}

TEST_F(SelftestScenario, anEndWithoutStartIsReportedWithoutALineEnd) {
  EXPECT_EQ(end(), 1);
  EXPECT_TRUE(
      said("FAILURE: Received END without matching start!FAIL: No. of tests = 21, but received only 0 kels.\n"));
}

TEST_F(SelftestScenario, aSecondStartMarkerCountsAFailureAndKeepsTheCount) {
  send("kel.tests.marker.start");
  sendRun(2);
  send("kel.tests.marker.start");
  EXPECT_TRUE(said("FAILURE: Duplicate test start kels?!INFO: Alarm handler ready\n"));
  for (std::size_t n = 2; n < 21; ++n) send(correctRun()[n]);
  EXPECT_EQ(end(), 1);
  EXPECT_EQ(numberedPasses(), 21U);
}

TEST_F(SelftestScenario, anObservationBeforeTheStartIsIgnored) {
  send("kel.tests.async.noData");
  EXPECT_TRUE(output.ends_with("WARNING: received kel kel.tests.async.noData before test 'START' kel. (Ignoring.)"));
  EXPECT_FALSE(scenario.timers.armed());
}

TEST_F(SelftestScenario, betweenTheCorruptionMarkersEveryObservationFailsAndIsNotCompared) {
  send("kel.tests.marker.start");
  send("kel.tests.marker.corruptions.start");
  EXPECT_FALSE(scenario.timers.armed());
  send(correctRun()[0]);
  EXPECT_TRUE(
      said("FAIL: Kel kel.tests.async.noData received, but should get nothing during the corrupt kel window.  "
           "Dropping.\n"));
  EXPECT_TRUE(scenario.timers.armed());
  send("kel.tests.marker.corruptions.end");
  sendRun(21);
  EXPECT_EQ(end(), 1);
  EXPECT_TRUE(said("INFO: Start corrupt KELs window.\n"));
  EXPECT_TRUE(said("INFO: End corrupt KELs window.\n"));
}

TEST_F(SelftestScenario, fiveSecondsWithoutAnObservationEndTheProcess) {
  send("kel.tests.marker.start");
  scenario.timers.advance(4s);
  send(correctRun()[0]);
  scenario.timers.advance(4s);
  EXPECT_EQ(exitOf([this] { scenario.timers.advance(1s); }), 1);
  EXPECT_TRUE(output.ends_with("FAIL: Timeout.  Waited 5 seconds, but got no kels.\n"));
}

TEST_F(SelftestScenario, everyDifferenceIsReportedAndCounted) {
  send("kel.tests.marker.start");
  send({"kel.tests.wrong", {}, "this is an observation with no data"});
  EXPECT_TRUE(said("FAIL: Expected kelId = 'kel.tests.async.noData'; Got 'kel.tests.wrong'\n"));
  send({"kel.tests.async.withPath", {}, "wrong"});
  EXPECT_TRUE(
      said("FAIL: Expected msg = 'this is an observation with a complicated /a/fake/path${path} path.'; Got "
           "'wrong'\nFAIL: Kel_GetStringArg returned 75 @ i = 0\n"));
  send({"kel.tests.async.withLog", {s("surplus")}, "this is an ob with an associated Log message."});
  EXPECT_TRUE(said("FAIL: Kel_GetStringArg (kel.tests.async.withLog) failed: 0!\n"));
  send({"kel.tests.async.withWarn", {i(1)}, "this is an ob with an associated Warn message."});
  EXPECT_TRUE(said("FAIL: Kel_GetIntArg(kel.tests.async.withWarn) failed: 0\n"));
  for (std::size_t n = 4; n < 21; ++n) send(correctRun()[n]);
  EXPECT_EQ(end(), 5);
}

TEST_F(SelftestScenario, aMissingIdentifierCountsOneFailureAndOneObservation) {
  send("kel.tests.marker.start");
  send("");
  EXPECT_TRUE(said("FAIL: Received NULL kelID\n"));
  for (std::size_t n = 1; n < 21; ++n) send(correctRun()[n]);
  EXPECT_EQ(end(), 1);
}

TEST_F(SelftestScenario, beforeTheFirstStartMarkerTimerZeroIsDisarmedWhoeverMadeIt) {
  const int foreign = scenario.timers.create([] {});
  ASSERT_EQ(foreign, 0);
  scenario.timers.set(foreign, keld::TimerMode::oneShot, 60, nullptr);
  send("kel.tests.async.noData");
  EXPECT_FALSE(scenario.timers.armed());
}

TEST_F(SelftestScenario, withoutATimerTheProcessEnds) {
  while (scenario.timers.create([] {}) != keld::kNoTimer) {
  }
  EXPECT_EQ(exitOf([this] { send("kel.tests.marker.start"); }), 1);
  EXPECT_TRUE(output.ends_with("FAIL: Failed to set alarm handler\n"));
}

TEST_F(SelftestScenario, postingIsTestedOnceOnTheFirstObservation) {
  send("kel.tests.async.noData");
  send("kel.tests.async.noData");
  EXPECT_TRUE(
      output.starts_with("INFO: Testing VProb_PostProblem.\nINFO: Testing VProb_PostAudit.\n"
                         "INFO: Testing VProb_PostClear.\nINFO: Vprob tests completed\nINFO: Got kel: "));
  const std::string huge(10485759, 'x');
  const auto events = scenario.post.take();
  ASSERT_EQ(events.size(), 7U);
  EXPECT_EQ(events[0], support::problem("orn.problem.keldtestcorrelator.test.0", "No args"));
  EXPECT_EQ(events[1], support::problem("orn.problem.keldtestcorrelator.test.1d", "1 args"));
  EXPECT_EQ(events[2], support::problem("orn.problem.keldtestcorrelator.test.1s", "one args"));
  EXPECT_TRUE(events[3] == support::problem("orn.problem.keldtestcorrelator.test.hugestr", "Huge string " + huge));
  EXPECT_TRUE(events[4] == support::problem("orn.problem." + huge, "Huge ID"));
  EXPECT_EQ(events[5], support::audit("orn.audit.keldtestcorrelator.test", "Two (2) args"));
  EXPECT_EQ(events[6], support::clear("orn.clear.keldtestcorrelator.test", "Three (3) args"));
}

TEST_F(SelftestScenario, earlierFailuresCountInEveryExit) {
  send("kel.tests.marker.start");
  send({"kel.tests.wrong", {}, "this is an observation with no data"});
  for (std::size_t n = 1; n < 21; ++n) send(correctRun()[n]);
  EXPECT_EQ(exitOf([this] { scenario.timers.advance(5s); }), 2);
  EXPECT_EQ(exitOf([this] { send("kel.tests.more"); }), 2);
  EXPECT_EQ(end(), 1);
}

TEST_F(SelftestScenario, theStartMarkerItselfArmsTheAlarm) {
  send("kel.tests.marker.start");
  EXPECT_EQ(scenario.timers.secondsToNext(), 5);
  EXPECT_EQ(exitOf([this] { scenario.timers.advance(4s); }), -1);
  EXPECT_EQ(exitOf([this] { scenario.timers.advance(1s); }), 1);
}

TEST_F(SelftestScenario, everyObservationOfARunArmsTheAlarmAnew) {
  send("kel.tests.marker.start");
  for (const Sent& sent : correctRun()) {
    scenario.timers.advance(4s);
    send(sent);
    EXPECT_EQ(scenario.timers.secondsToNext(), 5) << sent.id;
  }
}

TEST_F(SelftestScenario, aCorruptionMarkerLeavesTheAlarmDisarmed) {
  send("kel.tests.marker.start");
  send("kel.tests.marker.corruptions.start");
  EXPECT_FALSE(scenario.timers.armed());
  send(correctRun()[0]);
  send("kel.tests.marker.corruptions.end");
  EXPECT_FALSE(scenario.timers.armed());
}

TEST_F(SelftestScenario, theEndMarkerLeavesTheAlarmDisarmed) {
  send("kel.tests.marker.start");
  sendRun(21);
  end();
  EXPECT_FALSE(scenario.timers.armed());
}

TEST_F(SelftestScenario, aSecondStartMarkersAlarmTakesThePlaceOfTheFirst) {
  send("kel.tests.marker.start");
  scenario.timers.advance(3s);
  send("kel.tests.marker.start");
  EXPECT_EQ(scenario.timers.secondsToNext(), 5);
  EXPECT_EQ(exitOf([this] { scenario.timers.advance(4s); }), -1);
  EXPECT_EQ(exitOf([this] { scenario.timers.advance(1s); }), 2);
  EXPECT_FALSE(scenario.timers.armed());
}

TEST_F(SelftestScenario, everyStartMarkerTakesATimerOfItsOwn) {
  for (unsigned n = 0; n < keld::kMaxTimers; ++n) {
    EXPECT_EQ(exitOf([this] { send("kel.tests.marker.start"); }), -1) << n;
  }
  // Fifteen duplicates, the sixteenth, and the alarm that could not be made.
  EXPECT_EQ(exitOf([this] { send("kel.tests.marker.start"); }), 17);
  EXPECT_TRUE(output.ends_with("FAILURE: Duplicate test start kels?!FAIL: Failed to set alarm handler\n"));
}

TEST_F(SelftestScenario, onceStartedTheTimersOfOthersAreLeftAlone) {
  const int foreign = scenario.timers.create([] {});
  ASSERT_EQ(foreign, 0);
  send("kel.tests.marker.start");
  scenario.timers.set(foreign, keld::TimerMode::oneShot, 60, nullptr);
  send("kel.tests.marker.corruptions.start");
  EXPECT_EQ(scenario.timers.secondsToNext(), 60);
}

TEST_F(SelftestScenario, theCorruptionWindowMayOpenBeforeTheStart) {
  send("kel.tests.marker.corruptions.start");
  send(correctRun()[0]);
  EXPECT_TRUE(output.ends_with("WARNING: received kel kel.tests.async.noData before test 'START' kel. (Ignoring.)"));
  send("kel.tests.marker.start");
  send(correctRun()[0]);
  EXPECT_TRUE(
      output.ends_with("FAIL: Kel kel.tests.async.noData received, but should get nothing during the corrupt kel "
                       "window.  Dropping.\n"));
  EXPECT_EQ(end(), 2);
  EXPECT_TRUE(
      output.ends_with("FAIL: No. of tests = 21, but received only 0 kels.\nINFO: Tests completed. Failures = 2\n"));
}

TEST_F(SelftestScenario, theCorruptionMarkersMayComeAfterAllObservations) {
  send("kel.tests.marker.start");
  sendRun(21);
  send("kel.tests.marker.corruptions.start");
  send("kel.tests.marker.corruptions.end");
  EXPECT_EQ(end(), 0);
  EXPECT_FALSE(said("FAIL"));
}

TEST_F(SelftestScenario, inTheCorruptionWindowTooA22ndObservationExits) {
  send("kel.tests.marker.start");
  sendRun(21);
  send("kel.tests.marker.corruptions.start");
  EXPECT_EQ(exitOf([this] { send("kel.tests.more"); }), 1);
  EXPECT_TRUE(said("FAIL: More KELs receieved than expected! kelId = 'kel.tests.more'."));
  EXPECT_FALSE(said("Dropping."));
}

TEST_F(SelftestScenario, everyMissingOrMistypedArgumentIsAFailureOfItsOwn) {
  send("kel.tests.marker.start");
  sendRun(4);
  output.clear();
  send({"kel.tests.async.withIntParams",
        {s("-559038737"), i(-559038737)},
        "this is an observation with integer parameters. -559038737, deadbeef, -2401053088876216593"});
  EXPECT_EQ(output,
            "INFO: Got kel: kel.tests.async.withIntParams\n"
            "FAIL: Kel_GetStringArg (kel.tests.async.withIntParams) failed: 0!\n"
            "FAIL: Kel_GetIntArg returned 22 @ i = 0\n"
            "FAIL: Kel_GetIntArg returned 75 @ i = 2\n"
            "FAIL: Kel_GetArgs failed for KEL kel.tests.async.withIntParams: Invalid argument\n"
            "FAIL: Kel_GetArgs failed for KEL kel.tests.async.withIntParams: Invalid argument\n");
  send(correctRun()[5]);
  send({"kel.tests.async.withStringParams", {i(0)}, "this is an observation with a string parameter: some string"});
  EXPECT_TRUE(
      output.ends_with("FAIL: Kel_GetStringArg returned 22 @ i = 0\n"
                       "FAIL: Kel_GetIntArg(kel.tests.async.withStringParams) failed: 0\n"
                       "FAIL: Kel_GetArgs failed for KEL kel.tests.async.withStringParams: Invalid argument\n"));
  send(correctRun()[7]);
  output.clear();
  send({"kel.tests.async.withLongStringParams",
        {s("some looong long long long long long string"), i(0)},
        "this is an observation with a string parameter: some looong long long long long long string and another: "
        "some string"});
  EXPECT_EQ(output,
            "INFO: Got kel: kel.tests.async.withLongStringParams\n"
            "FAIL: Kel_GetStringArg returned 22 @ i = 1\n"
            "FAIL: Kel_GetArgs failed for KEL kel.tests.async.withLongStringParams: Invalid argument\n");
  for (std::size_t n = 9; n < 21; ++n) send(correctRun()[n]);
  EXPECT_EQ(end(), 5 + 3 + 2);
  EXPECT_EQ(numberedPasses(), 12U);
}

TEST_F(SelftestScenario, eachOfTwoStringsThatCannotBeReadIsReported) {
  send("kel.tests.marker.start");
  sendRun(8);
  output.clear();
  send({"kel.tests.async.withLongStringParams",
        {i(0), i(0)},
        "this is an observation with a string parameter: some looong long long long long long string and another: "
        "some string"});
  EXPECT_EQ(output,
            "INFO: Got kel: kel.tests.async.withLongStringParams\n"
            "FAIL: Kel_GetStringArg returned 22 @ i = 0\n"
            "FAIL: Kel_GetStringArg returned 22 @ i = 1\n"
            "FAIL: Kel_GetIntArg(kel.tests.async.withLongStringParams) failed: 0\n"
            "FAIL: Kel_GetArgs failed for KEL kel.tests.async.withLongStringParams: Invalid argument\n"
            "FAIL: Kel_GetArgs failed for KEL kel.tests.async.withLongStringParams: Invalid argument\n");
  for (std::size_t n = 9; n < 21; ++n) send(correctRun()[n]);
  EXPECT_EQ(end(), 5);
}

TEST_F(SelftestScenario, unsignedArgumentsThatCannotBeReadAreReported) {
  send("kel.tests.marker.start");
  sendRun(5);
  output.clear();
  send({"kel.tests.async.withUintParams",
        {u(0xdeadbeef), s("deadbeef"), L(16045690984833335023ULL)},
        "this is an observation with unsigned integer parameters. 3735928559, deadbeef, 16045690984833335023"});
  EXPECT_EQ(output,
            "INFO: Got kel: kel.tests.async.withUintParams\n"
            "FAIL: Kel_GetIntArg returned 22 @ i = 1\n"
            "FAIL: Kel_GetArgs failed for KEL kel.tests.async.withUintParams: Invalid argument\n");
}

TEST_F(SelftestScenario, aMessageIsComparedToItsLastByte) {
  send("kel.tests.marker.start");
  send({"kel.tests.async.noData", {}, "this is an observation with no data "});
  EXPECT_TRUE(output.ends_with(
      "FAIL: Expected msg = 'this is an observation with no data'; Got 'this is an observation with no "
      "data '\n"));
  send(correctRun()[1]);
  send({"kel.tests.async.withLog", {}, "this is an ob with an associated Log message"});
  EXPECT_TRUE(output.ends_with("Got 'this is an ob with an associated Log message'\n"));
  EXPECT_EQ(numberedPasses(), 1U);
}

TEST_F(SelftestScenario, aMissingIdentifierIsNamedAsSuchEverywhere) {
  send("");
  EXPECT_TRUE(
      output.ends_with("INFO: Got kel: (null)\nWARNING: received kel (null) before test 'START' kel. (Ignoring.)"));
  send("kel.tests.marker.start");
  send("kel.tests.marker.corruptions.start");
  send("");
  EXPECT_TRUE(
      output.ends_with("FAIL: Kel (null) received, but should get nothing during the corrupt kel window.  "
                       "Dropping.\n"));
  send("kel.tests.marker.corruptions.end");
  send("");
  EXPECT_TRUE(output.ends_with("INFO: Got kel: (null)\nFAIL: Received NULL kelID\n"));
  EXPECT_EQ(scenario.timers.secondsToNext(), 5);
}

TEST_F(SelftestScenario, postingIsTestedBeforeEvenAMarker) {
  end();
  EXPECT_TRUE(output.starts_with("INFO: Testing VProb_PostProblem.\n"));
  EXPECT_TRUE(said("INFO: Vprob tests completed\nINFO: Got kel: kel.tests.marker.end\n"));
  EXPECT_EQ(scenario.post.take().size(), 7U);
}

}  // namespace
