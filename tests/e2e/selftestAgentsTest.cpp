// The daemon with its two test agents.
#include "endToEnd.h"

namespace e2e {
namespace {

class SelftestAgents : public EndToEnd {};

const std::string kLogAllFailed = "Failed to initialize agent LogAllLogger (error code: 1) ";

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
  const EventReceiver agent(workspace().eventSocket());
  Daemon daemon(workspace(), KELD_SELFTEST_PROGRAM, {});
  daemon.startAndServe();
  const Emitter emitter = Emitter::toContext(workspace());
  emitter.send("kel.tests.marker.start");
  emitter.send("kel.tests.marker.end");
  const Ending ending = daemon.waitForEnd();
  EXPECT_TRUE(ending.with(1)) << ending.text() << daemon.standardError();
  EXPECT_EQ(daemon.standardOutput(),
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
