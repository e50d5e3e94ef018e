#include "keldHoldOff.h"

#include <gtest/gtest.h>

#include "keldPathFrequency.h"

namespace {

using keld::CrashReminder;
using keld::DstorErrorHoldoff;
using keld::HourlyHoldOff;
using keld::PathFrequency;
using keld::QuietPeriod;
using keld::QuietPeriods;
using keld::RateTable;
using Change = keld::PathFrequency::Change;

constexpr std::int64_t kNow = 1'767'225'600;

TEST(HourlyHoldOff, anIdentifierNeverPostedMayBePosted) {
  HourlyHoldOff holdOff;
  EXPECT_TRUE(holdOff.allows("a", kNow));
  EXPECT_TRUE(holdOff.allows("a", kNow));  // asking posts nothing
  EXPECT_TRUE(holdOff.allows("a", 3600));
  EXPECT_FALSE(holdOff.allows("a", 3599));  // the clock's very first hour
}

TEST(HourlyHoldOff, anHourAfterThePostTheNextMayBePosted) {
  HourlyHoldOff holdOff;
  holdOff.posted("a", kNow);
  EXPECT_FALSE(holdOff.allows("a", kNow));
  EXPECT_FALSE(holdOff.allows("a", kNow + 3599));
  EXPECT_TRUE(holdOff.allows("a", kNow + 3600));
  EXPECT_TRUE(holdOff.allows("b", kNow));
}

TEST(HourlyHoldOff, aClockSetBackHoldsOffUntilItHasMadeUpTheTime) {
  HourlyHoldOff holdOff;
  holdOff.posted("a", kNow);
  EXPECT_FALSE(holdOff.allows("a", kNow - 86400));
  EXPECT_FALSE(holdOff.allows("a", kNow + 3599));
}

TEST(HourlyHoldOff, aReArmedIdentifierMayBePostedAtOnce) {
  HourlyHoldOff holdOff;
  holdOff.posted("a", kNow);
  holdOff.posted("b", kNow);
  holdOff.rearm("a");
  EXPECT_TRUE(holdOff.allows("a", kNow));
  EXPECT_FALSE(holdOff.allows("b", kNow));
  holdOff.posted("a", kNow);
  EXPECT_FALSE(holdOff.allows("a", kNow));
}

TEST(CrashReminder, theFirstCrashIsReportedAndLaterOnesEveryTenHoursWithTheirCount) {
  CrashReminder reminder;
  EXPECT_EQ(reminder.crashed("a", kNow), 1U);
  EXPECT_EQ(reminder.crashed("a", kNow + 100), 0U);
  EXPECT_EQ(reminder.crashed("a", kNow + 35999), 0U);
  EXPECT_EQ(reminder.crashed("a", kNow + 36000), 4U);
  EXPECT_EQ(reminder.crashed("a", kNow + 71999), 0U);
  EXPECT_EQ(reminder.crashed("a", kNow + 72000), 6U);
}

TEST(CrashReminder, applicationsAreCountedApartByTheirWholeNameAndNeverForgotten) {
  CrashReminder reminder;
  EXPECT_EQ(reminder.crashed("a", kNow), 1U);
  EXPECT_EQ(reminder.crashed("a ", kNow), 1U);
  EXPECT_EQ(reminder.crashed("", kNow), 1U);
  EXPECT_EQ(reminder.crashed("a", kNow + 365LL * 86400), 2U);
}

TEST(CrashReminder, aClockSetBackIsSilentButCounts) {
  CrashReminder reminder;
  EXPECT_EQ(reminder.crashed("a", kNow), 1U);
  EXPECT_EQ(reminder.crashed("a", kNow - 86400), 0U);
  EXPECT_EQ(reminder.crashed("a", kNow + 36000), 3U);
}

TEST(QuietPeriod, aGapOfMoreThanFiveMinutesIsReported) {
  QuietPeriod quiet;
  EXPECT_TRUE(quiet.observe(kNow));
  EXPECT_FALSE(quiet.observe(kNow + 300));
  EXPECT_FALSE(quiet.observe(kNow + 600));  // the silent ones count as observations too
  EXPECT_TRUE(quiet.observe(kNow + 901));
}

TEST(QuietPeriod, aClockSetBackIsSilentAndStartsANewPeriod) {
  QuietPeriod quiet;
  EXPECT_TRUE(quiet.observe(kNow));
  EXPECT_FALSE(quiet.observe(kNow - 86400));
  EXPECT_TRUE(quiet.observe(kNow - 86400 + 301));
}

TEST(QuietPeriods, keysAreHeldOffApart) {
  QuietPeriods quiet;
  EXPECT_TRUE(quiet.observe("a", kNow));
  EXPECT_TRUE(quiet.observe("b", kNow));
  EXPECT_FALSE(quiet.observe("a", kNow + 300));
  EXPECT_TRUE(quiet.observe("b", kNow + 301));
}

/// A tracker whose first reset and check are at kNow.
PathFrequency settled() {
  PathFrequency tracker;
  EXPECT_FALSE(tracker.track("none", Change::removed, kNow));
  return tracker;
}

/// How many of `count` observations are worth a report.
int reports(PathFrequency& tracker, int count, std::int64_t now) {
  int reported = 0;
  for (int n = 0; n < count; ++n) reported += tracker.track("p", Change::happened, now) ? 1 : 0;
  return reported;
}

TEST(DstorErrorHoldoff, reportsADiskOnceAnHourAfterItsLastReport) {
  DstorErrorHoldoff holdOff;
  EXPECT_TRUE(holdOff.report("a", kNow));
  EXPECT_FALSE(holdOff.report("a", kNow + 3599));
  EXPECT_TRUE(holdOff.report("b", kNow + 3599));
  EXPECT_TRUE(holdOff.report("a", kNow + 3600));
  EXPECT_FALSE(holdOff.report("a", kNow + 7199));
  EXPECT_TRUE(holdOff.report("a", kNow + 7200));
}

TEST(DstorErrorHoldoff, aNewDiskIsReportedWhateverTheClockShows) {
  DstorErrorHoldoff holdOff;
  EXPECT_TRUE(holdOff.report("a", 0));
  EXPECT_FALSE(holdOff.report("a", 1));
  EXPECT_TRUE(holdOff.report("b", -5));
}

TEST(DstorErrorHoldoff, aClockSetBackHoldsOffUntilItHasMadeUpTheTime) {
  DstorErrorHoldoff holdOff;
  EXPECT_TRUE(holdOff.report("a", kNow));
  EXPECT_FALSE(holdOff.report("a", kNow - 86400));
  EXPECT_TRUE(holdOff.report("a", kNow + 3600));
}

TEST(RateTable, passesAgainOnceMoreThanThePeriodIsOver) {
  RateTable<std::string> table(90);
  EXPECT_TRUE(table.passes("a", kNow));
  EXPECT_FALSE(table.passes("a", kNow + 90));
  EXPECT_TRUE(table.passes("b", kNow + 90));
  EXPECT_TRUE(table.passes("a", kNow + 91));  // what was held back began no period
  EXPECT_FALSE(table.passes("a", kNow + 181));
}

TEST(RateTable, moreKeysThanAHostCanHaveAreForgottenAndNotKept) {
  RateTable<int> table(90);
  for (int key = 0; key < 65536; ++key) ASSERT_TRUE(table.passes(key, kNow));
  EXPECT_FALSE(table.passes(0, kNow));
  EXPECT_TRUE(table.passes(65536, kNow));  // one too many
  EXPECT_FALSE(table.passes(65536, kNow));
  EXPECT_TRUE(table.passes(0, kNow));
}

TEST(RateTable, keysWhosePeriodIsOverMakeRoomForOthers) {
  RateTable<int> table(90);
  for (int key = 0; key < 40'000; ++key) ASSERT_TRUE(table.passes(key, kNow));
  for (int key = 40'000; key < 65'537; ++key) ASSERT_TRUE(table.passes(key, kNow + 91));
  EXPECT_FALSE(table.passes(40'000, kNow + 91));  // not among those that made room
  EXPECT_TRUE(table.passes(0, kNow + 91));
}

TEST(RateTable, aNewKeyIsHeldBackInTheClocksVeryFirstPeriod) {
  RateTable<std::string> table(90);
  EXPECT_FALSE(table.passes("a", 90));
  EXPECT_TRUE(table.passes("a", 91));
}

TEST(PathFrequency, exactlyTheTenthIsReported) {
  PathFrequency tracker = settled();
  EXPECT_EQ(reports(tracker, 9, kNow), 0);
  EXPECT_EQ(reports(tracker, 1, kNow), 1);
  EXPECT_EQ(reports(tracker, 1000, kNow), 0);
}

TEST(PathFrequency, aFreshTrackerAgesItsFirstObservationAway) {
  PathFrequency tracker;
  EXPECT_EQ(reports(tracker, 10, kNow), 0);
  EXPECT_EQ(reports(tracker, 1, kNow), 1);
}

TEST(PathFrequency, ageingComesAfterCounting) {
  PathFrequency eight = settled();
  EXPECT_EQ(reports(eight, 8, kNow), 0);
  EXPECT_EQ(reports(eight, 10, kNow + 61), 0);
  EXPECT_EQ(reports(eight, 1, kNow + 61), 1);
  PathFrequency nine = settled();
  EXPECT_EQ(reports(nine, 9, kNow), 0);
  EXPECT_EQ(reports(nine, 1, kNow + 61), 1);
}

TEST(PathFrequency, sixtySecondsAgeNothing) {
  PathFrequency tracker = settled();
  EXPECT_EQ(reports(tracker, 8, kNow), 0);
  EXPECT_EQ(reports(tracker, 2, kNow + 60), 1);
}

TEST(PathFrequency, theTriggeredCountIsKeptFor600SecondsAndDroppedAfter601) {
  PathFrequency tracker = settled();
  EXPECT_EQ(reports(tracker, 10, kNow), 1);
  EXPECT_EQ(reports(tracker, 20, kNow + 600), 0);
  EXPECT_EQ(reports(tracker, 9, kNow + 601), 0);
  EXPECT_EQ(reports(tracker, 1, kNow + 601), 1);
}

TEST(PathFrequency, aRemovalForgetsAnAdditionStartsFromZeroAndAnotherCounts) {
  PathFrequency tracker = settled();
  EXPECT_EQ(reports(tracker, 9, kNow), 0);
  EXPECT_FALSE(tracker.track("p", Change::removed, kNow));
  EXPECT_FALSE(tracker.track("p", Change::added, kNow));
  EXPECT_FALSE(tracker.track("p", Change::added, kNow));
  EXPECT_EQ(reports(tracker, 8, kNow), 0);
  EXPECT_TRUE(tracker.track("p", Change::added, kNow));
}

TEST(PathFrequency, aClockSetBackNeitherResetsNorAges) {
  PathFrequency tracker = settled();
  EXPECT_EQ(reports(tracker, 5, kNow), 0);
  EXPECT_EQ(reports(tracker, 5, kNow - 86400), 1);
}

}  // namespace
