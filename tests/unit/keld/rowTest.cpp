#include "keldRow.h"

#include <gtest/gtest.h>

#include <set>

#include "correlatorHarness.h"
#include "keldCorrelator.h"

namespace {

using keld::Arg;
using keld::VProbKind;

// The checks run while these compile.
constexpr auto kRows = keld::table(
    "kel.t.", {
                  {"kel.t.none", "", VProbKind::audit, "@&!*@*@(orn.audit.t.none)No arguments"},
                  {"kel.t.widths", "%p %hu %d %lx", VProbKind::problem, "@&!*@*@(orn.problem.t.widths)%s %hu %d %lx"},
                  {"kel.t.reverse", "si", VProbKind::clear, "@&!*@*@(orn.clear.t.reverse)%lu then %s", "10"},
                  {"kel.t.narrow", "i", VProbKind::clear, "@&!*@*@(orn.clear.t.narrow)%d", "0"},
                  {"kel.t.count", "su", VProbKind::audit, "@&!*@*@(orn.audit.t.count)%s has %lu"},
              });

static_assert(keld::conversion("%-5.3d%%%ld", 's', 0) == Arg::i32);
static_assert(keld::conversion("%-5.3d%%%ld", 's', 1) == Arg::i64);
static_assert(keld::conversion("%-5.3d%%%ld", 's', 2) == Arg::none);
static_assert(keld::argumentCount("%p %p %d") == 3);
static_assert(keld::argumentCount("siu") == 3);
static_assert(keld::eventName("@&!*@*@(orn.clear.x)A (B) C") == "orn.clear.x");
static_assert(keld::eventMessage("@&!*@*@(orn.clear.x)A (B) C") == "A (B) C");

class RowTest : public testing::Test {
 protected:
  keld::HandlerTable handlers(keld::OnUnreadable how) {
    keld::HandlerTable table;
    keld::addRows<kRows>(table, scenario.post, how);
    return table;
  }
  support::Scenario scenario;
};

using support::i;
using support::l;
using support::s;

TEST_F(RowTest, readsAndFillsEachArgumentAtItsWidth) {
  support::Driver driver(scenario, handlers(keld::OnUnreadable::silent));
  driver.observe("kel.t.none");
  driver.observe("kel.t.widths", {s("x"), i(65537), i(-7), l(0x123456789a)});
  driver.observe("kel.t.reverse", {s("text"), l(1'234'567'890'123)});
  driver.observe("kel.t.narrow", {l(0x1'0000'0005)});
  EXPECT_EQ(driver.events(), (std::vector{support::audit("orn.audit.t.none", "No arguments"),
                                          support::problem("orn.problem.t.widths", "x 1 -7 123456789a"),
                                          support::clear("orn.clear.t.reverse", "1234567890123 then text"),
                                          support::clear("orn.clear.t.narrow", "5")}));
}

TEST_F(RowTest, aCountKeepsItsSixtyFourBitsAndASmallerOneIsFilledUpWithZeros) {
  support::Driver driver(scenario, handlers(keld::OnUnreadable::silent));
  driver.observe("kel.t.count", {s("x"), l(-1)});
  driver.observe("kel.t.count", {s("x"), i(-1)});
  EXPECT_EQ(driver.events(), (std::vector{support::audit("orn.audit.t.count", "x has 18446744073709551615"),
                                          support::audit("orn.audit.t.count", "x has 4294967295")}));
}

TEST_F(RowTest, aTableMayPostWithoutWhatCannotBeRead) {
  support::Driver driver(scenario, handlers(keld::OnUnreadable::postsWithout));
  driver.observe("kel.t.widths", {s("x")});
  driver.observe("kel.t.widths", {s("x"), i(1), i(2), l(3)});
  EXPECT_EQ(driver.events(), (std::vector{support::problem("orn.problem.t.widths", "(null) 0 0 0"),
                                          support::problem("orn.problem.t.widths", "x 1 2 3")}));
  EXPECT_EQ(scenario.log.take().size(), 2U);  // the framework's own lines
}

TEST_F(RowTest, unreadableArgumentsAreReportedAsTheTableSays) {
  const std::vector<std::pair<keld::OnUnreadable, std::string>> cases = {
      {keld::OnUnreadable::silent, ""},
      {keld::OnUnreadable::failedToGetParams, "Failed to get params for correlation kel.t.widths: 75\n"},
      {keld::OnUnreadable::failedToCorrelate, "Failed to correlate kel.t.widths: 75\n"}};
  for (const auto& [how, text] : cases) {
    support::Driver driver(scenario, handlers(how));
    driver.observe("kel.t.widths", {s("x")});
    EXPECT_TRUE(driver.events().empty());
    const auto lines = scenario.log.take();
    ASSERT_EQ(lines.size(), text.empty() ? 1U : 2U);
    if (!text.empty()) {
      EXPECT_EQ(lines[1], text);
    }
  }
}

TEST(CorrelatorsTest, noObservationIsTranslatedTwice) {
  std::set<std::string_view> seen;
  for (const keld::CorrelatorInfo* correlator : keld::correlators()) {
    for (const keld::Row& row : correlator->rows) EXPECT_TRUE(seen.insert(row.observation).second) << row.observation;
    for (const keld::Judged& judged : correlator->judged) {
      EXPECT_TRUE(seen.insert(judged.observation).second) << judged.observation;
    }
  }
}

}  // namespace
