#include "platform/vsi.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>

#include "host/options.h"
#include "hostFixture.h"
#include "vsi/status.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class Vsi : public HostTest {};

struct ListDeleter {
  void operator()(VSI_ParamList* list) const { VSI_ParamListDestroy(list); }
};
using List = std::unique_ptr<VSI_ParamList, ListDeleter>;

List strings(const std::vector<const char*>& values) {
  List list(VSI_ParamListCreate());
  for (const char* const value : values) EXPECT_EQ(VSI_ParamListAddString(list.get(), value), QK_OK);
  return list;
}

List integers(const std::vector<std::int64_t>& values) {
  List list(VSI_ParamListCreate());
  for (const std::int64_t value : values) EXPECT_EQ(VSI_ParamListAddInt(list.get(), value), QK_OK);
  return list;
}

TEST_F(Vsi, StatusesBecomeErrnoValues) {
  EXPECT_EQ(QK_ReturnStatusToErrno(QK_OK), 0);
  EXPECT_EQ(QK_ReturnStatusToErrno(QK_NOT_FOUND), ENOENT);
  EXPECT_EQ(QK_ReturnStatusToErrno(QK_BAD_PARAM), EINVAL);
  EXPECT_EQ(QK_ReturnStatusToErrno(0xbad0014), ENOMEM);
  EXPECT_EQ(QK_ReturnStatusToErrno(QK_NOT_SUPPORTED), ENOTSUP);
  EXPECT_EQ(QK_ReturnStatusToErrno(QK_FAILURE), EIO);
  EXPECT_EQ(QK_ReturnStatusToErrno(QK_ERRNO_BASE + 77), 77);
  EXPECT_EQ(QK_ReturnStatusToErrno(QK_ERRNO_BASE), EIO);
  EXPECT_EQ(QK_ReturnStatusToErrno(0xffffffff), EIO);
}

TEST_F(Vsi, OutcomesBecomeStatuses) {
  EXPECT_EQ(platform::kernelStatus({}), QK_OK);
  EXPECT_EQ(platform::kernelStatus({5, {}}), QK_ERRNO_BASE + 5);
  EXPECT_EQ(platform::kernelStatus({0xbad0003, {}}), QK_NOT_FOUND);
  EXPECT_EQ(platform::kernelStatus({-1, {}}), QK_FAILURE);
  EXPECT_EQ(platform::kernelStatus({1 << 20, {}}), QK_FAILURE);
}

TEST_F(Vsi, AListRefusesNullAndEndlessGrowth) {
  EXPECT_EQ(VSI_ParamListAddString(nullptr, "x"), QK_BAD_PARAM);
  EXPECT_EQ(VSI_ParamListAddInt(nullptr, 1), QK_BAD_PARAM);
  const List list = strings({});
  EXPECT_EQ(VSI_ParamListAddString(list.get(), nullptr), QK_BAD_PARAM);
  QK_ReturnStatus status = QK_OK;
  for (int i = 0; i < 1000 && status == QK_OK; ++i) status = VSI_ParamListAddInt(list.get(), i);
  EXPECT_EQ(status, QK_BAD_PARAM);
}

TEST_F(Vsi, SettingAnOptionStoresItAndGettingReadsItBack) {
  const List name = strings({"Misc", "KelAsyncEnable"});
  EXPECT_EQ(VSI_Set(VSI_NODE_config_intOpts, name.get(), integers({1}).get()), QK_OK);
  EXPECT_THAT(model_.actions(), ElementsAre(R"({"action":"option.set","option":"Misc/KelAsyncEnable","value":1})"));
  EXPECT_EQ(platform::readOption("Misc/KelAsyncEnable").value.origin, "stored");
  VSI_IntOption option{};
  EXPECT_EQ(VSI_Get(VSI_NODE_config_intOpts, name.get(), &option, sizeof option), QK_OK);
  EXPECT_EQ(option.value, 1);
}

TEST_F(Vsi, AnOptionsValueIsTheWordAtByte24) {
  model_.write(R"({"options": {"PageRetire/PageErrorCorrThreshold": 305419896}})");
  std::array<unsigned char, sizeof(VSI_IntOption)> bytes{};
  const List name = strings({"PageRetire", "PageErrorCorrThreshold"});
  ASSERT_EQ(VSI_Get(VSI_NODE_config_intOpts, name.get(), bytes.data(), bytes.size()), QK_OK);
  std::uint32_t word = 0;
  std::memcpy(&word, bytes.data() + 24, sizeof word);
  EXPECT_EQ(word, 0x12345678U);
  std::uint64_t wide = 0;
  std::memcpy(&wide, bytes.data() + 24, sizeof wide);
  EXPECT_EQ(wide, 0x12345678U);
}

TEST_F(Vsi, AnOptionMayBeNegativeOrWide) {
  const List name = strings({"A", "b"});
  for (const std::int64_t value : {std::int64_t{-1}, std::int64_t{4294967296}}) {
    model_.write(R"({"options": {"A/b": )" + std::to_string(value) + "}}");
    VSI_IntOption option{};
    EXPECT_EQ(VSI_Get(VSI_NODE_config_intOpts, name.get(), &option, sizeof option), QK_OK);
    EXPECT_EQ(option.value, value);
  }
}

TEST_F(Vsi, AnOptionsFailureCarriesItsStatusAndLeavesTheValueAlone) {
  model_.write(R"({"failures": {"option.read:A/b": 77}})");
  const List name = strings({"A", "b"});
  VSI_IntOption option{};
  option.value = 99;
  EXPECT_EQ(VSI_Get(VSI_NODE_config_intOpts, name.get(), &option, sizeof option), QK_ERRNO_BASE + 77);
  EXPECT_EQ(option.value, 99);
}

TEST_F(Vsi, InstancesAndInputsOfAnotherFormAreRefused) {
  VSI_IntOption option{};
  const auto getOption = [&](const List& instance) {
    return VSI_Get(VSI_NODE_config_intOpts, instance.get(), &option, sizeof option);
  };
  EXPECT_EQ(getOption(nullptr), QK_BAD_PARAM);
  EXPECT_EQ(getOption(strings({"Misc"})), QK_BAD_PARAM);
  EXPECT_EQ(getOption(strings({"Misc", "KelAsyncEnable", "x"})), QK_BAD_PARAM);
  EXPECT_EQ(getOption(integers({1, 2})), QK_BAD_PARAM);
  const List name = strings({"Misc", "KelAsyncEnable"});
  EXPECT_EQ(VSI_Get(VSI_NODE_config_intOpts, name.get(), &option, sizeof option - 1), QK_BAD_PARAM);
  EXPECT_EQ(VSI_Get(VSI_NODE_config_intOpts, name.get(), nullptr, sizeof option), QK_BAD_PARAM);
  EXPECT_EQ(VSI_Set(VSI_NODE_config_intOpts, name.get(), nullptr), QK_BAD_PARAM);
  EXPECT_EQ(VSI_Set(VSI_NODE_config_intOpts, name.get(), integers({1, 2}).get()), QK_BAD_PARAM);
  EXPECT_EQ(VSI_Set(VSI_NODE_config_intOpts, name.get(), strings({"1"}).get()), QK_BAD_PARAM);
  EXPECT_EQ(VSI_Set(VSI_NODE_net_pNics_linkFlapping, strings({}).get(), integers({1}).get()), QK_BAD_PARAM);
  EXPECT_EQ(VSI_Set(VSI_NODE_net_pNics_linkFlapping, strings({"vmnic0"}).get(), integers({0}).get()), QK_BAD_PARAM);
  EXPECT_THAT(model_.actions(), IsEmpty());
}

TEST_F(Vsi, ANodeThatCannotBeReadOrSetSaysSo) {
  char byte = 0;
  EXPECT_EQ(VSI_Get(VSI_NODE_net_pNics_linkFlapping, nullptr, &byte, 1), QK_NOT_SUPPORTED);
  EXPECT_EQ(VSI_Set(VSI_NODE_system_systemUuid, nullptr, nullptr), QK_NOT_SUPPORTED);
}

TEST_F(Vsi, TheSystemUuidIs56BytesAsTheyAre) {
  std::string digits;
  for (int i = 0; i < 56; ++i) digits += i % 2 == 0 ? "0a" : "F0";
  model_.write(R"({"system": {"uuid": ")" + digits + R"("}})");
  std::array<char, VSI_SYSTEM_UUID_SIZE> uuid{};
  EXPECT_EQ(VSI_Get(VSI_NODE_system_systemUuid, nullptr, uuid.data(), uuid.size()), QK_OK);
  for (std::size_t i = 0; i < uuid.size(); ++i) EXPECT_EQ(uuid[i], i % 2 == 0 ? '\x0a' : '\xf0');
  EXPECT_EQ(VSI_Get(VSI_NODE_system_systemUuid, nullptr, uuid.data(), 38), QK_BAD_PARAM);
}

TEST_F(Vsi, AUuidThatCannotBeReadLeavesTheBufferAlone) {
  model_.write(R"({"failures": {"uuid.read": 5}})");
  std::array<char, VSI_SYSTEM_UUID_SIZE> uuid{};
  uuid.fill('x');
  EXPECT_EQ(VSI_Get(VSI_NODE_system_systemUuid, nullptr, uuid.data(), uuid.size()), QK_ERRNO_BASE + 5);
  EXPECT_THAT(uuid, ::testing::Each('x'));
}

TEST_F(Vsi, LinkFlappingTakesTheNicDown) {
  EXPECT_EQ(VSI_Set(VSI_NODE_net_pNics_linkFlapping, strings({"vmnic0"}).get(), integers({1}).get()), QK_OK);
  EXPECT_THAT(model_.actions(), ElementsAre(R"({"action":"nic.down","nic":"vmnic0"})"));
  model_.write(R"({"failures": {"nic.down": 19}})");
  EXPECT_EQ(VSI_Set(VSI_NODE_net_pNics_linkFlapping, strings({"vmnic0"}).get(), integers({1}).get()),
            QK_ERRNO_BASE + 19);
  EXPECT_EQ(model_.actions().size(), 1U);
}

TEST_F(Vsi, AMonitorGroupHasItsVmsName) {
  model_.write(R"({"vms": [{"worldId": 4711, "groupId": 12, "name": "web01"}]})");
  VSI_VmmGroupInfo info{};
  ASSERT_EQ(VSI_Get(VSI_NODE_vm_vmmGroupInfo, integers({12}).get(), &info, sizeof info), QK_OK);
  EXPECT_STREQ(info.displayName, "web01");
  EXPECT_EQ(info.groupId, 12U);
  EXPECT_EQ(VSI_Get(VSI_NODE_vm_vmmGroupInfo, integers({13}).get(), &info, sizeof info), QK_ERRNO_BASE + ESRCH);
  EXPECT_EQ(VSI_Get(VSI_NODE_vm_vmmGroupInfo, integers({12}).get(), &info, sizeof info - 1), QK_BAD_PARAM);
  EXPECT_EQ(VSI_Get(VSI_NODE_vm_vmmGroupInfo, nullptr, &info, sizeof info), QK_BAD_PARAM);
}

TEST_F(Vsi, ALongVmNameIsCutBetweenCharacters) {
  model_.write(R"({"vms": [{"groupId": 1, "name": "x)" + std::string(126, 'y') + R"("},
                           {"groupId": 2, "name": ")" +
               std::string(126, 'y') +
               "\xC3\xA9"
               R"("}]})");
  VSI_VmmGroupInfo info{};
  ASSERT_EQ(VSI_Get(VSI_NODE_vm_vmmGroupInfo, integers({1}).get(), &info, sizeof info), QK_OK);
  EXPECT_EQ(std::string(info.displayName), "x" + std::string(126, 'y'));
  ASSERT_EQ(VSI_Get(VSI_NODE_vm_vmmGroupInfo, integers({2}).get(), &info, sizeof info), QK_OK);
  EXPECT_EQ(std::string(info.displayName), std::string(126, 'y'));
}

TEST_F(Vsi, TheSignatureOfThisBuildIsAccepted) {
  model_.write(R"({"build": {"kernel": "a kernel's build text that is long"}})");
  std::array<char, 21> build{};
  const char* own = nullptr;
  EXPECT_EQ(VSI_CheckSig(build.data(), build.size(), &own), 0);
  EXPECT_STREQ(build.data(), "a kernel's build tex");
  EXPECT_STREQ(own, PLATFORM_INTERFACE_SIGNATURE);
}

TEST_F(Vsi, AnotherBuildIsRefusedAndStillNamed) {
  model_.write(R"({"build": {"matches": false, "kernel": "build 17"}})");
  std::array<char, 21> build{};
  const char* own = nullptr;
  EXPECT_NE(VSI_CheckSig(build.data(), build.size(), &own), 0);
  EXPECT_STREQ(build.data(), "build 17");
  EXPECT_STREQ(own, PLATFORM_INTERFACE_SIGNATURE);
}

TEST_F(Vsi, AnotherInterfaceIsRefused) {
  std::array<char, 21> build{};
  const char* own = nullptr;
  EXPECT_NE(VSI_CheckSignature("another interface", build.data(), build.size(), &own), 0);
  EXPECT_STREQ(own, "another interface");
  EXPECT_NE(VSI_CheckSignature(nullptr, nullptr, 0, nullptr), 0);
}

}  // namespace
