#include "replayPage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cctype>
#include <regex>
#include <string>
#include <string_view>

namespace {

using kelctl::Json;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

constexpr std::string_view kStoryBegins = R"(<script type="application/json" id="story">)";
constexpr std::string_view kScriptEnds = "</script>";

std::string pageOf(const Json& story) {
  std::string page;
  kelctl::writeReplayPage(story, [&page](std::string_view piece) { page += piece; });
  return page;
}

/// What a browser takes for the story: all up to the first end of a script.
std::string storyIn(const std::string& page) {
  const auto begin = page.find(kStoryBegins);
  if (begin == std::string::npos) return {};
  const auto text = begin + kStoryBegins.size();
  return page.substr(text, page.find(kScriptEnds, text) - text);
}

Json storyWith(const std::string& text) {
  return {
      {"host", text},
      {text, text},
      {"steps",
       Json::array(
           {{{"time_us", 1767225600000000}, {"what", "observation"}, {"id", text}, {"args", {text, 3, nullptr}}}})}};
}

std::size_t count(const std::string& text, std::string_view what) {
  std::size_t found = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++found;
  return found;
}

class HostileText : public testing::TestWithParam<std::string> {};

TEST_P(HostileText, StaysInTheStory) {
  const std::string page = pageOf(storyWith(GetParam()));
  EXPECT_EQ(Json::parse(storyIn(page)), storyWith(GetParam()));
  EXPECT_EQ(count(page, "<script"), 2U);
  EXPECT_EQ(count(page, kScriptEnds), 2U);
  EXPECT_EQ(count(page, "<!--"), 0U);
}

TEST_P(HostileText, LeavesNothingThatLooksLikeMarkupInTheStory) {
  EXPECT_THAT(storyIn(pageOf(storyWith(GetParam()))),
              AllOf(Not(HasSubstr("<")), Not(HasSubstr(">")), Not(HasSubstr("&"))));
}

INSTANTIATE_TEST_SUITE_P(Texts, HostileText,
                         testing::Values("</script>", "</SCRIPT ><script>alert(1)</script>", "<!--", "<!--<script>",
                                         "-->", "]]>", "<img src=x onerror=alert(1)>", "&lt;/script&gt;",
                                         "\xe2\x80\xa8\xe2\x80\xa9", "\"}]}", "\\u003c\\", std::string("a\0b", 3),
                                         "@SCRIPT@ @STYLE@ @STORY@ @POLICY@", "\xf0\x9f\x98\x80 \xc3\xbc", ""));

TEST(ReplayPage, ShowsBytesThatAreNoUtf8AsReplacements) {
  const Json story =
      Json::parse(storyIn(pageOf(storyWith("a\xff\xc0\xaf"
                                           "b"))));
  EXPECT_EQ(story["host"],
            "a\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd"
            "b");
}

TEST(ReplayPage, WritesTheStoryInAscii) {
  for (const char c : storyIn(pageOf(storyWith("\xc3\xbc \xe2\x80\xa8 \xff \x7f")))) {
    EXPECT_LT(static_cast<unsigned char>(c), 0x80U);
  }
}

TEST(ReplayPage, IsUtf8Throughout) {
  const std::string page = pageOf(storyWith("\xff\xfe \xc3"));
  EXPECT_NO_THROW((void)Json(page).dump());
}

TEST(ReplayPage, KeepsNumbersToTheLastDigit) {
  const Json story = {{"steps", Json::array({{{"time_us", 1767225600123456}, {"args", {UINT64_MAX, INT64_MIN}}}})}};
  EXPECT_THAT(storyIn(pageOf(story)), AllOf(HasSubstr("1767225600123456"), HasSubstr("18446744073709551615"),
                                            HasSubstr("-9223372036854775808")));
}

TEST(ReplayPage, KeepsTheOrderOfTheSteps) {
  Json story = {{"host", "host7"}, {"steps", Json::array()}, {"behind", 1}};
  for (int line = 0; line < 3; ++line) story["steps"].push_back({{"line", line}});
  EXPECT_EQ(Json::parse(storyIn(pageOf(story))), story);
}

TEST(ReplayPage, TakesAStoryWithoutAnything) {
  EXPECT_EQ(Json::parse(storyIn(pageOf(Json::object()))), Json::object());
}

TEST(ReplayPage, AllowsItsOwnScriptAndStyleByTheirHashesAndNothingElse) {
  const std::regex policy(
      "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; "
      "script-src 'sha256-[A-Za-z0-9+/]{43}='; style-src 'sha256-[A-Za-z0-9+/]{43}='; "
      "base-uri 'none'; form-action 'none'\">");
  const std::string page = pageOf(Json::object());
  EXPECT_TRUE(std::regex_search(page.substr(0, page.find("<style>")), policy)) << page.substr(0, 1000);
}

TEST(ReplayPage, RefersToNothingElsewhere) {
  std::string page = pageOf(Json::object());
  for (char& c : page) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  for (const auto* reference :
       {"http:", "https:", "//cdn", "@import", "url(http", "src=", "<link", "<iframe", "<object"}) {
    EXPECT_THAT(page, Not(HasSubstr(reference)));
  }
}

TEST(ReplayPage, LeavesNoPlaceholder) {
  const std::string page = pageOf(Json::object());
  for (const auto* placeholder : {"@POLICY@", "@STYLE@", "@SCRIPT@", "@STORY@"}) {
    EXPECT_THAT(page, Not(HasSubstr(placeholder)));
  }
}

TEST(ReplayPage, NeverSetsMarkupFromAScript) {
  const std::string page = pageOf(Json::object());
  for (const auto* way : {"innerHTML", "outerHTML", "insertAdjacentHTML", "document.write", "eval(", "Function("}) {
    EXPECT_THAT(page, Not(HasSubstr(way)));
  }
}

}  // namespace
