#include "words.h"

#include <gtest/gtest.h>

#include <ostream>

namespace {

using kelctl::splitWords;
using kelctl::WordsError;
using Words = std::vector<std::string>;

struct Case {
  const char* name;
  std::string line;
  Words words;
};
std::ostream& operator<<(std::ostream& out, const Case& one) {
  return out << one.name;
}

class SplitWords : public testing::TestWithParam<Case> {};

TEST_P(SplitWords, SplitsAsAShellDoes) {
  const auto split = splitWords(GetParam().line);
  ASSERT_TRUE(std::holds_alternative<Words>(split)) << std::get<WordsError>(split).reason;
  EXPECT_EQ(std::get<Words>(split), GetParam().words);
}

INSTANTIATE_TEST_SUITE_P(
    Lines, SplitWords,
    testing::Values(
        Case{"nothing", "", {}}, Case{"blanks", " \t  ", {}}, Case{"words", "a b\tc", {"a", "b", "c"}},
        Case{"blanksAround", "  a  b  ", {"a", "b"}}, Case{"single", "'a b' c", {"a b", "c"}},
        Case{"double", "\"a b\" c", {"a b", "c"}}, Case{"emptySingle", "a ''", {"a", ""}},
        Case{"emptyDouble", "\"\" a", {"", "a"}}, Case{"quoteInWord", "s:'two words'", {"s:two words"}},
        Case{"adjacent", "a'b c'\"d e\"f", {"ab cd ef"}}, Case{"backslash", "a\\ b", {"a b"}},
        Case{"backslashBackslash", "\\\\", {"\\"}}, Case{"backslashQuote", "\\'\\\"", {"'\""}},
        Case{"backslashLetter", "\\n", {"n"}}, Case{"singleKeepsBackslash", "'a\\b\\'", {"a\\b\\"}},
        Case{"singleKeepsDouble", "'say \"x\"'", {"say \"x\""}}, Case{"doubleKeepsSingle", "\"it's\"", {"it's"}},
        Case{"doubleEscapes", R"("\$ \` \" \\")", {"$ ` \" \\"}},
        Case{"doubleKeepsOtherBackslash", R"("\n \a")", {"\\n \\a"}},
        Case{"noVariables", "$HOME \"$HOME\"", {"$HOME", "$HOME"}}, Case{"noGlobs", "* ? [a]", {"*", "?", "[a]"}},
        Case{"noTilde", "~ ~root", {"~", "~root"}}, Case{"noCommands", "`ls` $(ls)", {"`ls`", "$(ls)"}},
        Case{"noOperators", "a;b a|b a>b & ( )", {"a;b", "a|b", "a>b", "&", "(", ")"}},
        Case{"hashInside", "a #b", {"a", "#b"}}, Case{"anyBytes", "\xff\x01 \xc3\xa4", {"\xff\x01", "\xc3\xa4"}}),
    [](const auto& tested) { return std::string(tested.param.name); });

void expectError(std::string_view line, const std::string& reason) {
  const auto split = splitWords(line);
  ASSERT_TRUE(std::holds_alternative<WordsError>(split)) << line;
  EXPECT_EQ(std::get<WordsError>(split).reason, reason);
}

TEST(SplitWordsErrors, SingleQuoteThatIsNotClosed) {
  expectError("a 'b", "a single quote is not closed");
}
TEST(SplitWordsErrors, DoubleQuoteThatIsNotClosed) {
  expectError("a \"b", "a double quote is not closed");
}
TEST(SplitWordsErrors, DoubleQuoteClosedOnlyByAnEscapedOne) {
  expectError(R"("a\")", "a double quote is not closed");
}
TEST(SplitWordsErrors, DoubleQuoteThatEndsWithABackslash) {
  expectError("\"a\\", "a double quote is not closed");
}
TEST(SplitWordsErrors, BackslashAtTheEnd) {
  expectError("a\\", "the line ends with a backslash");
}
TEST(SplitWordsErrors, Nul) {
  expectError(std::string_view("a\0b", 3), "the line holds a NUL byte");
}

}  // namespace
