#include "linux/mounts.h"

#include <cerrno>

#include "hostTree.h"

namespace linktest {
namespace {

using platform::Mount;
using platform::mountOf;
using platform::parseMounts;
using platform::pathBelow;
using platform::readMounts;
using testing::IsEmpty;
using testing::SizeIs;

class MountsTest : public HostTree {};

TEST(MountsText, ALineIsReadWithAndWithoutOptionalFields) {
  const auto mounts = parseMounts(
      "36 35 98:0 /mnt1 /mnt2 rw,noatime master:1 propagate_from:2 - ext3 /dev/root rw,errors=continue\n"
      "37 35 0:5 / /proc rw - proc proc rw\n");
  ASSERT_THAT(mounts, SizeIs(2));
  EXPECT_EQ(mounts[0].number, "98:0");
  EXPECT_EQ(mounts[0].root, "/mnt1");
  EXPECT_EQ(mounts[0].point, "/mnt2");
  EXPECT_EQ(mounts[0].fileSystem, "ext3");
  EXPECT_EQ(mounts[0].source, "/dev/root");
  EXPECT_EQ(mounts[1].fileSystem, "proc");
}

TEST(MountsText, EscapesAreDecoded) {
  const auto mounts = parseMounts("36 35 8:1 / /a\\040b\\011c\\012d\\134e rw - ext4 /dev/mapper/x\\040y rw\n");
  ASSERT_THAT(mounts, SizeIs(1));
  EXPECT_EQ(mounts[0].point, "/a b\tc\nd\\e");
  EXPECT_EQ(mounts[0].source, "/dev/mapper/x y");
}

TEST(MountsText, WhatIsNoEscapeStaysAsItIs) {
  const auto mounts = parseMounts("36 35 8:1 / /a\\04\\999\\777\\ rw - ext4 \\0 rw\n");
  ASSERT_THAT(mounts, SizeIs(1));
  EXPECT_EQ(mounts[0].point, "/a\\04\\999\\777\\");
  EXPECT_EQ(mounts[0].source, "\\0");
}

TEST(MountsText, LinesOfAnotherFormAreSkipped) {
  EXPECT_THAT(parseMounts(""), IsEmpty());
  EXPECT_THAT(parseMounts("\n\n"), IsEmpty());
  for (const char* const line :
       {"36", "36 35 8:1", "36 35 8:1 / /a rw", "36 35 8:1 / /a rw shared:1", "36 35 81 / /a rw - ext4 /dev/a rw",
        "36 35 8: / /a rw - ext4 /dev/a rw", "36 35 8:1 / a rw - ext4 /dev/a rw", "36 35 x:y / /a rw - ext4 /dev/a rw",
        " 36 35 8:1 / /a rw - ext4 /dev/a rw", "- - - - - - -"}) {
    EXPECT_THAT(parseMounts(line), IsEmpty()) << line;
  }
  EXPECT_THAT(parseMounts("nonsense\n36 35 8:1 / /a rw - ext4 /dev/a rw"), SizeIs(1));
}

TEST(MountsText, TheNumberOfMountsIsBounded) {
  std::string text;
  for (std::size_t i = 0; i < platform::kMounts + 5; ++i) text += "1 1 8:1 / /a rw - e s rw\n";
  EXPECT_THAT(parseMounts(text), SizeIs(platform::kMounts));
}

TEST(MountsText, TheLongestMountPointThatHoldsAPathIsItsMount) {
  const auto mounts = parseMounts(
      "1 1 8:1 / / rw - ext4 /dev/a rw\n"
      "2 1 8:2 / /data rw - ext4 /dev/b rw\n"
      "3 1 8:3 / /data/deep rw - ext4 /dev/c rw\n"
      "4 1 8:4 / /data rw - ext4 /dev/d rw\n");
  const auto numberOf = [&](const char* path) {
    const Mount* const mount = mountOf(mounts, path);
    return mount == nullptr ? std::string("none") : mount->number;
  };
  EXPECT_EQ(numberOf("/etc/fstab"), "8:1");
  EXPECT_EQ(numberOf("/database"), "8:1");
  EXPECT_EQ(numberOf("/data"), "8:4") << "the last of the same point covers the others";
  EXPECT_EQ(numberOf("/data/x"), "8:4");
  EXPECT_EQ(numberOf("/data/deep/x"), "8:3");
  EXPECT_EQ(numberOf("relative"), "none");
}

TEST(MountsText, APathBelowADirectoryHasNoSlashBeforeIt) {
  EXPECT_EQ(pathBelow("/", "/sys.swp"), "sys.swp");
  EXPECT_EQ(pathBelow("/data", "/data/a/b"), "a/b");
  EXPECT_EQ(pathBelow("/data", "/data"), "");
  EXPECT_EQ(pathBelow("/data", "/data/"), "");
}

TEST_F(MountsTest, AMachineWithoutMountinfoHasNoneToShow) {
  const auto mounts = readMounts(roots().proc);
  EXPECT_EQ(mounts.outcome.status, ENOTSUP);
  EXPECT_EQ(mounts.outcome.text, "not available: " + path("proc/self/mountinfo") + ": No such file or directory");
}

TEST_F(MountsTest, TheMachinesMountsGoBeforeThoseOfThisProcess) {
  write("proc/self/mountinfo", "36 35 8:1 / /service rw - ext4 /dev/a rw\n");
  EXPECT_EQ(readMounts(roots().proc).value.at(0).point, "/service");
  write("proc/1/mountinfo", "36 35 8:1 / /home rw - ext4 /dev/a rw\n");
  EXPECT_EQ(readMounts(roots().proc).value.at(0).point, "/home");
}

TEST_F(MountsTest, AMountinfoBeyondTheLimitIsRefused) {
  write("proc/self/mountinfo", std::string(platform::kMountInfoBytes + 1, 'x'));
  EXPECT_EQ(readMounts(roots().proc).outcome.status, ENOTSUP);
}

}  // namespace
}  // namespace linktest
