#include <gtest/gtest.h>

#include <cfloat>
#include <climits>
#include <cstring>
#include <memory>

#include "testArea.h"

namespace {

constexpr std::size_t kPlenty = TestArea::kPlenty;
constexpr std::size_t kEntry = 32;

void expectEntry(const TestArea& area, std::size_t index, std::uint32_t type, std::uint32_t flags,
                 std::uint64_t value) {
  ASSERT_LT(index, area.count());
  const MsgFmt_Arg entry = area.entry(index);
  EXPECT_EQ(entry.type, type) << "entry " << index;
  EXPECT_EQ(entry.flags, flags) << "entry " << index;
  EXPECT_EQ(entry.value, value) << "entry " << index;
  EXPECT_EQ(entry.reserved[0], 0U);
  EXPECT_EQ(entry.reserved[1], 0U);
}

TEST(GetArgs, templateWithoutConversionsUsesNoBytes) {
  for (const char* format : {"", "No args", "100%% sure", "${path}"}) {
    const TestArea area = TestArea::read(kPlenty, format);
    EXPECT_TRUE(area.ok()) << format;
    EXPECT_EQ(area.used(), 0U) << format;
    EXPECT_EQ(area.count(), 0U) << format;
  }
}

TEST(GetArgs, templateWithoutConversionsNeedsNoBuffer) {
  std::size_t size = 0;
  std::uint32_t count = 7;
  const auto read = [&](const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    const bool ok = MsgFmt_GetArgsWithBuf(format, arguments, nullptr, &size, &count, nullptr);
    va_end(arguments);
    return ok;
  };
  EXPECT_TRUE(read("No args"));
  EXPECT_EQ(size, 0U);
  EXPECT_EQ(count, 0U);
}

TEST(GetArgs, shortAndPlainIntegersBecome32BitEntries) {
  const TestArea area = TestArea::read(kPlenty, "%d %i %hd %hhd %u %x %X %o %hx %hhu %c", INT_MIN, -1, SHRT_MIN,
                                       SCHAR_MIN, UINT_MAX, 0xdeadbeefU, 1U, 8U, 0xffffU, 255U, 'A');
  ASSERT_TRUE(area.ok());
  EXPECT_EQ(area.used(), 11 * kEntry);
  expectEntry(area, 0, MSGFMT_ARG_INT32, 0, 0x80000000U);
  expectEntry(area, 1, MSGFMT_ARG_INT32, 0, 0xffffffffU);
  expectEntry(area, 2, MSGFMT_ARG_INT32, 0, 0xffff8000U);
  expectEntry(area, 3, MSGFMT_ARG_INT32, 0, 0xffffff80U);
  expectEntry(area, 4, MSGFMT_ARG_INT32, MSGFMT_FLAG_UNSIGNED, 0xffffffffU);
  expectEntry(area, 5, MSGFMT_ARG_INT32, MSGFMT_FLAG_UNSIGNED, 0xdeadbeefU);
  expectEntry(area, 6, MSGFMT_ARG_INT32, MSGFMT_FLAG_UNSIGNED, 1);
  expectEntry(area, 7, MSGFMT_ARG_INT32, MSGFMT_FLAG_UNSIGNED, 8);
  expectEntry(area, 8, MSGFMT_ARG_INT32, MSGFMT_FLAG_UNSIGNED, 0xffffU);
  expectEntry(area, 9, MSGFMT_ARG_INT32, MSGFMT_FLAG_UNSIGNED, 255);
  expectEntry(area, 10, MSGFMT_ARG_INT32, MSGFMT_FLAG_UNSIGNED, 65);
}

TEST(GetArgs, longIntegersBecome64BitEntries) {
  const TestArea area = TestArea::read(kPlenty, "%ld %lld %jd %td %zd %lu %llx %zu %jX %to", LONG_MIN, LLONG_MAX,
                                       std::intmax_t{-1}, std::ptrdiff_t{-2}, static_cast<long>(-3), ULONG_MAX,
                                       0xdeadbeefdeadbeefULL, SIZE_MAX, std::uintmax_t{4}, std::ptrdiff_t{5});
  ASSERT_TRUE(area.ok());
  EXPECT_EQ(area.used(), 10 * kEntry);
  expectEntry(area, 0, MSGFMT_ARG_INT64, 0, 0x8000000000000000U);
  expectEntry(area, 1, MSGFMT_ARG_INT64, 0, 0x7fffffffffffffffU);
  expectEntry(area, 2, MSGFMT_ARG_INT64, 0, 0xffffffffffffffffU);
  expectEntry(area, 3, MSGFMT_ARG_INT64, 0, 0xfffffffffffffffeU);
  expectEntry(area, 4, MSGFMT_ARG_INT64, 0, 0xfffffffffffffffdU);
  expectEntry(area, 5, MSGFMT_ARG_INT64, MSGFMT_FLAG_UNSIGNED, 0xffffffffffffffffU);
  expectEntry(area, 6, MSGFMT_ARG_INT64, MSGFMT_FLAG_UNSIGNED, 0xdeadbeefdeadbeefU);
  expectEntry(area, 7, MSGFMT_ARG_INT64, MSGFMT_FLAG_UNSIGNED, 0xffffffffffffffffU);
  expectEntry(area, 8, MSGFMT_ARG_INT64, MSGFMT_FLAG_UNSIGNED, 4);
  expectEntry(area, 9, MSGFMT_ARG_INT64, MSGFMT_FLAG_UNSIGNED, 5);
}

TEST(GetArgs, floatingPointBecomesTheBitsOfADouble) {
  const TestArea area = TestArea::read(kPlenty, "%f %e %g %a %lf %Lf %G", 12.5, -0.0, DBL_MAX, 1.0, 2.0,
                                       static_cast<long double>(12.5L), 0.5);
  ASSERT_TRUE(area.ok());
  expectEntry(area, 0, MSGFMT_ARG_FLOAT64, 0, 0x4029000000000000U);
  expectEntry(area, 1, MSGFMT_ARG_FLOAT64, 0, 0x8000000000000000U);
  expectEntry(area, 2, MSGFMT_ARG_FLOAT64, 0, 0x7fefffffffffffffU);
  expectEntry(area, 3, MSGFMT_ARG_FLOAT64, 0, 0x3ff0000000000000U);
  expectEntry(area, 4, MSGFMT_ARG_FLOAT64, 0, 0x4000000000000000U);
  expectEntry(area, 5, MSGFMT_ARG_FLOAT64, 0, 0x4029000000000000U);
  expectEntry(area, 6, MSGFMT_ARG_FLOAT64, 0, 0x3fe0000000000000U);
}

TEST(GetArgs, pointersBecome64BitPointerEntries) {
  int here = 0;
  const TestArea area = TestArea::read(kPlenty, "%p %p", static_cast<void*>(&here), nullptr);
  ASSERT_TRUE(area.ok());
  expectEntry(area, 0, MSGFMT_ARG_PTR64, 0, reinterpret_cast<std::uintptr_t>(&here));
  expectEntry(area, 1, MSGFMT_ARG_PTR64, 0, 0);
}

TEST(GetArgs, stringsAreCopiedBehindTheArrayInOrder) {
  std::string first = "nic0";
  const TestArea area = TestArea::read(kPlenty, "%s %d %s", first.c_str(), 3, "");
  first = "gone";
  ASSERT_TRUE(area.ok());
  EXPECT_EQ(area.used(), 3 * kEntry + 5 + 1);
  EXPECT_EQ(area.localText(0), area.start() + 3 * kEntry);
  EXPECT_STREQ(area.localText(0), "nic0");
  EXPECT_EQ(area.localText(2), area.start() + 3 * kEntry + 5);
  EXPECT_STREQ(area.localText(2), "");
}

TEST(GetArgs, nullStringIsAnEntryOfValueZero) {
  const TestArea area = TestArea::read(kPlenty, "%s", static_cast<const char*>(nullptr));
  ASSERT_TRUE(area.ok());
  EXPECT_EQ(area.used(), kEntry);
  expectEntry(area, 0, MSGFMT_ARG_STRING8, 0, 0);
}

TEST(GetArgs, precisionCutsAStringAndNeedsNoTerminator) {
  const auto unterminated = std::make_unique<char[]>(3);
  std::memcpy(unterminated.get(), "abc", 3);
  const TestArea area =
      TestArea::read(kPlenty, "%.3s|%.2s|%.s|%.*s|%.*s", unterminated.get(), "xyz", "none", 1, "star", -1, "whole");
  ASSERT_TRUE(area.ok());
  ASSERT_EQ(area.count(), 7U);
  EXPECT_STREQ(area.localText(0), "abc");
  EXPECT_STREQ(area.localText(1), "xy");
  EXPECT_STREQ(area.localText(2), "");
  expectEntry(area, 3, MSGFMT_ARG_INT32, 0, 1);
  EXPECT_STREQ(area.localText(4), "s");
  expectEntry(area, 5, MSGFMT_ARG_INT32, 0, 0xffffffffU);
  EXPECT_STREQ(area.localText(6), "whole");
}

TEST(GetArgs, starIsAnEntryOfItsOwn) {
  const TestArea area = TestArea::read(kPlenty, "%*d %*.*f", -8, 5, 10, 2, 1.0);
  ASSERT_TRUE(area.ok());
  ASSERT_EQ(area.count(), 5U);
  expectEntry(area, 0, MSGFMT_ARG_INT32, 0, 0xfffffff8U);
  expectEntry(area, 1, MSGFMT_ARG_INT32, 0, 5);
  expectEntry(area, 2, MSGFMT_ARG_INT32, 0, 10);
  expectEntry(area, 3, MSGFMT_ARG_INT32, 0, 2);
  expectEntry(area, 4, MSGFMT_ARG_FLOAT64, 0, 0x3ff0000000000000U);
}

TEST(GetArgs, malformedTemplateIsRefusedWithAReason) {
  for (const char* format : {"%",    "100%", "%d %", "%-",   "%5.", "%l",    "%n",    "%ln",   "%ls", "%lc",
                             "%hs",  "%hhp", "%S",   "%C",   "%m",  "%1$d",  "%1$s",  "%*1$d", "%y",  "%${tag}",
                             "% %d", "%Ld",  "%hf",  "%lhd", "%qd", "%hhhd", "%.-3d", "%\xff"}) {
    const TestArea area = TestArea::read(kPlenty, format, 1, 2, 3);
    EXPECT_FALSE(area.ok()) << format;
    EXPECT_NE(area.error().find("malformed"), std::string::npos) << area.error();
  }
}

TEST(GetArgs, reasonQuotesTheConversionAndItsPlace) {
  EXPECT_EQ(TestArea::read(kPlenty, "abc %5y", 1).error(),
            "The message template has the malformed conversion \"%5y\" at offset 4");
}

TEST(GetArgs, failureWithoutErrorPointerIsAllowed) {
  char buffer[8];
  std::size_t size = sizeof buffer;
  std::uint32_t count = 0;
  const auto read = [&](const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    const bool ok = MsgFmt_GetArgsWithBuf(format, arguments, buffer, &size, &count, nullptr);
    va_end(arguments);
    return ok;
  };
  EXPECT_FALSE(read("%n", nullptr));
  EXPECT_FALSE(read("%d", 1));
  EXPECT_EQ(size, sizeof buffer);
  EXPECT_EQ(count, 0U);
}

TEST(GetArgs, exactFitSucceedsAndEveryShorterSpaceFails) {
  constexpr std::size_t kExact = 3 * kEntry + 5 + 11;
  for (std::size_t space = 0; space <= kExact; ++space) {
    const TestArea area = TestArea::read(space, "%s %d %s", "nic0", 1, "Production");
    EXPECT_EQ(area.ok(), space == kExact) << space;
    if (area.ok()) {
      EXPECT_EQ(area.used(), kExact);
    } else {
      EXPECT_EQ(area.error(), "The message arguments do not fit into " + std::to_string(space) + " bytes");
    }
  }
}

TEST(GetArgs, precisionThatEndsWithTheSpaceStillNeedsItsTerminator) {
  EXPECT_FALSE(TestArea::read(kEntry + 3, "%.3s", "abcdef").ok());
  EXPECT_TRUE(TestArea::read(kEntry + 4, "%.3s", "abcdef").ok());
}

TEST(GetArgs, hugeStringFailsWithoutWritingBeyondTheSpace) {
  const std::string huge(10485759, 'x');
  for (const std::size_t space : {1068UL, 2239UL, 4581UL, 9265UL, 18633UL}) {
    EXPECT_FALSE(TestArea::read(space, "Huge string %s", huge.c_str()).ok());
  }
}

TEST(GetArgs, argumentListOfTheCallerIsNotConsumed) {
  const auto readTwice = [](const char* format, ...) {
    char buffer[64];
    std::size_t size = sizeof buffer;
    std::uint32_t count = 0;
    std::va_list arguments;
    va_start(arguments, format);
    EXPECT_TRUE(MsgFmt_GetArgsWithBuf(format, arguments, buffer, &size, &count, nullptr));
    const int first = va_arg(arguments, int);
    va_end(arguments);
    return first;
  };
  EXPECT_EQ(readTwice("%d %d", 41, 42), 41);
}

TEST(GetArgs, manyArgumentsBeyondTheRegistersAreReadInOrder) {
  const TestArea area = TestArea::read(kPlenty, "%d%f%d%f%d%f%d%f%d%f%d%f%d%f%d%f%d%f%d%s", 0, 0.0, 1, 1.0, 2, 2.0, 3,
                                       3.0, 4, 4.0, 5, 5.0, 6, 6.0, 7, 7.0, 8, 8.0, 9, "end");
  ASSERT_TRUE(area.ok());
  ASSERT_EQ(area.count(), 20U);
  for (std::size_t n = 0; n < 10; ++n) expectEntry(area, 2 * n, MSGFMT_ARG_INT32, 0, n);
  EXPECT_STREQ(area.localText(19), "end");
}

}  // namespace
