#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>
#include <memory>

#include "hexdump.h"
#include "platform/msgfmt.h"
#include "records.h"

namespace {

using records::Bytes;
using support::d;
using support::i;
using support::KelPtr;
using support::L;
using support::l;
using support::null;
using support::observation;
using support::s;
using support::u;

constexpr std::int32_t kMinInt = std::numeric_limits<std::int32_t>::min();

KelPtr observationOf(const Bytes& bytes) {
  auto* copy = static_cast<char*>(std::malloc(bytes.size()));
  std::memcpy(copy, bytes.data(), bytes.size());
  Kel* kel = Kel_MakeKel(copy, bytes.size());
  if (kel == nullptr) std::free(copy);
  return KelPtr(kel);
}

std::string messageOf(const KelPtr& kel) {
  const std::unique_ptr<char, decltype(&std::free)> text(Kel_GetMsg(kel.get()), &std::free);
  return text ? text.get() : "(none)";
}

TEST(Observation, theWorkedExampleReadsAsTheDocumentSays) {
  const std::string bytes = documentedBytes("observation-record.md");
  const KelPtr kel = observationOf(Bytes(bytes.begin(), bytes.end()));
  ASSERT_TRUE(kel);
  const char* id = nullptr;
  Kel_GetID(kel.get(), &id);
  EXPECT_STREQ(id, "kel.user.disk.state");
  EXPECT_EQ(Kel_GetTimestamp(kel.get()), 1767225600000001U);
  EXPECT_EQ(messageOf(kel), "Disk sda on (null): -5 C, 3000000000 errors, 1099511627776 blocks, load 0.750000");
}

TEST(Observation, noneIsMadeOfAMalformedRecordWhichStaysTheCallers) {
  for (const records::Malformed& bad : records::malformed()) EXPECT_FALSE(observationOf(bad.bytes)) << bad.what;
  EXPECT_EQ(Kel_MakeKel(nullptr, 0), nullptr);
}

TEST(Observation, anEmptyIdentifierIsNone) {
  const KelPtr kel = observation("", {}, "m");
  const char* id = "left";
  Kel_GetID(kel.get(), &id);
  EXPECT_EQ(id, nullptr);
}

TEST(Observation, nullIsFreed) {
  Kel_Free(nullptr);
}

TEST(IsId, isPlainEqualityOfTwoIdentifiers) {
  EXPECT_TRUE(Kel_IsID("kel.a", std::string("kel.a").c_str()));
  EXPECT_FALSE(Kel_IsID("kel.a", "kel.ab"));
  EXPECT_FALSE(Kel_IsID("kel.a", "a"));
  EXPECT_FALSE(Kel_IsID("kel.a", "KEL.A"));
  EXPECT_FALSE(Kel_IsID("kel.a", nullptr));
  EXPECT_FALSE(Kel_IsID(nullptr, nullptr));
}

TEST(GetArgs, stringsAndIntegersOfAllSizesInOneCall) {
  const KelPtr kel = observation("kel.a", {s("naa.1"), s("path"), i(-1), u(2), i(3), i(4), l(5), L(6), l(7), i(8)});
  const char* device = nullptr;
  const char* path = nullptr;
  int a = 0;
  unsigned b = 0;
  signed char c = 0;
  unsigned short e = 0;
  long f = 0;
  unsigned long g = 0;
  long long h = 0;
  unsigned j = 0;
  ASSERT_EQ(
      Kel_GetArgs(kel.get(), 0, "%p %s %d %u %hhi %hu %ld %lx %lld %X", &device, &path, &a, &b, &c, &e, &f, &g, &h, &j),
      0);
  EXPECT_STREQ(device, "naa.1");
  EXPECT_STREQ(path, "path");
  EXPECT_EQ(a, -1);
  EXPECT_EQ(b, 2U);
  EXPECT_EQ(c, 3);
  EXPECT_EQ(e, 4);
  EXPECT_EQ(f, 5);
  EXPECT_EQ(g, 6U);
  EXPECT_EQ(h, 7);
  EXPECT_EQ(j, 8U);
}

TEST(GetArgs, startsAtTheArgumentNamed) {
  const KelPtr kel = observation("kel.a", {s("skipped"), s("nic0"), i(7)});
  const char* nic = nullptr;
  int value = 0;
  ASSERT_EQ(Kel_GetArgs(kel.get(), 1, "%p %d", &nic, &value), 0);
  EXPECT_STREQ(nic, "nic0");
  EXPECT_EQ(value, 7);
}

TEST(GetArgs, integersNarrowByTruncation) {
  const KelPtr kel = observation("kel.a", {l(0x1122334455667788), i(-2), L(0xfedcba9876543210)});
  int a = 0;
  unsigned short b = 0;
  unsigned char c = 0;
  ASSERT_EQ(Kel_GetArgs(kel.get(), 0, "%d %hu %hhx", &a, &b, &c), 0);
  EXPECT_EQ(a, 0x55667788);
  EXPECT_EQ(b, 0xfffe);
  EXPECT_EQ(c, 0x10);
}

TEST(GetArgs, integersWidenByTheirOwnSign) {
  const KelPtr kel = observation("kel.a", {i(-1), u(0xffffffff), i(kMinInt), u(0x80000000)});
  long fromSigned = 0;
  long fromUnsigned = 0;
  unsigned long signedAsUnsigned = 0;
  unsigned long unsignedAsUnsigned = 0;
  ASSERT_EQ(
      Kel_GetArgs(kel.get(), 0, "%ld %ld %lu %lu", &fromSigned, &fromUnsigned, &signedAsUnsigned, &unsignedAsUnsigned),
      0);
  EXPECT_EQ(fromSigned, -1);
  EXPECT_EQ(fromUnsigned, 0xffffffffL);
  EXPECT_EQ(signedAsUnsigned, 0xffffffff80000000UL);
  EXPECT_EQ(unsignedAsUnsigned, 0x80000000UL);
}

TEST(GetArgs, upperBytesOfA32BitEntryAreNotLookedAt) {
  Bytes bytes = support::rawRecord("kel.user.one", {i(0), i(0)}, "%s %s");
  records::put(bytes, records::kValueAt, std::uint64_t{0xdeadbeef00000005});
  const KelPtr kel = observationOf(bytes);
  long value = 0;
  ASSERT_EQ(Kel_GetArgs(kel.get(), 0, "%ld", &value), 0);
  EXPECT_EQ(value, 5);
}

TEST(GetArgs, pointerSizedValuesAreIntegersAndWidenWithZeros) {
  Bytes bytes = support::rawRecord("kel.user.one", {i(0), i(0)}, "%s %s");
  records::put(bytes, records::kTypeAt, MSGFMT_ARG_PTR32);
  records::put(bytes, records::kValueAt, std::uint64_t{0x80000000});
  records::put(bytes, records::kSecondTypeAt, MSGFMT_ARG_PTR64);
  records::put(bytes, records::kSecondValueAt, std::uint64_t{0x123456789abcdef0});
  const KelPtr kel = observationOf(bytes);
  long first = 0;
  unsigned long second = 0;
  ASSERT_EQ(Kel_GetArgs(kel.get(), 0, "%ld %lx", &first, &second), 0);
  EXPECT_EQ(first, 0x80000000L);
  EXPECT_EQ(second, 0x123456789abcdef0UL);
}

TEST(GetArgs, aNullStringIsSuccess) {
  const KelPtr kel = observation("kel.a", {null(), s("b")});
  const char* first = "left";
  const char* second = nullptr;
  ASSERT_EQ(Kel_GetArgs(kel.get(), 0, "%p %p", &first, &second), 0);
  EXPECT_EQ(first, nullptr);
  EXPECT_STREQ(second, "b");
}

TEST(GetArgs, tooFewArgumentsAreStatus75) {
  const KelPtr kel = observation("kel.a", {i(1)});
  int a = 4711;
  int b = 4711;
  EXPECT_EQ(Kel_GetArgs(kel.get(), 0, "%d %d", &a, &b), 75);
  EXPECT_EQ(Kel_GetArgs(kel.get(), 1, "%d", &a), 75);
  EXPECT_EQ(Kel_GetArgs(kel.get(), ~0U, "%d %d", &a, &b), 75);
  EXPECT_EQ(a, 4711) << "an output was touched";
  EXPECT_EQ(b, 4711);
}

TEST(GetArgs, surplusArgumentsAreIgnored) {
  const KelPtr kel = observation("kel.a", {i(1), s("x"), d(0.5)});
  int a = 0;
  EXPECT_EQ(Kel_GetArgs(kel.get(), 0, "%d", &a), 0);
  EXPECT_EQ(a, 1);
  EXPECT_EQ(Kel_GetArgs(kel.get(), 0, ""), 0);
  EXPECT_EQ(Kel_GetArgs(kel.get(), 9, ""), 0);
}

TEST(GetArgs, textBetweenTheConversionsIsSkipped) {
  const KelPtr kel = observation("kel.a", {i(1), s("x"), i(3)});
  int a = 0;
  const char* b = nullptr;
  int c = 0;
  ASSERT_EQ(Kel_GetArgs(kel.get(), 0, "first=%d,100%% of %p%d.", &a, &b, &c), 0);
  EXPECT_EQ(a, 1);
  EXPECT_STREQ(b, "x");
  EXPECT_EQ(c, 3);
}

TEST(GetArgs, flagsAndWidthsAreAccepted) {
  const KelPtr kel = observation("kel.a", {i(1), s("x"), i(3)});
  unsigned a = 0;
  const char* b = nullptr;
  unsigned long c = 0;
  ASSERT_EQ(Kel_GetArgs(kel.get(), 0, "%#x %-10.3s %08lx", &a, &b, &c), 0);
  EXPECT_EQ(a, 1U);
  EXPECT_STREQ(b, "x");
  EXPECT_EQ(c, 3U);
}

TEST(GetArgs, anArgumentOfAnotherKindIsStatus22AndNothingIsStored) {
  const KelPtr kel = observation("kel.a", {i(1), s("x"), d(0.5), null()});
  int a = 4711;
  int b = 4711;
  const char* text = "left";
  EXPECT_EQ(Kel_GetArgs(kel.get(), 0, "%d %d", &a, &b), 22) << "string as integer";
  EXPECT_EQ(Kel_GetArgs(kel.get(), 0, "%p", &text), 22) << "integer as string";
  EXPECT_EQ(Kel_GetArgs(kel.get(), 2, "%d", &a), 22) << "floating point as integer";
  EXPECT_EQ(Kel_GetArgs(kel.get(), 2, "%p", &text), 22) << "floating point as string";
  EXPECT_EQ(Kel_GetArgs(kel.get(), 3, "%d", &a), 22) << "null string as integer";
  EXPECT_EQ(a, 4711);
  EXPECT_EQ(b, 4711);
  EXPECT_STREQ(text, "left");
}

TEST(GetArgs, anEntryWithoutAValueIsOfNoKind) {
  Bytes bytes = support::rawRecord("kel.user.one", {i(0)}, "%s %s");
  records::put(bytes, records::kTypeAt, MSGFMT_ARG_INVALID);
  const KelPtr kel = observationOf(bytes);
  int a = 4711;
  const char* text = nullptr;
  EXPECT_EQ(Kel_GetArgs(kel.get(), 0, "%d", &a), 22);
  EXPECT_EQ(Kel_GetArgs(kel.get(), 0, "%p", &text), 22);
}

TEST(GetArgs, aConversionThatIsUnknownIsStatus84AndNothingIsStored) {
  const KelPtr kel = observation("kel.a", {i(1), i(2)});
  int a = 4711;
  int b = 4711;
  for (const char* format : {"%d %", "%d %q", "%d %f", "%d %n", "%d %*d", "%d %2$d", "%d %lp", "%d %hs", "%d %llld",
                             "%d %hhhd", "%d %l", "%d %h"}) {
    EXPECT_EQ(Kel_GetArgs(kel.get(), 0, format, &a, &b), 84) << format;
  }
  EXPECT_EQ(a, 4711);
  EXPECT_EQ(b, 4711);
}

TEST(GetIntArg, readsByNumberAndWidensByItsOwnSign) {
  const KelPtr kel = observation("kel.a", {i(-3), u(0xfffffffd), l(-4), L(~std::uint64_t{0}), s("x"), d(1)});
  std::int64_t value = 0;
  EXPECT_EQ(Kel_GetIntArg(kel.get(), 0, &value), 0);
  EXPECT_EQ(value, -3);
  EXPECT_EQ(Kel_GetIntArg(kel.get(), 1, &value), 0);
  EXPECT_EQ(value, 0xfffffffd);
  EXPECT_EQ(Kel_GetIntArg(kel.get(), 2, &value), 0);
  EXPECT_EQ(value, -4);
  EXPECT_EQ(Kel_GetIntArg(kel.get(), 3, &value), 0);
  EXPECT_EQ(value, -1) << "all bits of an unsigned 64-bit value";
  value = 4711;
  EXPECT_EQ(Kel_GetIntArg(kel.get(), 4, &value), 22);
  EXPECT_EQ(Kel_GetIntArg(kel.get(), 5, &value), 22);
  EXPECT_EQ(Kel_GetIntArg(kel.get(), 6, &value), 75);
  EXPECT_EQ(Kel_GetIntArg(kel.get(), ~0U, &value), 75);
  EXPECT_EQ(value, 4711);
}

TEST(GetUintArg, readsByNumberAndFillsUpWithZeros) {
  const KelPtr kel = observation("kel.a", {i(-3), u(0xfffffffd), l(-4), L(~std::uint64_t{0}), s("x"), d(1)});
  std::uint64_t value = 0;
  EXPECT_EQ(Kel_GetUintArg(kel.get(), 0, &value), 0);
  EXPECT_EQ(value, 0xfffffffdU);
  EXPECT_EQ(Kel_GetUintArg(kel.get(), 1, &value), 0);
  EXPECT_EQ(value, 0xfffffffdU);
  EXPECT_EQ(Kel_GetUintArg(kel.get(), 2, &value), 0);
  EXPECT_EQ(value, 0xfffffffffffffffcU);
  EXPECT_EQ(Kel_GetUintArg(kel.get(), 3, &value), 0);
  EXPECT_EQ(value, 0xffffffffffffffffU);
  value = 4711;
  EXPECT_EQ(Kel_GetUintArg(kel.get(), 4, &value), 22);
  EXPECT_EQ(Kel_GetUintArg(kel.get(), 5, &value), 22);
  EXPECT_EQ(Kel_GetUintArg(kel.get(), 6, &value), 75);
  EXPECT_EQ(value, 4711U);
}

TEST(GetStringArg, readsByNumber) {
  const KelPtr kel = observation("kel.a", {s("first"), null(), s(""), i(1)});
  const char* text = nullptr;
  EXPECT_EQ(Kel_GetStringArg(kel.get(), 0, &text), 0);
  EXPECT_STREQ(text, "first");
  EXPECT_EQ(Kel_GetStringArg(kel.get(), 1, &text), 0);
  EXPECT_EQ(text, nullptr);
  EXPECT_EQ(Kel_GetStringArg(kel.get(), 2, &text), 0);
  EXPECT_STREQ(text, "");
  text = "left";
  EXPECT_EQ(Kel_GetStringArg(kel.get(), 3, &text), 22);
  EXPECT_EQ(Kel_GetStringArg(kel.get(), 4, &text), 75);
  EXPECT_STREQ(text, "left");
}

TEST(GetMsg, fillsTheTemplateIn) {
  EXPECT_EQ(messageOf(observation("kel.a", {s("nic0"), i(3)}, "NIC %s lost %d packets")), "NIC nic0 lost 3 packets");
  EXPECT_EQ(messageOf(observation("kel.a", {d(0.25)}, "load %.2f")), "load 0.25");
}

TEST(GetMsg, aNullStringShowsAsSuch) {
  EXPECT_EQ(messageOf(observation("kel.a", {null()}, "NIC %s")), "NIC (null)");
}

TEST(GetMsg, aConversionWithoutFittingArgumentStaysAsItStands) {
  EXPECT_EQ(messageOf(observation("kel.a", {i(3)}, "%s and %d")), "%s and %d");
}

TEST(GetMsg, isTheIdentifierWhereNoTemplateWasGiven) {
  EXPECT_EQ(messageOf(observation("kel.a.b")), "kel.a.b");
}

}  // namespace
