#include "linux/processors.h"

#include <cerrno>

#include "hostTree.h"

namespace linktest {
namespace {

using platform::parseProcessorList;
using platform::Processors;
using testing::ElementsAre;
using testing::IsEmpty;

using Numbers = std::vector<std::uint32_t>;

class ProcessorsTest : public HostTree {
 protected:
  static std::string directory(int cpu) { return "sys/devices/system/cpu/cpu" + std::to_string(cpu); }

  void processor(int cpu, int package, int core) const {
    write(directory(cpu) + "/topology/physical_package_id", std::to_string(package) + "\n");
    write(directory(cpu) + "/topology/core_id", std::to_string(core) + "\n");
  }
  void lists(const std::string& present, const std::string& online) const {
    write("sys/devices/system/cpu/present", present + "\n");
    write("sys/devices/system/cpu/online", online + "\n");
  }
  /// Two cores of two threads each; the first thread of the first has no switch.
  void fourThreads() const {
    for (int cpu = 0; cpu < 4; ++cpu) processor(cpu, 0, cpu / 2);
    for (int cpu = 1; cpu < 4; ++cpu) write(directory(cpu) + "/online", "1\n");
    lists("0-3", "0-3");
  }
};

TEST(ProcessorList, RangesAndSingleNumbersAreRead) {
  EXPECT_EQ(parseProcessorList("0-3,8,10-11\n"), (Numbers{0, 1, 2, 3, 8, 10, 11}));
  EXPECT_EQ(parseProcessorList("0\n"), (Numbers{0}));
  EXPECT_EQ(parseProcessorList("\n"), (Numbers{}));
  EXPECT_EQ(parseProcessorList("2,0-2"), (Numbers{0, 1, 2}));
}

TEST(ProcessorList, AnotherFormIsRefused) {
  for (const char* const text : {"a", "-", "1-", "-1", "3-1", ",", "1,,2", "0-65536", "0-4294967295",
                                 "0-18446744073709551615", "99999999999999999999", "0 1"}) {
    EXPECT_EQ(parseProcessorList(text), std::nullopt) << text;
  }
}

TEST_F(ProcessorsTest, TheVendorIsThatOfTheFirstProcessor) {
  write("proc/cpuinfo",
        "processor\t: 0\nvendor_id\t: GenuineIntel\ncpu family\t: 6\n\nprocessor\t: 1\nvendor_id\t: X\n");
  EXPECT_EQ(Processors(roots()).vendor().value, "GenuineIntel");
}

TEST_F(ProcessorsTest, AMachineWhoseProcessorsNameNoVendorSaysSo) {
  const auto vendor = [&] { return Processors(roots()).vendor(); };
  EXPECT_EQ(vendor().outcome.status, ENOTSUP);
  for (const std::string& text : {std::string("processor\t: 0\nCPU implementer\t: 0x41\n"), std::string("vendor_id"),
                                  std::string("vendor_id\t:  \n"), std::string(), std::string(300'000, 'x')}) {
    write("proc/cpuinfo", text);
    EXPECT_EQ(vendor().outcome.status, ENOENT);
    EXPECT_EQ(vendor().outcome.text, "not available: this machine's processors name no vendor");
  }
}

TEST_F(ProcessorsTest, CoresAreCountedOncePerPackage) {
  fourThreads();
  auto counts = Processors(roots()).counts();
  ASSERT_TRUE(counts.ok());
  EXPECT_EQ(counts.value.cores, 2U);
  EXPECT_EQ(counts.value.pcpus, 4U);
  for (int cpu = 0; cpu < 4; ++cpu) processor(cpu, cpu / 2, cpu % 2);
  EXPECT_EQ(Processors(roots()).counts().value.cores, 4U);
}

TEST_F(ProcessorsTest, ANumberOfACoreMeansItsDie) {
  fourThreads();
  for (int cpu = 0; cpu < 4; ++cpu) {
    processor(cpu, 0, 0);
    write(directory(cpu) + "/topology/die_id", std::to_string(cpu / 2) + "\n");
  }
  EXPECT_EQ(Processors(roots()).counts().value.cores, 2U);
}

TEST_F(ProcessorsTest, NumbersThatTheFirmwareDoesNotTellAreNoFailure) {
  fourThreads();
  for (int cpu = 0; cpu < 4; ++cpu) processor(cpu, -1, cpu / 2);
  EXPECT_EQ(Processors(roots()).counts().value.cores, 2U);
  for (int cpu = 0; cpu < 4; ++cpu) processor(cpu, 0, -1);
  EXPECT_EQ(Processors(roots()).counts().value.cores, 4U);
  write(directory(0) + "/topology/core_id", "9223372036854775808\n");
  write(directory(1) + "/topology/core_id", "-2\n");
  EXPECT_EQ(Processors(roots()).counts().value.cores, 2U);
}

TEST_F(ProcessorsTest, AProcessorThatWentOfflineStillCountsWithItsCore) {
  fourThreads();
  const Processors processors(roots());
  ASSERT_EQ(processors.counts().value.cores, 2U);
  remove(directory(2) + "/topology");
  remove(directory(3) + "/topology");
  EXPECT_EQ(processors.counts().value.cores, 2U);
  EXPECT_EQ(processors.counts().value.pcpus, 4U);
  EXPECT_EQ(Processors(roots()).counts().value.cores, 1U) << "one that was offline from the start has none";
}

TEST_F(ProcessorsTest, CountsNeedAListAndCores) {
  EXPECT_EQ(Processors(roots()).counts().outcome.status, ENOTSUP);
  lists("nonsense", "0-3");
  EXPECT_EQ(Processors(roots()).counts().outcome.status, ENOTSUP);
  lists("0-3", "0-3");
  EXPECT_EQ(Processors(roots()).counts().outcome.text,
            "not available: " + path("sys/devices/system/cpu") + " does not tell the processors' cores");
}

TEST_F(ProcessorsTest, OffliningIsEnabledWhereAnyProcessorHasItsSwitch) {
  EXPECT_EQ(Processors(roots()).offlineEnabled().outcome.status, ENOTSUP);
  lists("0-1", "0-1");
  EXPECT_EQ(Processors(roots()).offlineEnabled().value, false);
  write(directory(1) + "/online", "1\n");
  EXPECT_EQ(Processors(roots()).offlineEnabled().value, true);
}

TEST_F(ProcessorsTest, AProcessorIsTakenOfflineAfterItsRecord) {
  fourThreads();
  Processors processors(roots());
  EXPECT_TRUE(processors.offline(3).ok());
  EXPECT_EQ(read(directory(3) + "/online"), "0");
  EXPECT_EQ(read(directory(2) + "/online"), "1\n");
  EXPECT_THAT(audit(),
              ElementsAre(AuditRecord{"cpu.offline", "processor 3 is taken offline because of its corrected errors"}));
}

TEST_F(ProcessorsTest, WhatCannotBeRecordedIsNotDone) {
  fourThreads();
  breakAudit();
  EXPECT_EQ(Processors(roots()).offline(3).status, ENOTDIR);
  EXPECT_EQ(read(directory(3) + "/online"), "1\n");
}

TEST_F(ProcessorsTest, TheLastProcessorStaysOnline) {
  fourThreads();
  lists("0-3", "3");
  const auto outcome = Processors(roots()).offline(3);
  EXPECT_EQ(outcome.status, EBUSY);
  EXPECT_EQ(outcome.text, "processor 3 is the last one online");
  EXPECT_EQ(read(directory(3) + "/online"), "1\n");
  EXPECT_THAT(audit(), IsEmpty());
}

TEST_F(ProcessorsTest, AProcessorThatIsOfflineIsRefused) {
  fourThreads();
  write(directory(3) + "/online", "0\n");
  const auto outcome = Processors(roots()).offline(3);
  EXPECT_EQ(outcome.status, EALREADY);
  EXPECT_EQ(outcome.text, "processor 3 is already offline");
  EXPECT_THAT(audit(), IsEmpty());
}

TEST_F(ProcessorsTest, AProcessorWithoutASwitchOrThatIsNotThereIsRefused) {
  fourThreads();
  Processors processors(roots());
  EXPECT_EQ(processors.offline(0).status, ENOTSUP);
  for (const std::int64_t cpu : {std::int64_t{4}, std::int64_t{-1}, std::int64_t{65536}, INT64_MAX, INT64_MIN}) {
    EXPECT_EQ(processors.offline(cpu).status, ENODEV) << cpu;
  }
  remove("sys/devices/system/cpu/online");
  EXPECT_EQ(processors.offline(3).status, ENOTSUP);
  EXPECT_THAT(audit(), IsEmpty());
}

TEST_F(ProcessorsTest, APlanNamesTheFileAndWritesNothing) {
  fourThreads();
  const Processors processors(roots());
  EXPECT_EQ(processors.planOffline(3).value, "write \"0\" to " + path(directory(3)) + "/online");
  EXPECT_EQ(processors.planOffline(0).outcome.status, ENOTSUP);
  EXPECT_EQ(read(directory(3) + "/online"), "1\n");
  EXPECT_THAT(audit(), IsEmpty());
}

}  // namespace
}  // namespace linktest
