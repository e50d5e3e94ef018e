// The daemon with its two test agents.
#include <csignal>
#include <regex>

#include "endToEnd.h"
#include "fakeTime.h"

namespace e2e {
namespace {

using support::i, support::L, support::l, support::s, support::u;

const std::string kLogAllFailed = "Failed to initialize agent LogAllLogger (error code: 1) ";

Batch recordWithoutTemplate(const std::string& id) {
  Batch batch;
  EXPECT_EQ(KelEmit::appendRecord({id, "", {}, kStampUs}, batch), 0);
  return batch;
}

/// The 21 observations of a correct run.
std::vector<Batch> correctRun() {
  const std::string longString = "some looong long long long long long string";
  constexpr std::int32_t kInt = -559038737;
  return {
      record("kel.tests.async.noData", {}, "this is an observation with no data"),
      record("kel.tests.async.withPath", {s("/a/fake/path")},
             "this is an observation with a complicated %s${path} path."),
      record("kel.tests.async.withLog", {}, "this is an ob with an associated Log message."),
      record("kel.tests.async.withWarn", {}, "this is an ob with an associated Warn message."),
      record("kel.tests.async.withIntParams", {i(kInt), i(kInt), l(-2401053088876216593)},
             "this is an observation with integer parameters. %d, %x, %ld"),
      record("kel.tests.async.withUintParams", {u(3735928559), u(0xdeadbeef), L(16045690984833335023ULL)},
             "this is an observation with unsigned integer parameters. %u, %x, %lu"),
      record("kel.tests.async.withStringParams", {s("some string")},
             "this is an observation with a string parameter: %s"),
      record("kel.tests.async.withLongStringParam", {s(longString)},
             "this is an observation with a string parameter: %s"),
      record("kel.tests.async.withLongStringParams", {s(longString), s("some string")},
             "this is an observation with a string parameter: %s and another: %s"),
      recordWithoutTemplate("kel.tests.corrupt.format.empty"),
      record("kel.tests.corrupt.format.doublepercent", {}, "%%"),
      record("kel.tests.corrupt.format.s.zeros", {s("")}, "%s"),
      record("kel.tests.corrupt.format.s.zero3", {s("000")}, "%s"),
      record("kel.tests.corrupt.format.tag.invalid1", {i(0)}, "%d${"),
      record("kel.tests.corrupt.format.tag.invalid2", {i(0)}, "%d${asdf"),
      record("kel.tests.corrupt.format.tag.nestedInval", {i(0), i(0)}, "%d${a%d{df}"),
      record("kel.tests.corrupt.format.tag.ugly", {i(0)}, "%d${009__.asdf}"),
      record("kel.tests.corrupt.format.tag.vugly", {i(0)}, "%d${009__.asdf=bar=baz=foof}"),
      record("kel.tests.corrupt.format.tag.assign.inval", {i(0)}, "%d${=invalid}"),
      record("kel.tests.corrupt.format.tag.notreally", {}, "%%${ignore}"),
      record("kel.tests.corrupt.format.tag.notreally2", {}, "%%${=ignore}"),
  };
}

Batch marker(const std::string& name) {
  return record("kel.tests.marker." + name);
}

class SelftestAgents : public EndToEnd {
 protected:
  /// Sends the batches in order to a daemon of their own, and waits until it has ended.
  void runWith(const std::vector<Batch>& batches) {
    const EventReceiver agent(workspace().eventSocket());
    Daemon daemon(workspace(), KELD_SELFTEST_PROGRAM, {});
    daemon.startAndServe();
    const Emitter emitter = Emitter::toContext(workspace());
    for (const Batch& batch : batches) emitter.send(batch);
    takeEnd(daemon);
  }
  /// The same with the markers of start and end around `observations`.
  void runMarked(std::vector<Batch> observations) {
    observations.insert(observations.begin(), marker("start"));
    observations.push_back(marker("end"));
    runWith(observations);
  }
  void takeEnd(Daemon& daemon) {
    ending_ = daemon.waitForEnd();
    output_ = daemon.standardOutput();
  }

  [[nodiscard]] const std::string& output() const { return output_; }
  /// What is said besides that which is well, with its line ends or without.
  [[nodiscard]] std::string complaints() const {
    return std::regex_replace(output_, std::regex("(INFO|PASS): [^\n]*\n"), "");
  }
  [[nodiscard]] std::size_t numberedPasses() const {
    std::size_t count = 0;
    for (std::size_t at = 0; (at = output_.find("PASS: [", at)) != std::string::npos; ++at) ++count;
    return count;
  }
  void expectEnd(int status, std::size_t passes, const std::string& complained) const {
    EXPECT_TRUE(ending_.with(status)) << ending_.text();
    EXPECT_EQ(numberedPasses(), passes);
    EXPECT_EQ(complaints(), complained);
  }

 private:
  Ending ending_;
  std::string output_;
};

TEST_F(SelftestAgents, TheLoggerOfAllHasOneGroupTooManyAndTheRestServes) {
  EventReceiver agent(workspace().eventSocket());
  Daemon daemon(workspace(), KELD_SELFTEST_PROGRAM, {});
  daemon.startAndServe();
  log().waitFor(kLogAllFailed);
  Emitter::toContext(workspace()).send("kel.net.firewall.disabled");
  agent.waitFor("orn.audit.net.firewall.disabled");
  EXPECT_TRUE(daemon.terminate().with(0));
  EXPECT_EQ(log().count(kLogAllFailed), 1U);
}

TEST_F(SelftestAgents, TheFirstTestObservationExercisesPosting) {
  EventReceiver agent(workspace().eventSocket());
  Daemon daemon(workspace(), KELD_SELFTEST_PROGRAM, {});
  daemon.startAndServe();
  Emitter::toContext(workspace()).send("kel.tests.early");
  const std::vector<EventRecord> records = agent.waitForCount(5);
  std::vector<std::string> names;
  names.reserve(records.size());
  for (const EventRecord& record : records) names.push_back(record.name);
  EXPECT_EQ(names,
            (std::vector<std::string>{"orn.problem.keldtestcorrelator.test.0", "orn.problem.keldtestcorrelator.test.1d",
                                      "orn.problem.keldtestcorrelator.test.1s", "orn.audit.keldtestcorrelator.test",
                                      "orn.clear.keldtestcorrelator.test"}));
  log().waitFor(observationLine("KeldTestCorrelator", records[0].timestampUs, records[0].name, "No args"));
  log().waitFor(observationLine("KeldTestCorrelator", records[1].timestampUs, records[1].name, "1 args"));
  log().waitFor(observationLine("KeldTestCorrelator", records[2].timestampUs, records[2].name, "one args"));
  log().waitFor(observationLine("KeldTestCorrelator", records[3].timestampUs, records[3].name, "Two (2) args"));
  log().waitFor(observationLine("KeldTestCorrelator", records[4].timestampUs, records[4].name, "Three (3) args"));
}

TEST_F(SelftestAgents, AnEndMarkerWithoutTestObservationsEndsTheDaemonWithOneFailure) {
  runMarked({});
  expectEnd(1, 0, "FAIL: No. of tests = 21, but received only 0 kels.\n");
  EXPECT_EQ(output(),
            "INFO: Testing VProb_PostProblem.\n"
            "INFO: Testing VProb_PostAudit.\n"
            "INFO: Testing VProb_PostClear.\n"
            "INFO: Vprob tests completed\n"
            "INFO: Got kel: kel.tests.marker.start\n"
            "INFO: Received 'test start' kel: kel.tests.marker.start\n"
            "INFO: Alarm handler ready\n"
            "INFO: Got kel: kel.tests.marker.end\n"
            "FAIL: No. of tests = 21, but received only 0 kels.\n"
            "INFO: Tests completed. Failures = 1\n");
}

TEST_F(SelftestAgents, ACorrectRunWithMalformedBatchesBetweenTheCorruptionMarkersEndsWithZero) {
  std::vector<Batch> run = correctRun();
  Batch cutOff = record("kel.tests.corrupt.record");
  cutOff.pop_back();
  for (const Batch& batch : {marker("corruptions.start"), cutOff, joined(record("kel.tests.corrupt.record"), cutOff),
                             Batch(64, '\xff'), marker("corruptions.end")}) {
    run.push_back(batch);
  }
  runMarked(run);
  expectEnd(0, 21, "");
  EXPECT_TRUE(
      output().ends_with("INFO: Got kel: kel.tests.marker.corruptions.start\n"
                         "INFO: Start corrupt KELs window.\n"
                         "INFO: Got kel: kel.tests.marker.corruptions.end\n"
                         "INFO: End corrupt KELs window.\n"
                         "INFO: Got kel: kel.tests.marker.end\n"
                         "INFO: Tests completed. Failures = 0\n"))
      << output();
}

TEST_F(SelftestAgents, OneLeftOutAtTheEndIsAShortfall) {
  std::vector<Batch> run = correctRun();
  run.pop_back();
  runMarked(run);
  expectEnd(1, 20, "FAIL: No. of tests = 21, but received only 20 kels.\n");
  EXPECT_TRUE(output().ends_with("INFO: Tests completed. Failures = 1\n"));
}

TEST_F(SelftestAgents, OneLeftOutBeforeTheEndIsADifferenceAndAShortfall) {
  std::vector<Batch> run = correctRun();
  run.erase(run.begin() + 19);
  runMarked(run);
  expectEnd(3, 19,
            "FAIL: Expected kelId = 'kel.tests.corrupt.format.tag.notreally'; Got "
            "'kel.tests.corrupt.format.tag.notreally2'\n"
            "FAIL: Expected msg = '%${ignore}'; Got '%${=ignore}'\n"
            "FAIL: No. of tests = 21, but received only 20 kels.\n");
}

TEST_F(SelftestAgents, AnotherIdentifierIsOneFailure) {
  std::vector<Batch> run = correctRun();
  run[0] = record("kel.tests.async.other", {}, "this is an observation with no data");
  runMarked(run);
  expectEnd(1, 20, "FAIL: Expected kelId = 'kel.tests.async.noData'; Got 'kel.tests.async.other'\n");
}

TEST_F(SelftestAgents, AnotherTextIsOneFailure) {
  std::vector<Batch> run = correctRun();
  run[12] = record("kel.tests.corrupt.format.s.zero3", {s("001")}, "%s");
  runMarked(run);
  expectEnd(1, 20, "FAIL: Expected msg = '000'; Got '001'\n");
}

TEST_F(SelftestAgents, ArgumentsOfAnotherKindAreAFailureForEachReadOfThem) {
  std::vector<Batch> run = correctRun();
  run[6] =
      record("kel.tests.async.withStringParams", {i(1)}, "this is an observation with a string parameter: some string");
  runMarked(run);
  expectEnd(3, 20,
            "FAIL: Kel_GetStringArg returned 22 @ i = 0\n"
            "FAIL: Kel_GetIntArg(kel.tests.async.withStringParams) failed: 0\n"
            "FAIL: Kel_GetArgs failed for KEL kel.tests.async.withStringParams: Invalid argument\n");
}

TEST_F(SelftestAgents, AMissingArgumentIsAFailureForEachReadOfIt) {
  std::vector<Batch> run = correctRun();
  run[4] = record("kel.tests.async.withIntParams", {i(-559038737), i(-559038737)},
                  "this is an observation with integer parameters. %d, %x, -2401053088876216593");
  run[8] = record("kel.tests.async.withLongStringParams", {s("some looong long long long long long string")},
                  "this is an observation with a string parameter: %s and another: some string");
  runMarked(run);
  expectEnd(5, 19,
            "FAIL: Kel_GetIntArg returned 75 @ i = 2\n"
            "FAIL: Kel_GetArgs failed for KEL kel.tests.async.withIntParams: Value too large for defined data type\n"
            "FAIL: Kel_GetArgs failed for KEL kel.tests.async.withIntParams: Value too large for defined data type\n"
            "FAIL: Kel_GetStringArg returned 75 @ i = 1\n"
            "FAIL: Kel_GetArgs failed for KEL kel.tests.async.withLongStringParams: Value too large for defined data "
            "type\n");
}

TEST_F(SelftestAgents, ASurplusArgumentIsOneFailure) {
  std::vector<Batch> run = correctRun();
  run[2] = record("kel.tests.async.withLog", {s("surplus")}, "this is an ob with an associated Log message.");
  run[3] = record("kel.tests.async.withWarn", {i(1)}, "this is an ob with an associated Warn message.");
  runMarked(run);
  expectEnd(2, 19,
            "FAIL: Kel_GetStringArg (kel.tests.async.withLog) failed: 0!\n"
            "FAIL: Kel_GetIntArg(kel.tests.async.withWarn) failed: 0\n");
}

TEST_F(SelftestAgents, The22ndObservationEndsTheDaemonAtOnce) {
  std::vector<Batch> run = correctRun();
  run.push_back(run.back());
  run.insert(run.begin(), marker("start"));
  runWith(run);
  expectEnd(1, 21,
            "FAIL: More KELs receieved than expected! kelId = 'kel.tests.corrupt.format.tag.notreally2'.  Did more "
            "get added to the testworld?\n");
  EXPECT_TRUE(output().ends_with("Did more get added to the testworld?\n"));
}

TEST_F(SelftestAgents, ARepeatedObservationPushesTheLastOneOverTheEnd) {
  std::vector<Batch> run = correctRun();
  run.insert(run.begin() + 19, run[19]);
  run.insert(run.begin(), marker("start"));
  runWith(run);
  expectEnd(3, 20,
            "FAIL: Expected kelId = 'kel.tests.corrupt.format.tag.notreally2'; Got "
            "'kel.tests.corrupt.format.tag.notreally'\n"
            "FAIL: Expected msg = '%${=ignore}'; Got '%${ignore}'\n"
            "FAIL: More KELs receieved than expected! kelId = 'kel.tests.corrupt.format.tag.notreally2'.  Did more "
            "get added to the testworld?\n");
}

TEST_F(SelftestAgents, AnObservationBetweenTheCorruptionMarkersIsAFailureAndNotCompared) {
  std::vector<Batch> run = correctRun();
  const std::vector<Batch> window{marker("corruptions.start"), run[0], marker("corruptions.end")};
  run.insert(run.begin(), window.begin(), window.end());
  runMarked(run);
  expectEnd(1, 21,
            "FAIL: Kel kel.tests.async.noData received, but should get nothing during the corrupt kel window.  "
            "Dropping.\n");
}

TEST_F(SelftestAgents, ObservationsBeforeTheStartAreIgnoredWithAWarningThatHasNoLineEnd) {
  std::vector<Batch> run = correctRun();
  run.insert(run.begin(), {run[0], run[1], marker("start")});
  run.push_back(marker("end"));
  runWith(run);
  expectEnd(0, 21,
            "WARNING: received kel kel.tests.async.noData before test 'START' kel. (Ignoring.)"
            "WARNING: received kel kel.tests.async.withPath before test 'START' kel. (Ignoring.)");
}

TEST_F(SelftestAgents, WithoutAStartMarkerTheEndMarkerFails) {
  std::vector<Batch> run = correctRun();
  run.resize(1);
  run.push_back(marker("end"));
  runWith(run);
  expectEnd(1, 0,
            "WARNING: received kel kel.tests.async.noData before test 'START' kel. (Ignoring.)"
            "FAILURE: Received END without matching start!"
            "FAIL: No. of tests = 21, but received only 0 kels.\n");
}

TEST_F(SelftestAgents, ASecondStartMarkerIsAFailureAndTheRunGoesOn) {
  std::vector<Batch> run = correctRun();
  run.insert(run.begin() + 10, marker("start"));
  runMarked(run);
  expectEnd(1, 21, "FAILURE: Duplicate test start kels?!");
}

TEST_F(SelftestAgents, FiveSecondsWithoutAnObservationEndTheDaemon) {
  if (const std::string why = FakeTime::missing(); !why.empty()) GTEST_SKIP() << why;
  const EventReceiver agent(workspace().eventSocket());
  Daemon daemon(workspace(), KELD_SELFTEST_PROGRAM, {});
  FakeTime::runFast(daemon, 10);
  daemon.startAndServe();
  const Emitter emitter = Emitter::toContext(workspace());
  emitter.send(joined(marker("start"), record("kel.tests.async.other", {}, "this is an observation with no data")));
  takeEnd(daemon);
  expectEnd(2, 0,
            "FAIL: Expected kelId = 'kel.tests.async.noData'; Got 'kel.tests.async.other'\n"
            "FAIL: Timeout.  Waited 5 seconds, but got no kels.\n");
}

TEST_F(SelftestAgents, TheOrdinaryDaemonHasNeither) {
  const EventReceiver agent(workspace().eventSocket());
  Daemon daemon(workspace());
  daemon.startAndServe();
  const Emitter emitter = Emitter::toContext(workspace());
  emitter.send("kel.tests.marker.start");
  settle(daemon, emitter);
  EXPECT_TRUE(daemon.terminate().with(0));
  EXPECT_EQ(log().count(kLogAllFailed), 0U);
  EXPECT_EQ(daemon.standardOutput(), "");
}

}  // namespace
}  // namespace e2e
