// Handlers of several observations that are given one that they were not written for.
#include <gtest/gtest.h>

#include "correlatorHarness.h"
#include "keldCvfsCorrelator.h"
#include "keldScsiCorrelator.h"

namespace {

using support::i;
using support::observation;
using support::s;

const std::vector<KelEmit::Argument> kUuid = {i(1), i(2), i(3), i(4), i(5), i(6), i(7), i(8), i(9)};

std::vector<KelEmit::Argument> around(std::vector<KelEmit::Argument> before, KelEmit::Argument behind) {
  before.insert(before.end(), kUuid.begin(), kUuid.end());
  before.push_back(std::move(behind));
  return before;
}

class HandlerGuardsDeathTest : public testing::Test {
 protected:
  support::Scenario scenario;
};

TEST_F(HandlerGuardsDeathTest, AHeartbeatHandlerWithoutARowForTheObservationEndsTheDaemon) {
  keld::CvfsCorrelator cvfs(scenario.services);
  const auto stray = observation("kel.cvfs.heartbeat.stray", around({}, s("text")));
  EXPECT_DEATH(cvfs.heartbeat(stray.get()), "NOT_REACHED apps/keld/keldCvfsCorrelator:151");
}

TEST_F(HandlerGuardsDeathTest, AnNfsHandlerWithoutARowForTheObservationEndsTheDaemon) {
  keld::CvfsCorrelator cvfs(scenario.services);
  const auto stray = observation("kel.cvfs.nfs.server.stray", around({s("a"), s("b")}, s("c")));
  EXPECT_DEATH(cvfs.nfsServer(stray.get()), "NOT_REACHED apps/keld/keldCvfsCorrelator:775");
}

TEST_F(HandlerGuardsDeathTest, AddedOrRemovedPathsAndBadPathsNameAnObservationThatTheyDoNotKnow) {
  keld::ScsiCorrelator scsi(scenario.services);
  const auto stray = observation("kel.scsi.scsipath.stray", {s("path")});
  scsi.pathAddedOrRemoved(stray.get());
  scsi.badPath(stray.get());
  EXPECT_EQ(scenario.log.take(), (std::vector<std::string>{"Unknown KEL ID: kel.scsi.scsipath.stray\n",
                                                           "Unknown KEL ID: kel.scsi.scsipath.stray\n"}));
  EXPECT_TRUE(scenario.post.take().empty());
}

TEST_F(HandlerGuardsDeathTest, AnObservationWithoutIdentifierIsReported) {
  keld::ScsiCorrelator scsi(scenario.services);
  const auto nameless = observation("", {s("path")});
  ASSERT_NE(nameless, nullptr);
  scsi.pathAddedOrRemoved(nameless.get());
  scsi.badPath(nameless.get());
  EXPECT_EQ(scenario.log.take(),
            (std::vector<std::string>{"FAIL: Received NULL kelID\n", "FAIL: Received NULL kelID\n"}));
}

TEST_F(HandlerGuardsDeathTest, ReportingDefaultHandlersReportAnObservationWithoutIdentifier) {
  const auto nameless = observation("", {});
  for (const keld::CorrelatorInfo* info : {&keld::kClockCorrelator, &keld::kVmCorrelator}) {
    const auto correlator = info->make(scenario.services);
    correlator->fallback()(nameless.get());
    EXPECT_EQ(scenario.log.take(), std::vector<std::string>{"FAIL: Received NULL kelID\n"}) << info->nameWord;
  }
}

}  // namespace
