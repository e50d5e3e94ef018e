#include "keldCoreErrors.h"

#include <gtest/gtest.h>

namespace {

using keld::CoreErrors;
using keld::McStatus;

struct Code {
  std::uint32_t code;
  bool counts;
};

class ErrorCodes : public testing::TestWithParam<Code> {};

TEST_P(ErrorCodes, CountTowardsACoreByKindAndLevel) {
  EXPECT_EQ(McStatus(GetParam().code).isCoreError(), GetParam().counts);
  // What stands above the code says nothing of the kind.
  EXPECT_EQ(McStatus(0xffffffffffff0000U | GetParam().code).isCoreError(), GetParam().counts);
}

INSTANTIATE_TEST_SUITE_P(MachineChecks, ErrorCodes,
                         testing::Values(
                             // caches of the memory hierarchy: bit 8, and none of 0xee00
                             Code{0x0100, true}, Code{0x0101, true}, Code{0x01ff & ~3U, true}, Code{0x1100, true},
                             Code{0x0102, false}, Code{0x0103, false}, Code{0x0300, false}, Code{0x0500, false},
                             Code{0x2100, false}, Code{0x4100, false}, Code{0x8100, false}, Code{0x0900, false},
                             // generic cache hierarchy: bits 2 and 3, and none of 0xeff0
                             Code{0x000c, true}, Code{0x000d, true}, Code{0x100c, true}, Code{0x000e, false},
                             Code{0x000f, false}, Code{0x0004, false}, Code{0x0008, false}, Code{0x008c, false},
                             // TLB: bit 4, and none of 0xefe0
                             Code{0x0010, true}, Code{0x0011, true}, Code{0x001c, true}, Code{0x1010, true},
                             Code{0x0012, false}, Code{0x0013, false}, Code{0x0030, false}, Code{0x0090, false},
                             Code{0x2010, false}, Code{0x0000, false}, Code{0x1000, false}));

TEST(MachineCheckStatus, TellsAddressAndOverflow) {
  EXPECT_TRUE(McStatus(std::uint64_t{1} << 58).addressValid());
  EXPECT_FALSE(McStatus(~(std::uint64_t{1} << 58)).addressValid());
  EXPECT_TRUE(McStatus(std::uint64_t{1} << 62).overflow());
  EXPECT_FALSE(McStatus(~(std::uint64_t{1} << 62)).overflow());
}

TEST(CoreErrorRing, ReachesANumberWithinADay) {
  CoreErrors core;
  core.add(1000, 1);
  core.add(1001, 1);
  EXPECT_FALSE(core.reached(3, 1001));
  core.add(1000 + 86399, 1);
  EXPECT_TRUE(core.reached(3, 1000 + 86399));
  EXPECT_FALSE(core.reached(3, 1000 + 86400));
}

TEST(CoreErrorRing, WrapsAroundItsSixtyFourPlaces) {
  CoreErrors core;
  for (int second = 1; second <= 64; ++second) core.add(second, 1);
  EXPECT_TRUE(core.reached(64, 64));
  // 65 places back is the place that is 1 back, and so on.
  CoreErrors young;
  young.add(5, 1);
  EXPECT_TRUE(young.reached(65, 5));
  EXPECT_FALSE(young.reached(66, 5));
  EXPECT_TRUE(young.reached(0xffffffc1U, 5));
}

}  // namespace
