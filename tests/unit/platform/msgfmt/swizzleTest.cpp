#include <gtest/gtest.h>

#include <cstring>

#include "msgfmt/limits.h"
#include "testArea.h"

namespace {

constexpr std::size_t kPlenty = TestArea::kPlenty;
constexpr std::size_t kEntry = 32;

TestArea swizzled(const char* first, const char* second) {
  TestArea area = TestArea::read(kPlenty, "%s %d %s", first, 7, second);
  EXPECT_TRUE(area.ok());
  EXPECT_TRUE(area.swizzle());
  return area;
}

/// An area of one string entry with `offset` as its value, with `strings` behind it.
TestArea oneString(std::uint64_t offset, const std::string& strings) {
  return TestArea::ofBytes(entryBytes({makeEntry(MSGFMT_ARG_STRING8, offset)}) + strings, 1);
}

bool fetches(const TestArea& area, std::uint32_t index, const char** text) {
  return MsgFmt_GetSwizzledString(area.start(), index, area.end(), text);
}

TEST(Swizzle, addressesBecomeOffsetsFromTheStartOfTheArray) {
  const TestArea area = swizzled("nic0", "Production");
  EXPECT_EQ(area.entry(0).value, 96U);
  EXPECT_EQ(area.entry(1).value, 7U);
  EXPECT_EQ(area.entry(2).value, 101U);
}

TEST(Swizzle, nullStringStaysZero) {
  const TestArea area = swizzled(nullptr, "x");
  EXPECT_EQ(area.entry(0).value, 0U);
  const char* text = "untouched";
  EXPECT_TRUE(fetches(area, 0, &text));
  EXPECT_EQ(text, nullptr);
}

TEST(Swizzle, movedAreaYieldsTheSameStringsAndText) {
  const TestArea area = swizzled("nic0", "Production");
  const TestArea moved = TestArea::ofBytes(std::string(area.start(), area.used()), area.count());
  const char* text = nullptr;
  ASSERT_TRUE(fetches(moved, 0, &text));
  EXPECT_STREQ(text, "nic0");
  EXPECT_EQ(text, moved.start() + 96);
  ASSERT_TRUE(fetches(moved, 2, &text));
  EXPECT_STREQ(text, "Production");
  EXPECT_EQ(formattedSwizzled("%s: %d %s", moved), "nic0: 7 Production");
}

TEST(Swizzle, emptyAreaIsSwizzled) {
  EXPECT_TRUE(MsgFmt_SwizzleArgs(nullptr, 0, 0));
}

TEST(Swizzle, addressOutsideTheBufferIsRefusedAndNothingChanges) {
  TestArea area = TestArea::read(kPlenty, "%s %s", "one", "two");
  ASSERT_TRUE(area.ok());
  const std::string foreign = "elsewhere";
  const auto start = reinterpret_cast<std::uintptr_t>(area.start());
  for (const std::uint64_t address :
       {std::uint64_t{reinterpret_cast<std::uintptr_t>(foreign.data())}, std::uint64_t{start - 1}, std::uint64_t{start},
        std::uint64_t{start + 2 * kEntry - 1}, std::uint64_t{start + area.used()}, UINT64_MAX, std::uint64_t{1}}) {
    area.set(1, makeEntry(MSGFMT_ARG_STRING8, address));
    const std::string before = area.bytes();
    EXPECT_FALSE(area.swizzle()) << address;
    EXPECT_EQ(area.bytes(), before) << address;
  }
}

TEST(Swizzle, moreEntriesThanTheBufferHoldsAreRefused) {
  TestArea area = TestArea::read(kPlenty, "%d", 1);
  EXPECT_FALSE(MsgFmt_SwizzleArgs(area.start(), area.used(), 2));
  EXPECT_FALSE(MsgFmt_SwizzleArgs(area.start(), area.used(), UINT32_MAX));
  EXPECT_FALSE(MsgFmt_SwizzleArgs(area.start(), kEntry - 1, 1));
}

TEST(SwizzledString, entryThatIsNoStringIsRefused) {
  for (const std::uint32_t type : {0U, 1U, 2U, 3U, 4U, 5U, 7U, 8U, 9U, 0xffffffffU}) {
    const TestArea area = TestArea::ofBytes(entryBytes({makeEntry(type, kEntry)}) + std::string("x\0", 2), 1);
    const char* text = nullptr;
    EXPECT_FALSE(fetches(area, 0, &text)) << type;
    EXPECT_EQ(text, nullptr);
  }
}

TEST(SwizzledString, offsetIntoTheArrayOrBeyondTheAreaIsRefused) {
  const std::string strings("abc\0", 4);
  for (const std::uint64_t offset :
       {std::uint64_t{1}, std::uint64_t{kEntry - 1}, std::uint64_t{kEntry + 4}, std::uint64_t{kEntry + 5},
        std::uint64_t{1} << 32, std::uint64_t{1} << 63, UINT64_MAX}) {
    const TestArea area = oneString(offset, strings);
    const char* text = nullptr;
    EXPECT_FALSE(fetches(area, 0, &text)) << offset;
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(formattedSwizzled("[%s]", area), "[%s]") << offset;
  }
}

TEST(SwizzledString, lastByteOfTheAreaMayBeAnEmptyString) {
  const TestArea area = oneString(kEntry + 3, std::string("abc\0", 4));
  const char* text = nullptr;
  ASSERT_TRUE(fetches(area, 0, &text));
  EXPECT_STREQ(text, "");
}

TEST(SwizzledString, unterminatedStringIsRefused) {
  const TestArea area = oneString(kEntry, "abc");
  const char* text = nullptr;
  EXPECT_FALSE(fetches(area, 0, &text));
  EXPECT_EQ(formattedSwizzled("[%s]", area), "[%s]");
  EXPECT_EQ(formattedSwizzled("[%.1s]", area), "[%.1s]");
}

TEST(SwizzledString, indexBeyondTheAreaIsRefused) {
  const TestArea area = oneString(kEntry, std::string("abc\0", 4));
  const char* text = nullptr;
  EXPECT_FALSE(fetches(area, 1, &text));
  EXPECT_FALSE(fetches(area, UINT32_MAX, &text));
  EXPECT_FALSE(MsgFmt_GetSwizzledString(area.start(), 0, area.start() + kEntry - 1, &text));
  EXPECT_FALSE(MsgFmt_GetSwizzledString(area.start(), 0, area.start(), &text));
  EXPECT_FALSE(MsgFmt_GetSwizzledString(area.start() + 1, 0, area.start(), &text));
}

TEST(FormatSwizzled, hugeCountReadsNoEntryBeyondTheArea) {
  const TestArea area = TestArea::ofBytes(entryBytes({makeEntry(MSGFMT_ARG_INT32, 5)}) + "tail", UINT32_MAX);
  EXPECT_EQ(formattedSwizzled("%d %d %d", area), "5 %d %d");
}

TEST(FormatSwizzled, emptyAreaIsNeverRead) {
  char* text = MsgFmt_AsprintfSwizzled(nullptr, "%s %d", nullptr, 0, 3);
  EXPECT_STREQ(text, "%s %d");
  std::free(text);
}

TEST(FormatSwizzled, stringSharedByManyEntriesIsStillBounded) {
  constexpr std::uint32_t kCount = 2000;
  const std::string shared(60000, 'x');
  const std::vector<MsgFmt_Arg> entries(kCount, makeEntry(MSGFMT_ARG_STRING8, kCount * kEntry));
  const TestArea area = TestArea::ofBytes(entryBytes(entries) + shared + '\0', kCount);
  std::string format;
  for (std::uint32_t n = 0; n < kCount; ++n) format += "%s";
  EXPECT_EQ(formattedSwizzled(format.c_str(), area).size(), msgfmt::kMaxTextBytes);
}

TEST(LoadArg, readsAnEntryAtAnyAddress) {
  const std::string bytes = " " + entryBytes({makeEntry(1, 2, 3), makeEntry(4, 0x0102030405060708, 6)});
  const MsgFmt_Arg entry = MsgFmt_LoadArg(bytes.data() + 1, 1);
  EXPECT_EQ(entry.type, 4U);
  EXPECT_EQ(entry.flags, 6U);
  EXPECT_EQ(entry.value, 0x0102030405060708U);
}

}  // namespace
