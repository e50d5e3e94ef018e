#include "keldInjectionLog.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <tuple>
#include <vector>

namespace {

using keld::InjectionLog;
using Found = std::tuple<std::int32_t, std::uint64_t, std::size_t>;

std::vector<Found> repeated(InjectionLog& log) {
  std::vector<Found> all;
  for (const auto& one : log.repeated()) all.emplace_back(one.world, one.page, one.injections);
  return all;
}

TEST(InjectionLogTest, FiftyWithinLessThanTwoSecondsAreNotTooMany) {
  InjectionLog log;
  for (int n = 0; n < 49; ++n) log.add(7, 0x10, 100);
  log.add(7, 0x10, 101);
  EXPECT_TRUE(log.repeated().empty());
  log.add(7, 0x10, 102);
  EXPECT_EQ(repeated(log), (std::vector<Found>{{7, 0x10, 51}}));
}

TEST(InjectionLogTest, FortyNineAreNotTooManyHoweverFarApart) {
  InjectionLog log;
  for (int n = 0; n < 49; ++n) log.add(7, 0x10, 100 + n);
  EXPECT_TRUE(log.repeated().empty());
  log.add(7, 0x10, 149);
  EXPECT_EQ(repeated(log), (std::vector<Found>{{7, 0x10, 50}}));
}

TEST(InjectionLogTest, PagesAndMachinesCountByThemselves) {
  InjectionLog log;
  for (int n = 0; n < 40; ++n) {
    log.add(7, 0x10, 100 + n / 10);
    log.add(7, 0x11, 100 + n / 10);
    log.add(8, 0x10, 100 + n / 10);
  }
  EXPECT_TRUE(log.repeated().empty());
}

TEST(InjectionLogTest, AnInjectionIsKeptForSixtySecondsAndForgottenAfter) {
  InjectionLog log;
  for (int n = 0; n < 49; ++n) log.add(7, 0x10, 100);
  log.expire(160);
  log.add(7, 0x10, 160);
  EXPECT_EQ(repeated(log), (std::vector<Found>{{7, 0x10, 50}}));
  log.expire(161);
  EXPECT_TRUE(log.repeated().empty());
}

TEST(InjectionLogTest, AKilledMachineIsSkippedUntilAllItsInjectionsAreGone) {
  InjectionLog log;
  for (int n = 0; n < 50; ++n) log.add(7, 0x10, 100 + n / 25 * 2);
  ASSERT_EQ(log.repeated().size(), 1U);
  log.setKilled(7);
  EXPECT_TRUE(log.killed(7));
  EXPECT_TRUE(log.repeated().empty());
  log.expire(162);  // those of second 102 remain
  EXPECT_TRUE(log.killed(7));
  log.expire(163);
  EXPECT_FALSE(log.killed(7));
}

TEST(InjectionLogTest, KillingAMachineWithoutInjectionsDoesNothing) {
  InjectionLog log;
  log.setKilled(7);
  EXPECT_FALSE(log.killed(7));
}

/// The same judgement by walking over everything, as simply as it can be put.
class Walked {
 public:
  void expire(std::int64_t now) {
    std::erase_if(all_, [&](const Entry& entry) { return entry.time + 60 < now; });
  }
  void add(std::int32_t world, std::uint64_t page, std::int64_t now) { all_.push_back({world, page, now}); }
  [[nodiscard]] std::vector<Found> repeated() const {
    std::vector<Entry> sorted = all_;
    std::stable_sort(sorted.begin(), sorted.end(), [](const Entry& left, const Entry& right) {
      return std::tie(left.world, left.page) < std::tie(right.world, right.page);
    });
    std::vector<Found> found;
    std::size_t length = 0;
    std::int64_t earliest = 0, latest = 0;
    for (std::size_t n = 0; n < sorted.size(); ++n) {
      const bool joins = n > 0 && sorted[n - 1].world == sorted[n].world && sorted[n - 1].page == sorted[n].page;
      length = joins ? length + 1 : 1;
      earliest = joins ? std::min(earliest, sorted[n].time) : sorted[n].time;
      latest = joins ? std::max(latest, sorted[n].time) : sorted[n].time;
      const bool known =
          !found.empty() && std::get<0>(found.back()) == sorted[n].world && std::get<1>(found.back()) == sorted[n].page;
      if (length >= 50 && latest - earliest >= 2 && !known) found.emplace_back(sorted[n].world, sorted[n].page, length);
    }
    return found;
  }

 private:
  struct Entry {
    std::int32_t world;
    std::uint64_t page;
    std::int64_t time;
  };
  std::vector<Entry> all_;
};

TEST(InjectionLogTest, JudgesAsAWalkOverEverythingWould) {
  std::mt19937 random(20260301);
  for (int round = 0; round < 6; ++round) {
    InjectionLog log;
    Walked walked;
    std::int64_t now = 1000;
    for (int step = 0; step < 1200; ++step) {
      // Mostly on, at times a leap, at times back.
      const auto leap = random() % 200;
      if (leap == 0) now += 30;
      if (leap == 1) now -= 5;
      if (leap < 12) ++now;
      log.expire(now);
      walked.expire(now);
      const auto world = static_cast<std::int32_t>(random() % 2) - 1;
      const std::uint64_t page = random() % 3;
      log.add(world, page, now);
      walked.add(world, page, now);
      // The walk takes its time, and what lies between two judgements is judged by the second.
      if (step % 5 != 0) continue;
      ASSERT_EQ(repeated(log), walked.repeated()) << "round " << round << ", step " << step;
    }
  }
}

}  // namespace
