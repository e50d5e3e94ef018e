#include "explain.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "captureText.h"

namespace {

using kelctl::ExplainWish;
using kelctl::StoryStep;
using support::in;
using support::inactive;
using support::linkDown;
using support::note;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

std::vector<StoryStep> explained(const std::string& capture, const ExplainWish& wish = {}) {
  std::vector<StoryStep> steps;
  kelctl::Explainer explainer(wish, [&](const StoryStep& step) { steps.push_back(step); });
  kelctl::StoryTeller teller([&](StoryStep&& step) { explainer.take(std::move(step)); });
  kelctl::replay(support::inputOf(capture), teller);
  teller.finish();
  EXPECT_EQ(explainer.explained(), steps.size());
  return steps;
}

/// What was explained: "line 2", or "timer at 7" seconds.
std::vector<std::string> told(const std::string& capture, const ExplainWish& wish = {}) {
  std::vector<std::string> names;
  for (const StoryStep& step : explained(capture, wish)) {
    const auto second = step.time.time_since_epoch() / std::chrono::seconds(1) - support::kCaptureStart;
    names.push_back(step.line != 0 ? "line " + std::to_string(step.line)
                                   : kelctl::stepName(step.what) + (" at " + std::to_string(second)));
  }
  return names;
}

/// The explanation of a capture's last line.
std::string textOfLast(const std::string& capture) {
  ExplainWish wish;
  wish.line = std::count(capture.begin(), capture.end(), '\n');
  const auto steps = explained(capture, wish);
  return steps.empty() ? "" : kelctl::explainStep(steps.front());
}

ExplainWish line(std::uint64_t number) {
  ExplainWish wish;
  wish.line = number;
  return wish;
}
ExplainWish event(const std::string& glob) {
  ExplainWish wish;
  wish.events = {glob};
  return wish;
}
ExplainWish subject(const std::string& glob) {
  ExplainWish wish;
  wish.subjects = {glob};
  return wish;
}

constexpr const char* kFull = "kel.memfs.ramdisk.full";
constexpr const char* kLinkDown = "orn.problem.net.qnic.linkstate.down";

const std::string kStory = inactive(0) + linkDown(100, "qnic0") + linkDown(20'100, "qnic1") + note("end", 40'000);

TEST(Explain, TellsAllWhereNothingIsAskedFor) {
  EXPECT_THAT(told(kStory),
              ElementsAre("start at 0", "line 1", "line 2", "timer at 1", "line 3", "timer at 21", "line 4"));
}

TEST(Explain, TellsOfALineAndOfTheTimerThatSettlesIt) {
  EXPECT_THAT(told(kStory, line(1)), ElementsAre("line 1"));
  EXPECT_THAT(told(kStory, line(2)), ElementsAre("line 2", "timer at 1"));
  EXPECT_THAT(told(kStory, line(3)), ElementsAre("line 3", "timer at 21"));
  EXPECT_THAT(told(kStory, line(9)), IsEmpty());
}

TEST(Explain, TellsOfAnIdentifier) {
  ExplainWish wish;
  wish.observations = {"kel.net.lacp.*"};
  EXPECT_THAT(told(kStory, wish), ElementsAre("line 1"));
  wish.observations = {"kel.nobody", "kel.net.qnic.*"};
  EXPECT_THAT(told(kStory, wish), ElementsAre("line 2", "timer at 1", "line 3", "timer at 21"));
}

TEST(Explain, TellsOfAnEventAndFirstOfWhatWaitedForIt) {
  EXPECT_THAT(told(kStory, event(kLinkDown)), ElementsAre("line 2", "timer at 1", "line 3", "timer at 21"));
  EXPECT_THAT(told(kStory, event("orn.problem.net.lacp.*")), ElementsAre("line 1"));
  EXPECT_THAT(told(kStory, event("orn.clear.*")), IsEmpty());
}

TEST(Explain, TellsOfASubject) {
  EXPECT_THAT(told(kStory, subject("qnic1")), ElementsAre("line 3", "timer at 21"));
  EXPECT_THAT(told(kStory, subject("qnic9")), IsEmpty());
}

TEST(Explain, TellsNothingOutsideItsTimes) {
  ExplainWish wish = event(kLinkDown);
  wish.from = kelctl::parseTime("--from", "2026-01-01T00:00:10Z");
  EXPECT_THAT(told(kStory, wish), ElementsAre("line 3", "timer at 21"));
  wish.from.reset();
  wish.until = kelctl::parseTime("--until", "2026-01-01T00:00:10Z");
  EXPECT_THAT(told(kStory, wish), ElementsAre("line 2", "timer at 1"));
}

/// A watchdog's hold of seven seconds, and a link that makes the timer fire in between.
const std::string kInterrupted =
    in(0, "kel.net.uplink.watchdog.timeout", ",\"qnic1\"") + linkDown(200, "qnic0") + note("end", 20'000);

TEST(Explain, FollowsARecordThatATimerFindsNotDue) {
  // The timer in between settles the link, whose observation is told as well.
  EXPECT_THAT(told(kInterrupted, line(1)), ElementsAre("line 1", "line 2", "timer at 1", "timer at 7"));
}

TEST(Explain, RemembersARecordThatATimerFoundNotDue) {
  const std::string capture = "#keld-capture 1 {\"facts\":{\"portGroups\":{\"Production\":\"switch0\"}}}\n" +
                              in(0, "kel.net.pg.uplink.transition.down", ",\"qnic1\",\"Production\",0,1") +
                              linkDown(200, "qnic0") + note("end", 20'000);
  EXPECT_THAT(told(capture, event("orn.problem.net.connectivity.lost")), ElementsAre("line 2", "timer at 2"));
}

TEST(Explain, TellsOnceOfAnObservationWithTwoReasonsToWait) {
  // The second link moves the timer of the watchdog, and waits itself.
  EXPECT_THAT(told(kInterrupted, event(kLinkDown)), ElementsAre("line 2", "timer at 1"));
}

TEST(Explain, ForgetsWhatWaitedBeforeARestart) {
  EXPECT_THAT(told(linkDown(0) + note("restart", 500) + linkDown(5000) + note("end", 10'000), event(kLinkDown)),
              ElementsAre("line 3", "timer at 6"));
  EXPECT_THAT(told(linkDown(0) + note("restart", 500) + linkDown(5000) + note("end", 10'000), line(1)),
              ElementsAre("line 1"));
}

TEST(ExplainedStep, BeginsWithTimeLineAndObservation) {
  EXPECT_THAT(textOfLast("\n" + in(250, "kel.net.lacp.uplink.inactive", ",\"msw1\",-1,18446744073709551615,???")),
              StartsWith("2026-01-01T00:00:00.250000Z line 2: kel.net.lacp.uplink.inactive \"msw1\" -1 "
                         "18446744073709551615 ???\n"));
}

TEST(ExplainedStep, HasTheEventAndItsText) {
  const std::string text = textOfLast(inactive(0));
  EXPECT_THAT(text, HasSubstr("problem orn.problem.net.lacp.uplink.inactive\n"));
  EXPECT_THAT(text, HasSubstr("All uplinks on MSW msw1 must be active for LACP\n"));
}

TEST(ExplainedStep, HasTheActionAndTheNumbersThatDecided) {
  const std::string text =
      textOfLast("#keld-capture 1 {\"options\":{\"Net/LinkFlappingThreshold\":1}}\n" + linkDown(0) + linkDown(2000));
  EXPECT_THAT(text, HasSubstr("qnic0: link-downs within 60 s: 2, above 1;"));
  EXPECT_THAT(text, HasSubstr("[net.flapping.taken-down]\n"));
  EXPECT_THAT(text, HasSubstr("action {\"action\":\"nic.down\",\"nic\":\"qnic0\"}\n"));
}

TEST(ExplainedStep, SaysWhyNothingWasSaid) {
  const std::string text =
      textOfLast(in(0, kFull, ",\"/var/log/a\",\"var\"") + in(10'000, kFull, ",\"/var/log/a\",\"var\""));
  EXPECT_THAT(text,
              HasSubstr("/var/log/a: ramdisk full: held off, last seen 10 s ago, limit 300 s [memfs.quiet.held]\n"));
  EXPECT_THAT(text, HasSubstr("no event now\n"));
}

TEST(ExplainedStep, NamesTheArgumentThatCannotBeRead) {
  EXPECT_THAT(textOfLast(in(0, "kel.net.lacp.uplink.inactive", ",7")), HasSubstr("argument 1 is read as string"));
  EXPECT_THAT(textOfLast(in(0, "kel.scsi.device.io.latency.high", ",\"naa.1\",7,???")),
              HasSubstr("argument 3 is read as int64"));
  EXPECT_THAT(textOfLast(in(0, "kel.scsi.device.io.latency.high", ",\"naa.1\",7")),
              HasSubstr("3 arguments are read, and it has 2"));
}

TEST(ExplainedStep, SaysThatNobodyKnowsAnIdentifier) {
  EXPECT_THAT(textOfLast(in(0, "kel.nobody.knows")), HasSubstr("no correlator takes this identifier\n"));
  EXPECT_THAT(textOfLast(in(0, "kel.net.nobody.knows")), HasSubstr("no handler for this identifier\n"));
  EXPECT_THAT(textOfLast(in(0, "kel.memfs.tardisk.readonlyfile", ",\"/bin/x\"")),
              HasSubstr("known, and never an event\n"));
}

TEST(ExplainedStep, ShowsNoControlCharacters) {
  const std::string text = textOfLast(in(0, "kel.net.\x1b[2J", ",\"\x1b[31m\r\""));
  EXPECT_THAT(text, Not(HasSubstr("\x1b")));
  EXPECT_THAT(text, HasSubstr("\\x1b"));
}

TEST(StoryJson, HasWhatWasDecidedAndSaid) {
  const auto steps = explained(linkDown(100), line(1));
  ASSERT_EQ(steps.size(), 2U);
  const kelctl::Json observation = kelctl::storyJson(steps[0]);
  EXPECT_EQ(observation["time_us"], 1'767'225'600'100'000);
  EXPECT_EQ(observation["what"], "observation");
  EXPECT_EQ(observation["line"], 1);
  EXPECT_EQ(observation["id"], "kel.net.qnic.linkstate.down");
  EXPECT_EQ(observation["args"], kelctl::Json::parse(R"(["qnic0"])"));
  ASSERT_EQ(observation["taken"].size(), 1U);
  const kelctl::Json& decisions = observation["taken"][0]["decisions"];
  ASSERT_FALSE(decisions.empty());
  EXPECT_EQ(decisions.back()["name"], "net.link.waits");
  EXPECT_EQ(decisions.back()["kind"], "waits");
  EXPECT_EQ(decisions.back()["subject"], "qnic0");
  EXPECT_EQ(decisions.back()["seconds"], 1);
  const kelctl::Json timer = kelctl::storyJson(steps[1]);
  EXPECT_EQ(timer["what"], "timer");
  EXPECT_FALSE(timer.contains("line"));
  EXPECT_EQ(timer["taken"][0]["events"],
            kelctl::Json::parse(R"([{"kind":"problem","event":"orn.problem.net.qnic.linkstate.down",)"
                                R"("text":"Physical NIC qnic0 linkstate is down"}])"));
}

TEST(StoryJson, HasNullForANumberThatTheTraceDoesNotShow) {
  const auto steps = explained(in(0, "kel.x", ",\"a\",???,-1"), line(1));
  ASSERT_EQ(steps.size(), 1U);
  EXPECT_EQ(kelctl::storyJson(steps[0])["args"], kelctl::Json::parse(R"(["a",null,-1])"));
}

TEST(StoryJson, HasActionsAsObjects) {
  const auto steps = explained(
      "#keld-capture 1 {\"options\":{\"Net/LinkFlappingThreshold\":1}}\n" + linkDown(0) + linkDown(2000), line(3));
  ASSERT_FALSE(steps.empty());
  EXPECT_EQ(kelctl::storyJson(steps[0])["taken"][0]["actions"],
            kelctl::Json::parse(R"([{"action":"nic.down","nic":"qnic0"}])"));
}

TEST(Story, TellsOfTheDeliveryOfEvents) {
  const auto steps =
      explained(note("agent", 0, "away") + inactive(100) + note("agent", 1000, "back") + inactive(400'000),
                event("orn.problem.net.lacp.*"));
  ASSERT_EQ(steps.size(), 3U);
  ASSERT_FALSE(steps[1].taken.empty());
  ASSERT_EQ(steps[1].taken[0].events.size(), 1U);
  EXPECT_EQ(steps[1].taken[0].events[0].kind, "resent");
  EXPECT_EQ(steps[1].time.time_since_epoch(), std::chrono::seconds(support::kCaptureStart + 180));
}

TEST(Story, LeavesOutTimersThatNobodyHasAnythingToSayOf) {
  EXPECT_THAT(told(inactive(0) + inactive(3'600'000) + note("end", 3'600'001)),
              ElementsAre("start at 0", "line 1", "line 2", "line 3"));
}

}  // namespace
