#include "captureLines.h"

#include <gtest/gtest.h>

#include "traceLine.h"

namespace {

using Json = nlohmann::json;

constexpr kelctl::CaptureTime kTime = 1'767'225'600'000'000'042;

TEST(CaptureLines, ShowTimesAsTheTraceDoes) {
  EXPECT_EQ(kelctl::captureTimeText(kTime), "1767225600.000000042");
  EXPECT_EQ(kelctl::captureTimeText(0), "0.000000000");
  EXPECT_EQ(kelctl::captureTimeText(-1), "0.000000000");
}

TEST(CaptureLines, ReadATraceLinesTime) {
  EXPECT_EQ(kelctl::renderingTime("1767225600.000000042,IN,1,kel.x,"), kTime);
  for (const char* const line : {"", "1767225600,IN", "1767225600.42,IN", "-1.000000000,IN", "x.000000000,IN",
                                 "1767225600.00000000x,IN", "99999999999.000000000,IN", ".000000000,IN"}) {
    EXPECT_EQ(kelctl::renderingTime(line), std::nullopt) << line;
  }
}

TEST(CaptureLines, AreThoseOfTheFormat) {
  EXPECT_EQ(kelctl::captureHeaderLine({{"host", "host7"}}), "#keld-capture 1 {\"host\":\"host7\"}\n");
  EXPECT_EQ(kelctl::factsLine(kTime, {{"a", nullptr}}), "#facts 1767225600.000000042 {\"a\":null}\n");
  EXPECT_EQ(kelctl::stepLine(kTime, kTime + 1), "#step 1767225600.000000042 1767225600.000000043\n");
  EXPECT_EQ(kelctl::restartLine(kTime), "#restart 1767225600.000000042\n");
  EXPECT_EQ(kelctl::endLine(kTime), "#end 1767225600.000000042\n");
}

TEST(CaptureLines, KeepATraceLineAsItIs) {
  EXPECT_EQ(kelctl::captureEntry("1.000000000,IN,1,kel.x,,\"a\n#b\"", false), "1.000000000,IN,1,kel.x,,\"a\n#b\"\n");
  EXPECT_EQ(kelctl::captureEntry("", false), "\n");
}

TEST(CaptureLines, PutWhatIsNoneBehindBad) {
  EXPECT_EQ(kelctl::captureEntry("#end 1.000000000", false), "#bad #end 1.000000000\n");
  EXPECT_EQ(kelctl::captureEntry("1.0,IN,1,kel.a,b,,\"", true), "#bad 1.0,IN,1,kel.a,b,,\"\n");
}

TEST(CaptureLines, ShowBytesThatAreNoUtf8AsReplacement) {
  EXPECT_EQ(kelctl::factsLine(kTime, {{"a", "\xff"}}), "#facts 1767225600.000000042 {\"a\":\"\xef\xbf\xbd\"}\n");
}

TEST(CaptureLines, LeaveFactsOutOfAHeaderThatNoReaderWouldTake) {
  const std::string line = kelctl::captureHeaderLine(
      {{"host", "h"}, {"facts", {{"a", std::string(kelctl::TraceSplitter::kMaxDirectiveBytes, 'x')}}}});
  EXPECT_EQ(line, "#keld-capture 1 {\"host\":\"h\"}\n");
}

TEST(MergePatch, MakesTheOneOfTheOther) {
  const std::pair<const char*, const char*> cases[] = {
      {R"({})", R"({})"},
      {R"({"a": 1})", R"({})"},
      {R"({})", R"({"a": {"b": {}}})"},
      {R"({"a": 1, "b": 2})", R"({"a": 1, "b": 3, "c": [1, null]})"},
      {R"({"a": {"b": 1, "c": 2}})", R"({"a": {"b": 1, "d": 2}})"},
      {R"({"a": {"b": 1}})", R"({"a": 7})"},
      {R"({"a": 7})", R"({"a": {"b": 1}})"},
      {R"({"a": [1, 2]})", R"({"a": [1]})"},
      {R"({"a": {"b": 1}})", R"({"a": {}})"},
      {R"({"a": []})", R"({"a": {}})"},
  };
  for (const auto& [from, to] : cases) {
    Json value = Json::parse(from);
    value.merge_patch(kelctl::mergePatch(value, Json::parse(to)));
    EXPECT_EQ(value, Json::parse(to)) << from;
  }
}

TEST(MergePatch, NamesOnlyWhatChanged) {
  const auto patch = kelctl::mergePatch(Json::parse(R"({"a": {"b": 1, "c": 2}, "d": 3})"),
                                        Json::parse(R"({"a": {"b": 5, "c": 2}, "d": 3})"));
  EXPECT_EQ(patch, Json::parse(R"({"a": {"b": 5}})"));
}

}  // namespace
