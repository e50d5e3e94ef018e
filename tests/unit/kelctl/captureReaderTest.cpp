#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "capture.h"
#include "captureText.h"

namespace {

using kelctl::CaptureItem;
using support::in;
using support::inactive;
using support::moment;
using support::note;
using testing::ElementsAre;
using testing::IsEmpty;

struct Read {
  std::vector<CaptureItem> items;
  std::vector<std::string> texts;
  std::vector<std::uint64_t> lines;
  std::vector<std::uint64_t> refused;
  bool cut = false;
};

Read read(const std::string& capture, std::size_t chunk = std::string::npos) {
  Read result;
  kelctl::CaptureReader reader(
      [&](const CaptureItem& item) {
        result.items.push_back(item);
        result.texts.emplace_back(item.text);
        result.items.back().text = {};
        result.lines.push_back(item.line);
        return true;
      },
      [&](std::uint64_t line, const std::string& reason) {
        EXPECT_NE(reason, "");
        result.refused.push_back(line);
      });
  for (std::size_t at = 0; at < capture.size(); at += std::min(chunk, capture.size())) {
    reader.feed(std::string_view(capture).substr(at, chunk));
  }
  reader.finish();
  result.cut = reader.cut();
  return result;
}

template <typename What>
What onlyItem(const std::string& capture) {
  const Read result = read(capture);
  EXPECT_EQ(result.items.size(), 1U);
  if (result.items.size() != 1 || !std::holds_alternative<What>(result.items[0].what)) return {};
  return std::get<What>(result.items[0].what);
}

std::string nested(std::size_t depth) {
  std::string text;
  for (std::size_t n = 0; n < depth; ++n) text += "{\"a\":";
  return text + '1' + std::string(depth, '}');
}

TEST(Moment, IsSecondsAndNineDigits) {
  const auto time = kelctl::parseMoment("1767225600.000000042");
  ASSERT_TRUE(time);
  EXPECT_EQ(time->time_since_epoch(), std::chrono::nanoseconds(1'767'225'600'000'000'042));
  for (const char* const text : {"", ".", "1767225600", "1767225600.", "1767225600.1", "1767225600.0000000000",
                                 ".000000000", "1.00000000x", "x.000000000", "-1.000000000", "+1.000000000",
                                 "1.-00000001", " 1.000000000", "0x10.000000000", "1.0x0000010"}) {
    EXPECT_FALSE(kelctl::parseMoment(text)) << text;
  }
}

TEST(Moment, BeyondWhatAClockShowsIsNone) {
  EXPECT_TRUE(kelctl::parseMoment("9200000000.999999999"));
  EXPECT_FALSE(kelctl::parseMoment("9200000001.000000000"));
  EXPECT_FALSE(kelctl::parseMoment("18446744073709551615.000000000"));
  EXPECT_FALSE(kelctl::parseMoment("99999999999999999999.000000000"));
}

TEST(CaptureReader, ReadsTheHeader) {
  const auto header = onlyItem<kelctl::CaptureHeader>(
      R"(#keld-capture 1 {"host":"host7","version":"2.0","options":{"a/b":1},"facts":{"vms":[]},"other":1})"
      "\n");
  EXPECT_EQ(header.host, "host7");
  EXPECT_EQ(header.version, "2.0");
  EXPECT_EQ(header.options, kelctl::Json::parse(R"({"a/b":1})"));
  EXPECT_EQ(header.facts, kelctl::Json::parse(R"({"vms":[]})"));
}

TEST(CaptureReader, TakesHeaderKeysOfTheWrongKindForMissing) {
  const auto header = onlyItem<kelctl::CaptureHeader>(
      "#keld-capture 1 {\"host\":7,\"version\":null,\"options\":[1],\"facts\":\"none\"}\n");
  EXPECT_EQ(header.host, "");
  EXPECT_EQ(header.version, "");
  EXPECT_EQ(header.options, kelctl::Json::object());
  EXPECT_EQ(header.facts, kelctl::Json::object());
}

TEST(CaptureReader, RefusesHeadersOfOtherVersions) {
  for (const char* const version : {"0", "2", "01", "1.0", "-1", "", "x"}) {
    EXPECT_THAT(read(std::string("#keld-capture ") + version + " {}\n").refused, ElementsAre(1)) << version;
  }
}

TEST(CaptureReader, RefusesHeadersThatAreNoJsonObject) {
  for (const char* const header :
       {"", "[]", "7", "null", "{", "{} x", "{\"a\":1e999}", "{\"a\":\"\xff\"}", "{'a':1}"}) {
    const Read result = read(std::string("#keld-capture 1 ") + header + '\n');
    EXPECT_THAT(result.refused, ElementsAre(1)) << header;
    EXPECT_THAT(result.items, IsEmpty()) << header;
  }
}

TEST(CaptureReader, RefusesWhatIsNestedTooDeep) {
  EXPECT_THAT(read("#keld-capture 1 " + nested(64) + '\n').refused, IsEmpty());
  for (const std::size_t depth : {66U, 1000U, 100'000U}) {
    EXPECT_THAT(read("#keld-capture 1 " + nested(depth) + '\n').refused, ElementsAre(1)) << depth;
    EXPECT_THAT(read(note("facts", 0, nested(depth))).refused, ElementsAre(1)) << depth;
  }
}

TEST(CaptureReader, ReadsEachNote) {
  EXPECT_EQ(onlyItem<kelctl::FactsChange>(note("facts", 0, R"({"a":null})")).patch,
            kelctl::Json::parse(R"({"a":null})"));
  EXPECT_EQ(onlyItem<kelctl::ClockStep>(note("step", 0, moment(5000))).to.time_since_epoch(),
            std::chrono::seconds(support::kCaptureStart + 5));
  EXPECT_TRUE(onlyItem<kelctl::AgentChange>(note("agent", 0, "away")).away);
  EXPECT_FALSE(onlyItem<kelctl::AgentChange>(note("agent", 0, "back")).away);
  onlyItem<kelctl::DaemonRestart>(note("restart", 0));
  onlyItem<kelctl::CaptureEnd>(note("end", 0));
}

TEST(CaptureReader, GivesEachItemItsTimeAndItsText) {
  const Read result = read(note("restart", 1500) + inactive(2250));
  ASSERT_EQ(result.items.size(), 2U);
  EXPECT_EQ(result.items[0].time.time_since_epoch(), std::chrono::milliseconds(support::kCaptureStart * 1000 + 1500));
  EXPECT_EQ(result.items[1].time.time_since_epoch(), std::chrono::milliseconds(support::kCaptureStart * 1000 + 2250));
  EXPECT_EQ(result.texts[1] + '\n', inactive(2250));
}

TEST(CaptureReader, RefusesNotesThatLackSomethingOrAreNotKnown) {
  for (const std::string& line : {note("facts", 0),
                                  note("facts", 0, "[]"),
                                  note("facts", 0, "7"),
                                  note("facts", 0, "{\"a\":[}"),
                                  std::string("#facts\n"),
                                  std::string("#facts {}\n"),
                                  std::string("#facts 1767225600.0 {}\n"),
                                  note("step", 0),
                                  note("step", 0, "later"),
                                  note("step", 0, "9200000001.000000000"),
                                  note("agent", 0),
                                  note("agent", 0, "gone"),
                                  note("agent", 0, "AWAY"),
                                  std::string("#restart\n"),
                                  std::string("#end\n"),
                                  std::string("#end now\n"),
                                  std::string("#end 9200000001.000000000\n"),
                                  note("what", 0),
                                  std::string("#bad 1,IN\n"),
                                  std::string("#bad\n"),
                                  std::string("#keld\n"),
                                  std::string("##\n")}) {
    const Read result = read(line + inactive(0));
    EXPECT_THAT(result.refused, ElementsAre(1)) << line;
    EXPECT_THAT(result.lines, ElementsAre(2)) << line;
  }
}

TEST(CaptureReader, RefusesLinesThatAreNoneOfTheTrace) {
  const std::string nul(1, '\0');
  for (const std::string& line : {std::string("hello"), std::string(" "), std::string("\r"), nul, nul + nul + ",IN",
                                  std::string("\xff\xfe\x80"), std::string(",,,,,,,"), std::string("\"\"\"\"\""),
                                  std::string(70'000, 'x'), std::string(70'000, ','), " " + inactive(0)}) {
    const Read result = read(line + '\n' + inactive(0));
    EXPECT_EQ(result.refused.front(), 1U) << line.substr(0, 40);
    EXPECT_EQ(result.items.size(), 1U) << line.substr(0, 40);
  }
}

TEST(CaptureReader, RefusesTraceLinesWhoseTimeIsBeyondWhatAClockShows) {
  const std::string rest = ",IN,1,kel.x,\n";
  EXPECT_THAT(read("9200000001.000000000" + rest + "18446744073709551615.000000000" + rest).refused, ElementsAre(1, 2));
  EXPECT_THAT(read("9200000000.000000000" + rest).refused, IsEmpty());
}

TEST(CaptureReader, ReadsATraceWithoutHeaderAndNotes) {
  const Read result = read(inactive(0) + inactive(1000));
  EXPECT_THAT(result.lines, ElementsAre(1, 2));
  EXPECT_THAT(result.refused, IsEmpty());
}

TEST(CaptureReader, TakesCommentsAndEmptyLinesForNothing) {
  const Read result = read("\n#\n# x\n#  #end\n\n" + inactive(0) + "\n");
  EXPECT_THAT(result.lines, ElementsAre(6));
  EXPECT_THAT(result.refused, IsEmpty());
}

TEST(CaptureReader, CountsTheLinesThatAStringSpans) {
  const Read result = read(in(0, "kel.x", ",\"one\ntwo\n\nfour\"") + "bad\n" + inactive(0));
  EXPECT_THAT(result.lines, ElementsAre(1, 6));
  EXPECT_THAT(result.refused, ElementsAre(5));
}

TEST(CaptureReader, LeavesOutALastLineWithoutItsEnd) {
  const Read result = read(inactive(0) + "1767225600.5000");
  EXPECT_THAT(result.lines, ElementsAre(1));
  EXPECT_THAT(result.refused, IsEmpty());
  EXPECT_TRUE(result.cut);
  EXPECT_FALSE(read(inactive(0)).cut);
}

TEST(CaptureReader, LosesOneLineToAQuoteThatIsNeverClosed) {
  const std::string line = inactive(0);
  std::string capture = in(0, "kel.x", ",\"open");
  std::vector<std::uint64_t> expected;
  for (std::uint64_t number = 2; capture.size() < 2 * kelctl::TraceSplitter::kMaxEntryBytes; ++number) {
    capture += in(0, "kel.x", ",1");
    expected.push_back(number);
  }
  const Read result = read(capture);
  EXPECT_THAT(result.refused, ElementsAre(1));
  EXPECT_EQ(result.lines, expected);
}

TEST(CaptureReader, LosesOneLineToAQuoteThatIsOpenAtTheEnd) {
  const Read result = read(inactive(0) + in(0, "kel.x", ",\"open") + in(1000, "kel.x", ",1") + note("end", 2000));
  EXPECT_THAT(result.refused, ElementsAre(2));
  EXPECT_THAT(result.lines, ElementsAre(1, 3, 4));
}

TEST(CaptureReader, RefusesALineOfMebibytesOnceAndKeepsCountingLines) {
  const std::string capture = inactive(0) + std::string(std::size_t{5} << 19, 'x') + '\n' + inactive(0) + "bad\n";
  for (const std::size_t chunk : {std::size_t{4096}, capture.size()}) {
    const Read result = read(capture, chunk);
    EXPECT_THAT(result.lines, ElementsAre(1, 3)) << chunk;
    EXPECT_THAT(result.refused, ElementsAre(2, 4)) << chunk;
  }
}

TEST(CaptureReader, TakesALineOutOfAMuchLongerOneForNone) {
  std::string line(kelctl::TraceSplitter::kMaxEntryBytes + 1, 'x');
  line += inactive(0);
  const Read result = read(line + inactive(1000));
  EXPECT_THAT(result.refused, ElementsAre(1));
  EXPECT_THAT(result.lines, ElementsAre(2));
}

TEST(CaptureReader, ReadsTheSameHoweverTheBytesArrive) {
  const std::string capture = "#keld-capture 1 {}\n# x\n" + in(0, "kel.x", ",\"a\nb\"") + "bad\n\n" +
                              note("agent", 0, "away") + inactive(0) + "#end";
  const Read whole = read(capture);
  for (const std::size_t chunk : {1U, 2U, 7U}) {
    const Read parts = read(capture, chunk);
    EXPECT_EQ(parts.texts, whole.texts) << chunk;
    EXPECT_EQ(parts.lines, whole.lines) << chunk;
    EXPECT_EQ(parts.refused, whole.refused) << chunk;
    EXPECT_TRUE(parts.cut) << chunk;
  }
}

TEST(CaptureReader, StopsWhereNoMoreIsWanted) {
  int taken = 0;
  kelctl::CaptureReader reader([&](const CaptureItem&) { return ++taken < 2; },
                               [](std::uint64_t, const std::string&) { FAIL(); });
  EXPECT_FALSE(reader.feed(inactive(0) + inactive(0) + inactive(0) + "bad\n"));
  EXPECT_FALSE(reader.feed(inactive(0) + "bad\n"));
  EXPECT_EQ(taken, 2);
}

}  // namespace
