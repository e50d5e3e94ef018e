#include "linux/pages.h"

#include <cerrno>
#include <filesystem>

#include "hostTree.h"

namespace linktest {
namespace {

using platform::Pages;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kOffline = "sys/devices/system/memory/soft_offline_page";

class PagesTest : public HostTree {
 protected:
  [[nodiscard]] Pages pages(std::uint64_t kernelPageBytes = 4096) const { return {roots(), kernelPageBytes}; }

  void flags(const std::vector<std::uint64_t>& ofPages) const {
    std::string bytes;
    for (const std::uint64_t one : ofPages) bytes.append(reinterpret_cast<const char*>(&one), sizeof one);
    write("proc/kpageflags", bytes);
  }
};

TEST_F(PagesTest, APageWithThePoisonFlagIsRetired) {
  flags({0, std::uint64_t{1} << 19, ~(std::uint64_t{1} << 19), ~std::uint64_t{0}});
  const Pages some = pages();
  EXPECT_EQ(some.status(0).value, 0U);
  EXPECT_EQ(some.status(1).value, 1U);
  EXPECT_EQ(some.status(2).value, 0U);
  EXPECT_EQ(some.status(3).value, 1U);
}

TEST_F(PagesTest, AHoleInTheMemoryIsNoRetiredPage) {
  constexpr std::uint64_t kNoPage = std::uint64_t{1} << 20;  // KPF_NOPAGE
  flags({kNoPage});
  EXPECT_EQ(pages().status(0).value, 0U);
}

TEST_F(PagesTest, APageBeyondTheMemoryIsAFailure) {
  flags({0});
  write("proc/kpageflags", read("proc/kpageflags") + "1234567");
  for (const std::uint64_t page : {std::uint64_t{1}, std::uint64_t{2}, std::uint64_t{1} << 60, ~std::uint64_t{0}}) {
    EXPECT_EQ(pages().status(page).outcome.status, ENXIO) << page;
  }
  EXPECT_EQ(pages().status(0x1234).outcome.text, "page 0x1234 is beyond this machine's memory");
}

TEST_F(PagesTest, WithoutFlagsTheStatusIsNotAvailable) {
  const auto status = pages().status(1);
  EXPECT_EQ(status.outcome.status, ENOTSUP);
  EXPECT_EQ(status.outcome.text, "not available: " + path("proc/kpageflags") + ": No such file or directory");
  write("proc/kpageflags/inside", "");
  EXPECT_EQ(pages().status(1).outcome.status, ENOTSUP);
}

TEST_F(PagesTest, SmallPagesShareTheFlagsOfALargerKernelPage) {
  flags({0, std::uint64_t{1} << 19});
  const Pages large = pages(65536);
  EXPECT_EQ(large.status(15).value, 0U);
  EXPECT_EQ(large.status(16).value, 1U);
  EXPECT_EQ(large.status(31).value, 1U);
  EXPECT_EQ(large.status(32).outcome.status, ENXIO);
}

TEST_F(PagesTest, APageIsRetiredByItsAddressAfterItsRecord) {
  write(kOffline, "");
  EXPECT_TRUE(pages().retire(0x1234, 1, "NiceRetire").ok());
  EXPECT_EQ(read(kOffline), "0x1234000");
  EXPECT_THAT(audit(),
              ElementsAre(AuditRecord{"page.retire",
                                      "1 page from 0x1234 on are retired because of corrected errors (NiceRetire)"}));
}

TEST_F(PagesTest, WhatWasRequestedHasAStatus) {
  write(kOffline, "");
  flags(std::vector<std::uint64_t>(8));
  Pages some = pages();
  ASSERT_TRUE(some.retire(2, 3, "NiceRetire").ok());
  for (std::uint64_t page = 0; page < 8; ++page) {
    EXPECT_EQ(some.status(page).value, page >= 2 && page < 5 ? 2U : 0U) << page;
  }
  EXPECT_EQ(read(kOffline), "0x4000") << "the last one written";
}

TEST_F(PagesTest, TheOldestRequestsAreForgotten) {
  write(kOffline, "");
  remove(kOffline);
  std::filesystem::create_symlink("/dev/null", path(kOffline));  // a disk would take its time over thousands of writes
  flags(std::vector<std::uint64_t>(5000));
  Pages some = pages();
  for (std::uint64_t page = 0; page <= 4096; page += 64) ASSERT_TRUE(some.retire(page, 64, "NiceRetire").ok());
  EXPECT_EQ(some.status(63).value, 0U);
  EXPECT_EQ(some.status(64).value, 2U);
  EXPECT_EQ(some.status(4159).value, 2U);
}

TEST_F(PagesTest, WhatCannotBeRecordedIsNotDone) {
  write(kOffline, "");
  flags({0, 0});
  breakAudit();
  Pages some = pages();
  EXPECT_EQ(some.retire(1, 1, "NiceRetire").status, ENOTDIR);
  EXPECT_EQ(read(kOffline), "");
  EXPECT_EQ(some.status(1).value, 0U);
}

TEST_F(PagesTest, ARefusalOfTheKernelIsReturnedAndTheRequestForgotten) {
  write(std::string(kOffline) + "/inside", "");
  flags({0, 0});
  Pages some = pages();
  const auto outcome = some.retire(1, 1, "NiceRetire");
  EXPECT_EQ(outcome.status, EISDIR);
  EXPECT_EQ(outcome.text, "page 0x1 cannot be retired: Is a directory");
  EXPECT_EQ(some.status(1).value, 0U);
}

TEST_F(PagesTest, ARefusalLeavesAnEarlierRequestRemembered) {
  write(kOffline, "");
  flags({0, 0, 0});
  Pages some = pages();
  ASSERT_TRUE(some.retire(1, 1, "NiceRetire").ok());
  remove(kOffline);
  write(std::string(kOffline) + "/inside", "");
  EXPECT_EQ(some.retire(1, 1, "NiceRetire").status, EISDIR);
  EXPECT_EQ(some.retire(2, 1, "NiceRetire").status, EISDIR);
  EXPECT_EQ(some.status(1).value, 2U);
  EXPECT_EQ(some.status(2).value, 0U);
}

TEST_F(PagesTest, AKernelThatRetiresNoPagesSaysSo) {
  const auto outcome = pages().retire(1, 1, "NiceRetire");
  EXPECT_EQ(outcome.status, ENOTSUP);
  EXPECT_EQ(outcome.text, "not available: this kernel retires no pages: it has no file " + path(kOffline));
  EXPECT_THAT(audit(), IsEmpty());
}

TEST_F(PagesTest, CountsAndPagesWithoutAnAddressAreRefused) {
  write(kOffline, "");
  Pages some = pages();
  for (const std::int64_t count : {std::int64_t{0}, std::int64_t{-1}, std::int64_t{65}, INT64_MAX, INT64_MIN}) {
    EXPECT_EQ(some.retire(1, count, "NiceRetire").status, EINVAL) << count;
  }
  constexpr std::uint64_t kLast = (std::uint64_t{1} << 52) - 1;
  EXPECT_EQ(some.planRetire(kLast, 1).value, "write \"0xfffffffffffff000\" to " + path(kOffline));
  EXPECT_EQ(some.planRetire(kLast, 2).outcome.status, EINVAL);
  EXPECT_EQ(some.planRetire(kLast + 1, 1).outcome.status, EINVAL);
  EXPECT_EQ(some.planRetire(~std::uint64_t{0}, 64).outcome.status, EINVAL);
  EXPECT_EQ(read(kOffline), "");
  EXPECT_THAT(audit(), IsEmpty());
}

TEST_F(PagesTest, APlanShowsEachAddress) {
  write(kOffline, "");
  EXPECT_EQ(pages().planRetire(0x1234, 2).value, "write \"0x1234000\", \"0x1235000\" to " + path(kOffline));
  EXPECT_EQ(read(kOffline), "");
}

TEST_F(PagesTest, TheThresholdIsTheOptionsOr100) {
  EXPECT_EQ(Pages::retireThreshold().value, 100U);
  write("conf/options.conf", "PageRetire/PageRetireThreshold = 7\n");
  EXPECT_EQ(Pages::retireThreshold().value, 7U);
  write("conf/options.conf", "PageRetire/PageRetireThreshold = -1\n");
  EXPECT_EQ(Pages::retireThreshold().outcome.status, EINVAL);
}

}  // namespace
}  // namespace linktest
