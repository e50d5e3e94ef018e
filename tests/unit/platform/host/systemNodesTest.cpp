// The system-information nodes of processors and pages.
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "hostFixture.h"
#include "platform/vsi.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

struct ListDeleter {
  void operator()(VSI_ParamList* list) const { VSI_ParamListDestroy(list); }
};
using List = std::unique_ptr<VSI_ParamList, ListDeleter>;

List integers(const std::vector<std::int64_t>& values) {
  List list(VSI_ParamListCreate());
  for (const std::int64_t value : values) EXPECT_EQ(VSI_ParamListAddInt(list.get(), value), QK_OK);
  return list;
}

class SystemNodes : public HostTest {};

TEST_F(SystemNodes, CpuInfoHasItsCountsAtBytes24And28) {
  model_.write(R"({"cpu": {"cores": 4, "pcpus": 8}})");
  std::array<char, 40> record{};
  ASSERT_EQ(VSI_Get(VSI_NODE_hardware_cpu_cpuInfo, nullptr, record.data(), record.size()), QK_OK);
  std::uint32_t cores = 0, pcpus = 0;
  std::memcpy(&cores, record.data() + 24, sizeof cores);
  std::memcpy(&pcpus, record.data() + 28, sizeof pcpus);
  EXPECT_EQ(cores, 4U);
  EXPECT_EQ(pcpus, 8U);
  EXPECT_EQ(VSI_Get(VSI_NODE_hardware_cpu_cpuInfo, nullptr, record.data(), 39), QK_BAD_PARAM);
  model_.write(R"({"cpu": {"cores": 4}})");
  EXPECT_EQ(VSI_Get(VSI_NODE_hardware_cpu_cpuInfo, nullptr, record.data(), record.size()), QK_ERRNO_BASE + ENOENT);
}

TEST_F(SystemNodes, CpuListHasTheVendorAtByte28) {
  model_.write(R"({"cpu": {"vendor": "GenuineIntel"}})");
  std::array<char, 228> record{};
  const List first = integers({0});
  ASSERT_EQ(VSI_Get(VSI_NODE_hardware_cpu_cpuList, first.get(), record.data(), record.size()), QK_OK);
  EXPECT_STREQ(record.data() + 28, "GenuineIntel");
  EXPECT_EQ(VSI_Get(VSI_NODE_hardware_cpu_cpuList, nullptr, record.data(), record.size()), QK_BAD_PARAM);
  model_.write(R"({"cpu": {"vendor": "a vendor whose name is too long"}})");
  ASSERT_EQ(VSI_Get(VSI_NODE_hardware_cpu_cpuList, first.get(), record.data(), record.size()), QK_OK);
  EXPECT_STREQ(record.data() + 28, "a vendor whose ");
}

TEST_F(SystemNodes, OfflineEnabledIsOneByte) {
  std::uint8_t enabled = 7;
  model_.write(R"({"cpu": {"offlineEnabled": true}})");
  ASSERT_EQ(VSI_Get(VSI_NODE_sched_offline_enabled, nullptr, &enabled, 1), QK_OK);
  EXPECT_EQ(enabled, 1);
  model_.write(R"({"cpu": {"offlineEnabled": false}})");
  ASSERT_EQ(VSI_Get(VSI_NODE_sched_offline_enabled, nullptr, &enabled, 1), QK_OK);
  EXPECT_EQ(enabled, 0);
  EXPECT_EQ(VSI_Get(VSI_NODE_sched_offline_enabled, nullptr, &enabled, 4), QK_BAD_PARAM);
}

TEST_F(SystemNodes, AProcessorIsTakenOfflineByItsNumber) {
  EXPECT_EQ(VSI_Set(VSI_NODE_sched_pcpus_offline, integers({3}).get(), nullptr), QK_OK);
  EXPECT_THAT(model_.actions(), ElementsAre(R"({"action":"cpu.offline","cpu":3})"));
  EXPECT_EQ(VSI_Set(VSI_NODE_sched_pcpus_offline, nullptr, nullptr), QK_BAD_PARAM);
  EXPECT_EQ(VSI_Set(VSI_NODE_sched_pcpus_offline, integers({3}).get(), integers({1}).get()), QK_BAD_PARAM);
}

TEST_F(SystemNodes, ThePageRetireThresholdIsSixtyFourBitsWide) {
  std::uint64_t threshold = 0;
  ASSERT_EQ(VSI_Get(VSI_NODE_system_pageRetire_threshold, nullptr, &threshold, sizeof threshold), QK_OK);
  EXPECT_EQ(threshold, 100U);
  model_.write(R"({"pageRetire": {"threshold": 1234567890123}})");
  ASSERT_EQ(VSI_Get(VSI_NODE_system_pageRetire_threshold, nullptr, &threshold, sizeof threshold), QK_OK);
  EXPECT_EQ(threshold, 1234567890123U);
}

TEST_F(SystemNodes, APagesStatusIsAskedForByItsNumber) {
  model_.write(R"({"pageRetire": {"status": {"0x1234": 1}}})");
  std::uint32_t status = 0;
  const auto ask = [&](const VSI_ParamList* input) {
    return VSI_GetWithInput(VSI_NODE_system_pageRetire_MPNStatus, nullptr, input, &status, sizeof status);
  };
  ASSERT_EQ(ask(integers({0x1234}).get()), QK_OK);
  EXPECT_EQ(status, 1U);
  EXPECT_EQ(ask(integers({0x1235}).get()), QK_ERRNO_BASE + ENOENT);
  EXPECT_EQ(ask(nullptr), QK_BAD_PARAM);
  EXPECT_EQ(ask(integers({1, 2}).get()), QK_BAD_PARAM);
  EXPECT_EQ(VSI_Get(VSI_NODE_system_pageRetire_MPNStatus, nullptr, &status, sizeof status), QK_NOT_SUPPORTED);
}

TEST_F(SystemNodes, OtherNodesTakeNoInput) {
  std::uint64_t threshold = 0;
  EXPECT_EQ(VSI_GetWithInput(VSI_NODE_system_pageRetire_threshold, nullptr, nullptr, &threshold, sizeof threshold),
            QK_OK);
  EXPECT_EQ(VSI_GetWithInput(VSI_NODE_system_pageRetire_threshold, nullptr, integers({1}).get(), &threshold,
                             sizeof threshold),
            QK_BAD_PARAM);
}

TEST_F(SystemNodes, PagesAreRetiredByNumberCountAndMode) {
  const List input = integers({0x1234, 1});
  EXPECT_EQ(VSI_Set(VSI_NODE_system_pageRetire_retireMPNs, nullptr, input.get()), QK_BAD_PARAM);
  ASSERT_EQ(VSI_ParamListAddString(input.get(), "NiceRetire"), QK_OK);
  EXPECT_EQ(VSI_Set(VSI_NODE_system_pageRetire_retireMPNs, nullptr, input.get()), QK_OK);
  EXPECT_THAT(model_.actions(), ElementsAre(R"({"action":"page.retire","page":4660,"count":1,"mode":"NiceRetire"})"));
}

TEST_F(SystemNodes, WhatTheHostRefusesIsAStatus) {
  model_.write(R"({"failures": {"cpu.offline": 16, "page.retire": 5, "page.status": 5, "pageRetire.threshold": 5,
                                "cpu.info": 5, "cpu.list": 5, "offlineEnabled.read": 5}})");
  const List input = integers({1, 1});
  ASSERT_EQ(VSI_ParamListAddString(input.get(), "NiceRetire"), QK_OK);
  EXPECT_EQ(VSI_Set(VSI_NODE_sched_pcpus_offline, integers({1}).get(), nullptr), QK_ERRNO_BASE + 16);
  EXPECT_EQ(VSI_Set(VSI_NODE_system_pageRetire_retireMPNs, nullptr, input.get()), QK_ERRNO_BASE + 5);
  std::array<char, 228> out{};
  const auto get = [&](VSI_NodeID node, const VSI_ParamList* instance, std::size_t size) {
    return VSI_Get(node, instance, out.data(), size);
  };
  EXPECT_EQ(get(VSI_NODE_system_pageRetire_threshold, nullptr, 8), QK_ERRNO_BASE + 5);
  EXPECT_EQ(get(VSI_NODE_hardware_cpu_cpuInfo, nullptr, 40), QK_ERRNO_BASE + 5);
  EXPECT_EQ(get(VSI_NODE_hardware_cpu_cpuList, integers({0}).get(), 228), QK_ERRNO_BASE + 5);
  EXPECT_EQ(get(VSI_NODE_sched_offline_enabled, nullptr, 1), QK_ERRNO_BASE + 5);
  EXPECT_EQ(VSI_GetWithInput(VSI_NODE_system_pageRetire_MPNStatus, nullptr, integers({1}).get(), out.data(), 4),
            QK_ERRNO_BASE + 5);
  EXPECT_THAT(model_.actions(), IsEmpty());
}

}  // namespace
