#include <gtest/gtest.h>

#include "hexdump.h"
#include "testArea.h"

namespace {

constexpr const char* kTemplate = "%s on %s: %d of %lu (%f)";

TEST(ArgumentAreaDocument, libraryWritesTheWorkedExample) {
  TestArea area =
      TestArea::read(TestArea::kPlenty, kTemplate, "nic0", static_cast<const char*>(nullptr), -1, 2UL, 12.5);
  ASSERT_TRUE(area.ok());
  ASSERT_TRUE(area.swizzle());
  EXPECT_EQ(area.count(), 5U);
  EXPECT_EQ(area.used(), 165U);
  EXPECT_EQ(area.bytes(), documentedBytes("argument-area.md"));
}

TEST(ArgumentAreaDocument, libraryReadsTheWorkedExample) {
  const TestArea area = TestArea::ofBytes(documentedBytes("argument-area.md"), 5);
  EXPECT_EQ(formattedSwizzled(kTemplate, area), "nic0 on (null): -1 of 2 (12.500000)");
}

}  // namespace
