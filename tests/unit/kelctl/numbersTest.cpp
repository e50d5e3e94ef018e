#include "numbers.h"

#include <gtest/gtest.h>

#include <cmath>

namespace {

using kelctl::parseDouble;
using kelctl::parseSigned;
using kelctl::parseSize;
using kelctl::parseUnsigned;

constexpr std::uint64_t kMost32 = 4294967295U;

TEST(ParseUnsigned, TakesDecimalAndHexadecimal) {
  EXPECT_EQ(parseUnsigned("0"), 0U);
  EXPECT_EQ(parseUnsigned("007"), 7U);
  EXPECT_EQ(parseUnsigned("0xbad0007"), 0xbad0007U);
  EXPECT_EQ(parseUnsigned("0XFF"), 255U);
  EXPECT_EQ(parseUnsigned("18446744073709551615"), 18446744073709551615U);
  EXPECT_EQ(parseUnsigned("0xffffffffffffffff"), 18446744073709551615U);
}

TEST(ParseUnsigned, RefusesWhatIsBeyond) {
  EXPECT_EQ(parseUnsigned("4294967295", kMost32), kMost32);
  EXPECT_EQ(parseUnsigned("4294967296", kMost32), std::nullopt);
  EXPECT_EQ(parseUnsigned("0x100000000", kMost32), std::nullopt);
  EXPECT_EQ(parseUnsigned("18446744073709551616"), std::nullopt);
}

TEST(ParseUnsigned, RefusesOtherText) {
  for (const char* text : {"", "0x", "-1", "+1", " 1", "1 ", "1x", "0x-1", "x", "1.0", "0x0x1"}) {
    EXPECT_EQ(parseUnsigned(text), std::nullopt) << text;
  }
}

TEST(ParseSize, TakesUnitsOf1024) {
  EXPECT_EQ(parseSize("0"), 0U);
  EXPECT_EQ(parseSize("1000"), 1000U);
  EXPECT_EQ(parseSize("1K"), 1024U);
  EXPECT_EQ(parseSize("64M"), 67'108'864U);
  EXPECT_EQ(parseSize("3G"), 3'221'225'472U);
  EXPECT_EQ(parseSize("2T"), 2'199'023'255'552U);
  EXPECT_EQ(parseSize("16777215T"), 18'446'742'974'197'923'840U);
}

TEST(ParseSize, RefusesOtherText) {
  for (const char* text :
       {"", "K", "1k", "1MB", "-1", "1.5M", "0x10", " 1", "M1", "16777216T", "18446744073709551616"}) {
    EXPECT_EQ(parseSize(text), std::nullopt) << text;
  }
}

TEST(ParseSigned, TakesTheWholeRange) {
  EXPECT_EQ(parseSigned("-2147483648", 32), -2147483648LL);
  EXPECT_EQ(parseSigned("2147483647", 32), 2147483647);
  EXPECT_EQ(parseSigned("-9223372036854775808", 64), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(parseSigned("9223372036854775807", 64), std::numeric_limits<std::int64_t>::max());
}

TEST(ParseSigned, RefusesWhatIsBeyond) {
  EXPECT_EQ(parseSigned("2147483648", 32), std::nullopt);
  EXPECT_EQ(parseSigned("-2147483649", 32), std::nullopt);
  EXPECT_EQ(parseSigned("9223372036854775808", 64), std::nullopt);
  EXPECT_EQ(parseSigned("0x100000000", 32), std::nullopt);
  EXPECT_EQ(parseSigned("0x10000000000000000", 64), std::nullopt);
}

TEST(ParseSigned, HexadecimalIsABitPattern) {
  EXPECT_EQ(parseSigned("0xffffffff", 32), -1);
  EXPECT_EQ(parseSigned("0x7fffffff", 32), 2147483647);
  EXPECT_EQ(parseSigned("0xffffffff", 64), 4294967295);
  EXPECT_EQ(parseSigned("0xffffffffffffffff", 64), -1);
}

TEST(ParseSigned, RefusesOtherText) {
  for (const char* text : {"", "-", "--1", "+1", "-0x1", "0x", "1e3", " 1", "1 "}) {
    EXPECT_EQ(parseSigned(text, 32), std::nullopt) << text;
    EXPECT_EQ(parseSigned(text, 64), std::nullopt) << text;
  }
}

TEST(ParseDouble, TakesWhatCIsUsedTo) {
  EXPECT_EQ(parseDouble("12.5"), 12.5);
  EXPECT_EQ(parseDouble("-1e3"), -1000.0);
  EXPECT_EQ(parseDouble("7"), 7.0);
  EXPECT_TRUE(std::isinf(parseDouble("inf").value_or(0)));
  EXPECT_TRUE(std::isnan(parseDouble("nan").value_or(0)));
}

TEST(ParseDouble, RefusesOtherText) {
  for (const char* text : {"", ".", "1.2.3", "1e999", "x", " 1", "1 ", "1,5"}) {
    EXPECT_EQ(parseDouble(text), std::nullopt) << text;
  }
}

}  // namespace
