#include "coverage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "captureText.h"

namespace {

using kelctl::Coverage;
using support::in;
using support::inactive;
using support::linkDown;
using support::note;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::Not;

void add(Coverage& coverage, const std::string& capture) {
  kelctl::replay(support::inputOf(capture), coverage);
}

class CoverageTest : public testing::Test {
 protected:
  [[nodiscard]] const Coverage::Part& part(std::string_view name) const {
    for (const Coverage::Part* const one : coverage_.parts()) {
      if (one->name == name) return *one;
    }
    throw std::out_of_range(std::string(name));
  }
  [[nodiscard]] auto rows() const { return part("rows").seen; }
  [[nodiscard]] auto handlers() const { return part("handlers").seen; }
  [[nodiscard]] auto decisions() const { return part("decisions").seen; }
  void add(const std::string& capture) { ::add(coverage_, capture); }

  Coverage coverage_;
};

TEST_F(CoverageTest, KnowsWhatCouldBeSeenAndHasSeenNothing) {
  EXPECT_THAT(part("rows").known, Contains("kel.net.lacp.uplink.inactive"));
  EXPECT_THAT(part("handlers").known, IsSupersetOf({"kel.net.qnic.linkstate.down", "kel.memfs.*"}));
  EXPECT_THAT(part("decisions").known, IsSupersetOf({"net.link.waits", "posting.dropped", "posting.lost"}));
  for (const Coverage::Part* const one : coverage_.parts()) EXPECT_THAT(one->seen, IsEmpty()) << one->name;
}

TEST_F(CoverageTest, HasSeenARowOnceItsEventIsPosted) {
  add(in(0, "kel.net.lacp.uplink.inactive", ",7"));
  EXPECT_THAT(rows(), IsEmpty());
  add(inactive(0));
  EXPECT_THAT(rows(), ElementsAre("kel.net.lacp.uplink.inactive"));
}

TEST_F(CoverageTest, HasSeenAHandlerThatWasCalled) {
  add(linkDown(0) + in(0, "kel.net.nobody.knows"));
  EXPECT_THAT(handlers(), ElementsAre("kel.net.qnic.linkstate.down"));
  EXPECT_THAT(rows(), IsEmpty());
}

TEST_F(CoverageTest, HasSeenTheJudgementOfWhatACorrelatorDoesNotKnow) {
  add(in(0, "kel.memfs.ramdisk.full", ",\"/a\",\"b\""));
  EXPECT_THAT(handlers(), ElementsAre("kel.memfs.ramdisk.full"));
  add(in(0, "kel.memfs.whatever"));
  EXPECT_THAT(handlers(), ElementsAre("kel.memfs.*", "kel.memfs.ramdisk.full"));
}

TEST_F(CoverageTest, HasSeenDecisionsOfObservationsTimersAndPosting) {
  add(note("agent", 0, "away") + linkDown(0));
  EXPECT_THAT(decisions(), IsSupersetOf({"net.link.waits", "net.link.reported", "posting.queued"}));
  EXPECT_THAT(decisions(), Not(Contains("posting.lost")));
}

TEST_F(CoverageTest, AddsUpOverCaptures) {
  add(inactive(0));
  add(linkDown(0));
  add(inactive(0));
  EXPECT_EQ(rows().size(), 1U);
  EXPECT_EQ(handlers().size(), 1U);
}

}  // namespace
