#include "replayDiff.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "captureText.h"

namespace {

using support::in;
using support::inactive;
using support::linkDown;
using support::moment;
using support::note;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

constexpr const char* kInactive = "orn.problem.net.lacp.uplink.inactive";
constexpr const char* kLinkDown = "orn.problem.net.qnic.linkstate.down";

struct Compared {
  std::string text;
  std::uint64_t differences = 0;
};

Compared compare(const std::string& capture, std::vector<std::string> globs = {}, std::optional<WallTime> from = {}) {
  Compared result;
  kelctl::ReplayDiff diff("the.capture", std::move(globs), from, [&](std::string_view line) { result.text += line; });
  kelctl::replay(support::inputOf(capture), diff, [&](const kelctl::CaptureItem& item) { diff.see(item); });
  diff.finish();
  result.differences = diff.differences();
  return result;
}

std::string out(std::int64_t milliseconds, const char* event = kInactive, const std::string& of = "msw1") {
  return support::out(milliseconds, event, ",\"" + of + '"');
}

/// A line of a comparison, at a time of day such as "00:00:01.000000".
std::string line(char mark, const std::string& time, const char* event = kInactive, const std::string& of = "msw1") {
  return mark + ("2026-01-01T" + time + "Z ") + event + ",,\"" + of + "\"\n";
}

const std::string kFiles = "--- the.capture (captured)\n+++ the.capture (replayed)\n";

std::string hunk(const std::string& time) {
  return "@@ 2026-01-01T" + time + "Z @@\n";
}

TEST(ReplayDiff, OfTheSameEventsIsEmpty) {
  const Compared result =
      compare(inactive(0) + out(0) + linkDown(1100) + out(2000, kLinkDown, "qnic0") + inactive(9000) + out(9001));
  EXPECT_EQ(result.text, "");
  EXPECT_EQ(result.differences, 0U);
}

TEST(ReplayDiff, TakesEventsOfNeighbouringSecondsForTheSame) {
  EXPECT_EQ(compare(inactive(5000) + out(6999) + inactive(20'000) + out(20'000)).text, "");
  EXPECT_EQ(compare(inactive(5999) + out(5000) + note("end", 9000)).text, "");
}

TEST(ReplayDiff, TellsEventsThatAreTwoSecondsApart) {
  const Compared result = compare(inactive(5000) + out(7000));
  EXPECT_EQ(result.text,
            kFiles + hunk("00:00:05.000000") + line('+', "00:00:05.000000") + line('-', "00:00:07.000000"));
  EXPECT_EQ(result.differences, 2U);
}

TEST(ReplayDiff, TellsWhatOnlyTheCaptureHas) {
  const Compared result = compare(inactive(0) + out(0) + out(5000, kLinkDown, "qnic7") + note("end", 20'000));
  EXPECT_EQ(result.text, kFiles + hunk("00:00:00.000000") + line(' ', "00:00:00.000000") +
                             line('-', "00:00:05.000000", kLinkDown, "qnic7"));
  EXPECT_EQ(result.differences, 1U);
}

TEST(ReplayDiff, TellsWhatOnlyTheReplayHas) {
  const Compared result = compare(inactive(0) + linkDown(5100));
  EXPECT_EQ(result.text, kFiles + hunk("00:00:00.000000") + line('+', "00:00:00.000000") +
                             line('+', "00:00:06.000000", kLinkDown, "qnic0"));
  EXPECT_EQ(result.differences, 2U);
}

TEST(ReplayDiff, ComparesArguments) {
  const Compared result = compare(inactive(0) + out(0, kInactive, "msw2"));
  EXPECT_THAT(result.text, HasSubstr(line('-', "00:00:00.000000", kInactive, "msw2")));
  EXPECT_THAT(result.text, HasSubstr(line('+', "00:00:00.000000", kInactive, "msw1")));
  EXPECT_EQ(result.differences, 2U);
}

TEST(ReplayDiff, CountsEventsThatAreThereMoreThanOnce) {
  EXPECT_EQ(compare(inactive(0) + out(0) + inactive(100) + out(100)).differences, 0U);
  EXPECT_EQ(compare(inactive(0) + out(0) + out(0) + out(100)).differences, 2U);
  EXPECT_EQ(compare(inactive(0) + inactive(10) + inactive(20) + out(20)).differences, 2U);
}

TEST(ReplayDiff, ShowsThreeLinesAroundADifference) {
  std::string capture;
  for (int n = 0; n < 20; ++n) {
    const std::string msw = "msw" + std::to_string(n);
    capture += inactive(n * 10'000, msw);
    if (n != 5 && n != 15) capture += out(n * 10'000, kInactive, msw);
  }
  const auto nth = [](char mark, const std::string& time, int n) {
    return line(mark, time, kInactive, "msw" + std::to_string(n));
  };
  EXPECT_EQ(compare(capture).text,
            kFiles + hunk("00:00:20.000000") + nth(' ', "00:00:20.000000", 2) + nth(' ', "00:00:30.000000", 3) +
                nth(' ', "00:00:40.000000", 4) + nth('+', "00:00:50.000000", 5) + nth(' ', "00:01:00.000000", 6) +
                nth(' ', "00:01:10.000000", 7) + nth(' ', "00:01:20.000000", 8) + hunk("00:02:00.000000") +
                nth(' ', "00:02:00.000000", 12) + nth(' ', "00:02:10.000000", 13) + nth(' ', "00:02:20.000000", 14) +
                nth('+', "00:02:30.000000", 15) + nth(' ', "00:02:40.000000", 16) + nth(' ', "00:02:50.000000", 17) +
                nth(' ', "00:03:00.000000", 18));
}

TEST(ReplayDiff, ShowsLinesBetweenNearDifferencesOnce) {
  std::string capture;
  for (int n = 0; n < 6; ++n) {
    capture += inactive(n * 10'000);
    if (n != 1 && n != 4) capture += out(n * 10'000);
  }
  EXPECT_EQ(compare(capture).text, kFiles + hunk("00:00:00.000000") + line(' ', "00:00:00.000000") +
                                       line('+', "00:00:10.000000") + line(' ', "00:00:20.000000") +
                                       line(' ', "00:00:30.000000") + line('+', "00:00:40.000000") +
                                       line(' ', "00:00:50.000000"));
}

TEST(ReplayDiff, FindsATimersEventLongBeforeTheNextLine) {
  EXPECT_EQ(compare(linkDown(100) + out(1000, kLinkDown, "qnic0") + inactive(3'600'000) + out(3'600'000)).text, "");
}

TEST(ReplayDiff, FindsTimersEventsThatFollowEachOtherWithoutObservations) {
  // One NIC's link is told after a second, the other's loss behind the watchdog's time-out.
  const std::string lost = "orn.problem.net.connectivity.lost";
  const std::string arguments = ",\"\"\"switch0\"\"\",\"qnic1\",\"\"\"Production\"\"\"";
  const std::string capture = "#keld-capture 1 {\"facts\":{\"portGroups\":{\"Production\":\"switch0\"}}}\n" +
                              in(0, "kel.net.pg.uplink.transition.down", ",\"qnic1\",\"Production\",0,1") +
                              in(100, "kel.net.uplink.watchdog.timeout", ",\"qnic1\"") + linkDown(200) +
                              out(1000, kLinkDown, "qnic0") + support::out(7000, lost, arguments) + inactive(600'000) +
                              out(600'000);
  EXPECT_EQ(compare(capture).text, "");
}

TEST(ReplayDiff, FindsTheEventsOfTheLastTenSeconds) {
  EXPECT_EQ(compare(linkDown(100) + out(1000, kLinkDown, "qnic0")).text, "");
}

TEST(ReplayDiff, FollowsAClockThatIsSetBack) {
  EXPECT_EQ(compare(inactive(100'000) + out(100'000) + note("step", 100'500, moment(0)) + inactive(1000) + out(1000) +
                    linkDown(2000) + out(3000, kLinkDown, "qnic0") + inactive(50'000) + out(50'000))
                .text,
            "");
}

TEST(ReplayDiff, TakesOnlyTheEventsThatAreAskedFor) {
  const std::string capture = inactive(0) + linkDown(0) + note("end", 20'000);
  EXPECT_EQ(compare(capture, {"orn.problem.net.qnic.*"}).text,
            kFiles + hunk("00:00:01.000000") + line('+', "00:00:01.000000", kLinkDown, "qnic0"));
  EXPECT_EQ(compare(capture, {"orn.clear.*"}).text, "");
  EXPECT_EQ(compare(capture, {}, kelctl::parseTime("--from", "2026-01-01T00:00:01Z")).differences, 1U);
}

TEST(ReplayDiff, ShowsNoControlCharacters) {
  const Compared result = compare(inactive(0) + out(0) + out(100, kInactive, "a\x1b[31m\nb"));
  EXPECT_THAT(result.text, Not(HasSubstr("\x1b")));
  EXPECT_THAT(result.text, EndsWith(R"(,,"a\x1b[31m\nb")" + std::string("\n")));
}

}  // namespace
