#include "traceLine.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace {

using kelctl::parseTraceLine;
using kelctl::TraceArgument;
using kelctl::TraceDirection;
using kelctl::TraceEntry;
using kelctl::TraceSplitter;
using kelctl::TraceUnknown;

constexpr const char* kHead = "1767225600.000000042,IN,1767225599999999,kel.x,";

std::vector<TraceArgument> argumentsOf(const std::string& arguments) {
  const auto entry = parseTraceLine(kHead + arguments);
  EXPECT_TRUE(entry) << arguments;
  return entry ? entry->arguments : std::vector<TraceArgument>{};
}

TEST(TraceLine, OfAnObservationIsRead) {
  const auto entry = parseTraceLine(
      "1767225600.000000042,IN,1767225599999999,kel.net.pg.uplink.transition.down,,\"nic0\",\"Production\",1,2");
  ASSERT_TRUE(entry);
  EXPECT_EQ(entry->renderedSeconds, 1767225600U);
  EXPECT_EQ(entry->renderedNanoseconds, 42U);
  EXPECT_EQ(entry->direction, TraceDirection::in);
  EXPECT_EQ(entry->timestamp, 1767225599999999U);
  EXPECT_EQ(entry->id, "kel.net.pg.uplink.transition.down");
  EXPECT_EQ(entry->arguments, (std::vector<TraceArgument>{"nic0", "Production", std::int64_t{1}, std::int64_t{2}}));
}

TEST(TraceLine, OfAnEventIsRead) {
  const auto entry = parseTraceLine(
      "1767225600.000000042,OUT,1767225599999999,orn.problem.net.redundancy.lost,,\"\"\"Production\"\"\"");
  ASSERT_TRUE(entry);
  EXPECT_EQ(entry->direction, TraceDirection::out);
  EXPECT_EQ(entry->arguments, (std::vector<TraceArgument>{"\"Production\""}));
}

TEST(TraceLine, WithoutArgumentsEndsWithAComma) {
  EXPECT_TRUE(argumentsOf("").empty());
}

TEST(TraceLine, ArgumentsAreTyped) {
  EXPECT_EQ(argumentsOf(",-1,18446744073709551615,9223372036854775807"),
            (std::vector<TraceArgument>{std::int64_t{-1}, std::uint64_t{18446744073709551615U},
                                        std::int64_t{9223372036854775807}}));
  EXPECT_EQ(argumentsOf(",???,1"), (std::vector<TraceArgument>{TraceUnknown{}, std::int64_t{1}}));
  EXPECT_EQ(argumentsOf(",\"(null)\""), (std::vector<TraceArgument>{"(null)"}));
  EXPECT_EQ(argumentsOf(",\"\""), (std::vector<TraceArgument>{""}));
}

TEST(TraceLine, StringsMayHoldAnything) {
  EXPECT_EQ(argumentsOf(",\"say \"\"x\"\"\""), (std::vector<TraceArgument>{"say \"x\""}));
  EXPECT_EQ(argumentsOf(",\"a,b\",1"), (std::vector<TraceArgument>{"a,b", std::int64_t{1}}));
  EXPECT_EQ(argumentsOf(",\"a\nb\""), (std::vector<TraceArgument>{"a\nb"}));
  EXPECT_EQ(argumentsOf(",\"\"\"\""), (std::vector<TraceArgument>{"\""}));
}

TEST(TraceLine, IsRefusedWhereItIsNone) {
  for (const char* line : {"", ",", "1767225600.000000042,IN,1", "1767225600.000000042,IN,1,kel.x",
                           "1767225600,IN,1,kel.x,", "1767225600.42,IN,1,kel.x,", "1767225600.000000042,in,1,kel.x,",
                           "1767225600.000000042,IN,-1,kel.x,", "1767225600.000000042,IN,1,kel.x,1",
                           "1767225600.000000042,IN,1,kel.x,,", "1767225600.000000042,IN,1,kel.x,,\"a",
                           "1767225600.000000042,IN,1,kel.x,,\"a\"b", "1767225600.000000042,IN,1,kel.x,,a",
                           "1767225600.000000042,IN,1,kel.x,,1.5", "1767225600.000000042,IN,1,kel.x,,0x1",
                           "1767225600.000000042,IN,1,kel.x,,99999999999999999999", "-1.000000042,IN,1,kel.x,"}) {
    EXPECT_FALSE(parseTraceLine(line)) << line;
  }
}

TEST(TraceJson, HasTheEntrysParts) {
  const auto entry = parseTraceLine(std::string(kHead) + ",\"a \"\"b\"\"\",-1,18446744073709551615,???");
  ASSERT_TRUE(entry);
  EXPECT_EQ(kelctl::traceJson(*entry),
            R"({"rendered_at":1767225600.000000042,"direction":"IN","time_us":1767225599999999,"id":"kel.x",)"
            R"("args":["a \"b\"",-1,18446744073709551615,null]})");
}

TEST(TraceJson, IsOneLineOfValidJsonWhateverTheStringHolds) {
  const auto entry = parseTraceLine(std::string(kHead) + ",\"a\nb\xff\x1b\"");
  ASSERT_TRUE(entry);
  const std::string json = kelctl::traceJson(*entry);
  EXPECT_EQ(json.find('\n'), std::string::npos);
  EXPECT_EQ(nlohmann::json::parse(json)["args"][0], "a\nb\xef\xbf\xbd\x1b");
}

class TraceSplitterTest : public testing::Test {
 protected:
  void feed(std::string_view bytes) {
    splitter_.feed(bytes, [this](std::string_view entry) {
      entries_.emplace_back(entry);
      return true;
    });
  }

  TraceSplitter splitter_;
  std::vector<std::string> entries_;
};

TEST_F(TraceSplitterTest, PartsEntriesHoweverTheyArrive) {
  const std::string text = std::string(kHead) + "\n" + kHead + ",\"a\nb\",\"c \"\"\nd\"\"\"\n\n" + kHead + ",1\n";
  const std::vector<std::string> expected{kHead, std::string(kHead) + ",\"a\nb\",\"c \"\"\nd\"\"\"", "",
                                          std::string(kHead) + ",1"};
  for (const std::size_t chunk : {std::size_t{1}, std::size_t{7}, text.size()}) {
    entries_.clear();
    for (std::size_t at = 0; at < text.size(); at += chunk) feed(std::string_view(text).substr(at, chunk));
    EXPECT_EQ(entries_, expected) << "in chunks of " << chunk;
    EXPECT_EQ(splitter_.pending(), 0U);
  }
}

TEST_F(TraceSplitterTest, KeepsAnEntryThatHasNotEnded) {
  feed("1.0,IN");
  EXPECT_TRUE(entries_.empty());
  feed(",1,kel.x,\n");
  EXPECT_EQ(entries_, std::vector<std::string>{"1.0,IN,1,kel.x,"});
}

TEST_F(TraceSplitterTest, TakesNoQuoteOfAnIdentifierForAStringsQuote) {
  feed("1.0,IN,1,kel.\"x,\n1.0,IN,1,\"kel.y,\n");
  EXPECT_EQ(entries_, (std::vector<std::string>{"1.0,IN,1,kel.\"x,", "1.0,IN,1,\"kel.y,"}));
}

TEST_F(TraceSplitterTest, RecoversFromAQuoteThatIsNeverClosed) {
  feed("1.0,IN,1,kel.a,b,,\"\n");
  const std::string line = std::string(kHead) + ",1\n";
  std::size_t fed = 0;
  for (; fed <= TraceSplitter::kMaxEntryBytes; fed += line.size()) feed(line);
  ASSERT_GE(entries_.size(), 2U);
  EXPECT_EQ(entries_[0], "1.0,IN,1,kel.a,b,,\"");
  EXPECT_EQ(entries_.size(), 1 + fed / line.size());
  EXPECT_EQ(entries_.back() + "\n", line);
}

TEST_F(TraceSplitterTest, HoldsNoMoreThanTheLongestEntry) {
  for (int n = 0; n < 64; ++n) feed(std::string(65536, 'x'));
  EXPECT_LE(splitter_.pending(), TraceSplitter::kMaxEntryBytes);
}

TEST_F(TraceSplitterTest, AnEntryThatBeginsWithAHashEndsAtItsFirstLineFeed) {
  const std::string directive = R"(#facts 1767225600.000000042 {"a,":"b,c,d,e,"f)";
  const std::string text = directive + "\n" + kHead + ",\"a\n#b\"\n#\n# \"\n" + kHead + "\n";
  const std::vector<std::string> expected{directive, std::string(kHead) + ",\"a\n#b\"", "#", "# \"", kHead};
  for (const std::size_t chunk : {std::size_t{1}, std::size_t{7}, text.size()}) {
    entries_.clear();
    for (std::size_t at = 0; at < text.size(); at += chunk) feed(std::string_view(text).substr(at, chunk));
    EXPECT_EQ(entries_, expected) << "in chunks of " << chunk;
  }
}

TEST_F(TraceSplitterTest, AnEntryThatBeginsWithAHashMayBeLonger) {
  const std::string longest = "#" + std::string(TraceSplitter::kMaxDirectiveBytes - 1, '"');
  for (std::size_t at = 0; at < longest.size(); at += 65536) feed(std::string_view(longest).substr(at, 65536));
  feed("\n");
  EXPECT_EQ(entries_, std::vector<std::string>{longest});
  for (int n = 0; n < 258; ++n) feed(n == 0 ? "#" : std::string(65536, 'x'));
  EXPECT_EQ(entries_.size(), 2U);
  EXPECT_EQ(entries_[1].size(), TraceSplitter::kMaxDirectiveBytes) << "a longer one is cut";
}

TEST_F(TraceSplitterTest, TellsAnEntryThatWasNotEndedInOrder) {
  std::vector<bool> recovered;
  const auto take = [&](std::string_view) {
    recovered.push_back(splitter_.recovered());
    return true;
  };
  splitter_.feed("1.0,IN,1,kel.x,,\"a\nb\"\n1.0,IN,1,kel.a,b,,\"\n", take);
  EXPECT_EQ(recovered, std::vector<bool>{false});
  splitter_.feed(std::string(TraceSplitter::kMaxEntryBytes, 'x') + "\n#\n\n", take);
  EXPECT_EQ(recovered, (std::vector<bool>{false, true, false, false, false}));
}

TEST_F(TraceSplitterTest, AtTheEndOpenQuotesAreNone) {
  const std::string line = std::string(kHead) + ",1";
  feed("1.0,IN,1,kel.a,b,,\"\n" + line + "\n" + line + "\n1.0,IN");
  EXPECT_TRUE(entries_.empty());
  splitter_.finish([this](std::string_view entry) {
    entries_.emplace_back(entry);
    return true;
  });
  EXPECT_EQ(entries_, (std::vector<std::string>{"1.0,IN,1,kel.a,b,,\"", line, line}));
  EXPECT_EQ(splitter_.pending(), std::string("1.0,IN").size());
}

TEST_F(TraceSplitterTest, StopsWhereToldTo) {
  int taken = 0;
  splitter_.feed("a\nb\nc\n", [&](std::string_view) { return ++taken < 2; });
  EXPECT_EQ(taken, 2);
  feed("");
  EXPECT_EQ(entries_, std::vector<std::string>{"c"});
}

}  // namespace
