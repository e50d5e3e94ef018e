#include <gtest/gtest.h>

#include <bit>
#include <cfloat>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstring>

#include "msgfmt/limits.h"
#include "testArea.h"

namespace {

constexpr std::size_t kPlenty = TestArea::kPlenty;

MsgFmt_Arg i32(std::int32_t value) {
  return makeEntry(MSGFMT_ARG_INT32, static_cast<std::uint32_t>(value));
}
MsgFmt_Arg u32(std::uint32_t value) {
  return makeEntry(MSGFMT_ARG_INT32, value, MSGFMT_FLAG_UNSIGNED);
}
MsgFmt_Arg i64(std::int64_t value) {
  return makeEntry(MSGFMT_ARG_INT64, static_cast<std::uint64_t>(value));
}
MsgFmt_Arg u64(std::uint64_t value) {
  return makeEntry(MSGFMT_ARG_INT64, value, MSGFMT_FLAG_UNSIGNED);
}
MsgFmt_Arg f64(double value) {
  return makeEntry(MSGFMT_ARG_FLOAT64, std::bit_cast<std::uint64_t>(value));
}
MsgFmt_Arg text(const char* value) {
  return makeEntry(MSGFMT_ARG_STRING8, reinterpret_cast<std::uintptr_t>(value));
}

struct Expected {
  const char* format;
  std::vector<MsgFmt_Arg> entries;
  const char* text;
};

void expectTexts(const std::vector<Expected>& table) {
  for (const Expected& row : table)
    EXPECT_EQ(formatted(row.format, row.entries), row.text) << "template " << row.format;
}

TEST(Format, plainTextAndPercentSigns) {
  expectTexts({{"", {}, ""},
               {"No args", {}, "No args"},
               {"100%%", {}, "100%"},
               {"%%%%", {}, "%%"},
               {"%%d", {i32(1)}, "%d"},
               {"/a/fake/path${path} path.", {}, "/a/fake/path${path} path."}});
}

TEST(Format, everySizeLetterAtItsBoundaries) {
  expectTexts({{"%hhd %hhd %hhd", {i32(SCHAR_MIN), i32(SCHAR_MAX), i32(128)}, "-128 127 -128"},
               {"%hhu %hhx", {u32(256 + 7), i32(-1)}, "7 ff"},
               {"%hd %hd %hd", {i32(SHRT_MIN), i32(SHRT_MAX), i32(32768)}, "-32768 32767 -32768"},
               {"%hu %hX", {i32(-1), u32(0x1abcd)}, "65535 ABCD"},
               {"%d %i", {i32(INT_MIN), i32(INT_MAX)}, "-2147483648 2147483647"},
               {"%u %x %X %o", {u32(UINT_MAX), u32(UINT_MAX), u32(0xab), u32(8)}, "4294967295 ffffffff AB 10"},
               {"%ld %lld", {i64(LONG_MIN), i64(LONG_MAX)}, "-9223372036854775808 9223372036854775807"},
               {"%lu %llx", {u64(ULONG_MAX), u64(ULONG_MAX)}, "18446744073709551615 ffffffffffffffff"},
               {"%zd %zu %jd %ju %td", {i64(-1), u64(1), i64(-2), u64(2), i64(-3)}, "-1 1 -2 2 -3"}});
}

TEST(Format, narrowEntryWidensByItsOwnSign) {
  expectTexts({{"%ld", {i32(-1)}, "-1"},
               {"%ld", {u32(UINT_MAX)}, "4294967295"},
               {"%lx", {i32(-1)}, "ffffffffffffffff"},
               {"%lx", {u32(UINT_MAX)}, "ffffffff"},
               {"%d", {u32(UINT_MAX)}, "-1"},
               {"%u", {i32(-1)}, "4294967295"},
               // The upper bytes of a 32-bit value are nobody's.
               {"%ld", {makeEntry(MSGFMT_ARG_INT32, 0xffffffff00000005U)}, "5"}});
}

TEST(Format, wideEntryIsTruncatedToTheSizeLetter) {
  expectTexts({{"%d", {i64(0x100000005)}, "5"},
               {"%x", {i64(-1)}, "ffffffff"},
               {"%hhx", {i64(0x1234)}, "34"},
               {"%hd", {i64(0x18000)}, "-32768"},
               {"%c", {i64(0x141)}, "A"}});
}

TEST(Format, flagsWidthAndPrecisionLayOutAsPrintfDoes) {
  expectTexts(
      {{"[%5d|%-5d|%05d]", {i32(42), i32(42), i32(-42)}, "[   42|42   |-0042]"},
       {"[%+d|% d|%#x|%#o]", {i32(1), i32(2), u32(255), u32(8)}, "[+1| 2|0xff|010]"},
       {"[%.3d|%6.3d|%.0d]", {i32(5), i32(5), i32(0)}, "[005|   005|]"},
       {"[%08x|%#010x]", {u32(0xbeef), u32(0xbeef)}, "[0000beef|0x0000beef]"},
       {"[%6s|%-6s|%.2s|%5.1s]", {text("abc"), text("abc"), text("abc"), text("abc")}, "[   abc|abc   |ab|    a]"},
       {"[%c|%3c|%-3c]", {i32('x'), i32('y'), i32('z')}, "[x|  y|z  ]"},
       {"[%.s]", {text("abc")}, "[]"},
       {"%02hhx%02hhx", {u32(0x0a), u32(0xfb)}, "0afb"}});
}

TEST(Format, starsTakeEntriesOfTheirOwn) {
  expectTexts({{"[%*d]", {i32(5), i32(42)}, "[   42]"},
               {"[%*d]", {i32(-5), i32(42)}, "[42   ]"},
               {"[%.*d]", {i32(3), i32(7)}, "[007]"},
               {"[%.*d]", {i32(-3), i32(7)}, "[7]"},
               {"[%*.*s]", {i32(4), i32(2), text("abc")}, "[  ab]"},
               {"[%.*s]", {i32(-1), text("abc")}, "[abc]"},
               {"[%*.*f]", {i32(7), i32(2), f64(1.5)}, "[   1.50]"},
               {"[%*d]", {i32(5)}, "[%*d]"},
               {"[%*d]", {}, "[%*d]"},
               {"[%*d] %d", {text("x"), i32(1), i32(2)}, "[%*d] 2"}});
}

TEST(Format, floatingPoint) {
  expectTexts({{"%f %.2f %g %e", {f64(12.5), f64(0.125), f64(1e20), f64(1)}, "12.500000 0.12 1e+20 1.000000e+00"},
               {"%lf %Lf %G %A", {f64(1), f64(2), f64(1e-10), f64(1)}, "1.000000 2.000000 1E-10 0X1P+0"},
               {"%f %F %g", {f64(INFINITY), f64(INFINITY), f64(-INFINITY)}, "inf INF -inf"}});
}

TEST(Format, pointersAndStringsByPointerConversion) {
  expectTexts({{"%p", {makeEntry(MSGFMT_ARG_PTR64, 0xdeadbeefcafeU)}, "0xdeadbeefcafe"},
               {"%p", {makeEntry(MSGFMT_ARG_PTR32, 0xffffffff00000abcU)}, "0xabc"},
               {"%p", {makeEntry(MSGFMT_ARG_PTR64, 0)}, "0x0"},
               {"[%6p|%-6p]", {makeEntry(MSGFMT_ARG_PTR64, 0xa), makeEntry(MSGFMT_ARG_PTR64, 0xb)}, "[   0xa|0xb   ]"},
               {"%p", {text("a string")}, "a string"},
               {"%p", {text(nullptr)}, "(null)"}});
}

TEST(Format, nullStringShowsAsNull) {
  expectTexts(
      {{"%s", {text(nullptr)}, "(null)"}, {"%8s", {text(nullptr)}, "  (null)"}, {"%.2s", {text(nullptr)}, "(n"}});
}

TEST(Format, conversionWithoutFittingEntryStaysAsItStands) {
  expectTexts({{"%d and %s", {}, "%d and %s"},
               {"%d, %-8.3s!", {i32(1)}, "1, %-8.3s!"},
               // An entry of another kind is used up by the conversion it does not fit.
               {"%d %d", {text("x"), i32(2)}, "%d 2"},
               {"%s %s", {i32(1), text("x")}, "%s x"},
               {"%f %d", {i32(1), i32(2)}, "%f 2"},
               {"%d", {f64(1)}, "%d"},
               {"%p", {i64(1)}, "%p"},
               {"%d", {makeEntry(MSGFMT_ARG_PTR64, 1)}, "%d"},
               {"%c", {text("x")}, "%c"},
               {"%s", {makeEntry(MSGFMT_ARG_STRING16, 1)}, "%s"},
               {"%s", {makeEntry(MSGFMT_ARG_STRING32, 1)}, "%s"},
               {"%d", {makeEntry(0, 1)}, "%d"},
               {"%d", {makeEntry(99, 1)}, "%d"},
               {"%d", {makeEntry(UINT32_MAX, 1)}, "%d"},
               // Wide text has a known letter and uses its entry, what is unknown uses none.
               {"%ls %d", {text("x"), i32(1)}, "%ls 1"},
               {"%n %d", {i32(1)}, "%n 1"},
               {"%1$d %d", {i32(1)}, "%1$d 1"},
               {"%y%d", {i32(1)}, "%y1"},
               {"%", {i32(1)}, "%"},
               {"%d%", {i32(1)}, "1%"},
               {"%-5.2l", {i32(1)}, "%-5.2l"},
               {"50% %d", {i32(3)}, "50% 3"},
               {"%5%d", {i32(3)}, "%53"}});
}

// What a daemon's self-test expects of kernel templates that are odd on purpose.
TEST(Format, oddKernelTemplatesRender) {
  expectTexts({{"", {}, ""},
               {"%%", {}, "%"},
               {"%s", {text("")}, ""},
               {"%s", {text("000")}, "000"},
               {"%d${", {i32(0)}, "0${"},
               {"%d${asdf", {i32(0)}, "0${asdf"},
               {"%d${a%d{df}", {i32(0), i32(0)}, "0${a0{df}"},
               {"%d${009__.asdf}", {i32(0)}, "0${009__.asdf}"},
               {"%d${009__.asdf=bar=baz=foof}", {i32(0)}, "0${009__.asdf=bar=baz=foof}"},
               {"%d${=invalid}", {i32(0)}, "0${=invalid}"},
               {"%%${ignore}", {}, "%${ignore}"},
               {"%${ignore}", {}, "%${ignore}"},
               {"%%${=ignore}", {}, "%${=ignore}"},
               {"%${=ignore}", {}, "%${=ignore}"}});
}

TEST(Format, kernelTemplatesRender) {
  expectTexts({{"this is an observation with integer parameters. %d, %x, %ld",
                {i32(-559038737), i32(-559038737), i64(-2401053088876216593)},
                "this is an observation with integer parameters. -559038737, deadbeef, -2401053088876216593"},
               {"this is an observation with unsigned integer parameters. %u, %x, %lu",
                {u32(3735928559U), u32(3735928559U), u64(16045690984833335023U)},
                "this is an observation with unsigned integer parameters. 3735928559, deadbeef, 16045690984833335023"},
               {"this is an observation with a string parameter: %s and another: %s",
                {text("some looong long long long long long string"), text("some string")},
                "this is an observation with a string parameter: some looong long long long long long string and "
                "another: some string"}});
}

TEST(Format, surplusEntriesAreIgnored) {
  EXPECT_EQ(formatted("%d", {i32(1), text("x"), i32(2)}), "1");
}

TEST(Format, nulCharacterIsLeftOutOfTheText) {
  EXPECT_EQ(formatted("[%c]", {i32(0)}), "[]");
}

TEST(Format, lengthPointerMayBeNull) {
  char* result = MsgFmt_Asprintf(nullptr, "x", nullptr, 0);
  EXPECT_STREQ(result, "x");
  std::free(result);
}

TEST(Format, hostileWidthsAndPrecisionsAreBounded) {
  const std::size_t widest = msgfmt::kMaxFieldWidth;
  EXPECT_EQ(formatted("%2147483647d", {i32(1)}).size(), widest);
  EXPECT_EQ(formatted("%99999999999999999999d", {i32(1)}).size(), widest);
  EXPECT_EQ(formatted("%.2147483647d", {i32(1)}).size(), widest);
  EXPECT_EQ(formatted("%999999s", {text("x")}).size(), widest);
  EXPECT_EQ(formatted("%*d", {i32(INT_MAX), i32(1)}).size(), widest);
  EXPECT_EQ(formatted("%*d", {i32(INT_MIN), i32(1)}).size(), widest);
  EXPECT_EQ(formatted("%.2147483647f", {f64(DBL_MAX)}).size(), 309 + 1 + widest);
  EXPECT_EQ(formatted("%-2147483647.2147483647s", {text("x")}).size(), widest);
}

TEST(Format, textIsCutOffAtItsLimit) {
  std::string format;
  std::vector<MsgFmt_Arg> entries;
  for (int n = 0; n < 1000; ++n) {
    format += "%9999d";
    entries.push_back(i32(n));
  }
  EXPECT_EQ(formatted(format.c_str(), entries).size(), msgfmt::kMaxTextBytes);
  const std::string plain(msgfmt::kMaxTextBytes + 1, 'x');
  EXPECT_EQ(formatted(plain.c_str(), nullptr, 0).size(), msgfmt::kMaxTextBytes);
  EXPECT_EQ(formatted("%s", {text(plain.c_str())}).size(), msgfmt::kMaxTextBytes);
}

TEST(Format, flagsOfATemplateAreTakenOnceHoweverOftenTheyStand) {
  const std::string format = "%" + std::string(10000, '+') + std::string(10000, '0') + "5d";
  EXPECT_EQ(formatted(format.c_str(), {i32(1)}), "+0001");
}

TEST(Format, argumentsReadFromATemplateFormatAsPrintfWould) {
  const TestArea area = TestArea::read(kPlenty, "%s (%d) %ss %c %5.1f %lx", "Three", 3, "arg", 'A', 2.25, 255L);
  ASSERT_TRUE(area.ok());
  EXPECT_EQ(formatted("%s (%d) %ss %c %5.1f %lx", area.start(), area.count()), "Three (3) args A   2.2 ff");
}

}  // namespace
