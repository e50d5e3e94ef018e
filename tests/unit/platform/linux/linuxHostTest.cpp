#include "linux/linuxHost.h"

#include <gmock/gmock.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>

#include "fakeNetlink.h"
#include "linkMessages.h"

namespace linktest {
namespace {

using nlohmann::json;
using platform::LinuxRoots;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr const char* kFirmwareUuid = "4C4C4544-0042-3510-8054-B4C04F4D3332\n";
constexpr const char* kMachineId = "0123456789abcdef0123456789abcdef\n";
const Device kBridge{.index = 9, .name = "br0", .kind = "bridge"};
const Device kNic0{.index = 1, .name = "nic0", .master = 9};
const Device kNic1{.index = 2, .name = "nic1", .master = 9};

class LinuxHostTest : public testing::Test {
 public:
  LinuxHostTest() {
    std::string pattern = (std::filesystem::temp_directory_path() / "linuxHost-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp");
    directory_ = pattern;
    ::setenv("KORVEL_CONF_DIR", (directory_ + "/conf").c_str(), 1);
    ::setenv("KORVEL_STATE_DIR", (directory_ + "/state").c_str(), 1);
    host_ = platform::makeLinuxHost(LinuxRoots{.sys = directory_ + "/sys",
                                               .proc = directory_ + "/proc",
                                               .etc = directory_ + "/etc",
                                               .dev = directory_ + "/dev",
                                               .run = directory_ + "/run"},
                                    netlink_);
  }
  ~LinuxHostTest() override {
    ::unsetenv("KORVEL_CONF_DIR");
    ::unsetenv("KORVEL_STATE_DIR");
    std::filesystem::remove_all(directory_);
  }

 protected:
  void write(const std::string& name, const std::string& text) const {
    const std::filesystem::path path = directory_ + "/" + name;
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path) << text;
  }

  [[nodiscard]] std::vector<json> audit() const {
    std::vector<json> records;
    std::ifstream file(directory_ + "/state/audit.jsonl");
    for (std::string line; std::getline(file, line);) records.push_back(json::parse(line));
    return records;
  }

  void answerLinks() { netlink_->answer({dumpPart({kNic0, kNic1, kBridge}), dumpEnd()}); }

  std::string directory_;
  std::shared_ptr<FakeNetlink> netlink_ = std::make_shared<FakeNetlink>();
  std::unique_ptr<platform::Host> host_;
};

TEST_F(LinuxHostTest, IsThisMachine) {
  utsname facts{};
  ASSERT_EQ(::uname(&facts), 0);
  EXPECT_EQ(host_->describe(), "linux");
  EXPECT_TRUE(host_->buildMatches());
  EXPECT_THAT(host_->kernelBuild(), HasSubstr(facts.release));
  EXPECT_THAT(host_->kernelBuild(), HasSubstr(facts.version));
  EXPECT_TRUE(host_->storeTrouble("store.create").ok());
  EXPECT_FALSE(host_->optionValue("Net/LinkFlappingThreshold").value.has_value());
}

TEST_F(LinuxHostTest, NamesTheMachineByItsFirmware) {
  write("sys/class/dmi/id/product_uuid", kFirmwareUuid);
  write("etc/machine-id", kMachineId);
  const auto uuid = host_->systemUuid();
  ASSERT_TRUE(uuid.ok());
  ASSERT_EQ(uuid.value.size(), 56U);
  EXPECT_EQ(uuid.value.substr(0, 6), "\x4c\x4c\x45\x44" + std::string(1, '\0') + "\x42");
  EXPECT_EQ(uuid.value.substr(16, 36), "4c4c4544-0042-3510-8054-b4c04f4d3332");
  EXPECT_EQ(uuid.value.substr(52), std::string(4, '\0'));
}

TEST_F(LinuxHostTest, NamesTheMachineByItsInstallationWhereTheFirmwareIsSilentOrSaysNothing) {
  write("etc/machine-id", kMachineId);
  EXPECT_EQ(host_->systemUuid().value.substr(16, 36), "01234567-89ab-cdef-0123-456789abcdef");
  for (const char* const nothing : {"00000000-0000-0000-0000-000000000000\n", "FFFFFFFF-FFFF-FFFF-FFFF-FFFFFFFFFFFF\n",
                                    "Not Settable\n", "", "4c4c4544-0042\n"}) {
    write("sys/class/dmi/id/product_uuid", nothing);
    EXPECT_EQ(host_->systemUuid().value.substr(16, 36), "01234567-89ab-cdef-0123-456789abcdef") << nothing;
  }
}

TEST_F(LinuxHostTest, CannotNameAMachineWithoutEither) {
  EXPECT_EQ(host_->systemUuid().outcome.status, ENOENT);
  write("etc/machine-id", "uninitialized\n");
  EXPECT_EQ(host_->systemUuid().outcome.status, ENOENT);
}

TEST_F(LinuxHostTest, FeedsTheLinksContextAlone) {
  answerLinks();
  for (std::uint32_t number = 0; number < 24; ++number) {
    const auto channel = host_->openChannel(number);
    EXPECT_TRUE(channel.ok());
    EXPECT_EQ(channel.value != nullptr, number == 1) << number;
  }
}

TEST_F(LinuxHostTest, AsksTheKernelForPortGroupsEachTime) {
  write("conf/platform.conf", "portGroup Production = br0\n");
  answerLinks();
  const auto group = host_->portGroup("Production");
  ASSERT_TRUE(group.ok());
  EXPECT_EQ(group.value.virtualSwitch, "br0");
  EXPECT_THAT(group.value.uplinks, ElementsAre("nic0", "nic1"));
  netlink_->answer({dumpPart({kNic1, kBridge}), dumpEnd()});
  const auto groups = host_->portGroups();
  ASSERT_THAT(groups.value, SizeIs(1));
  EXPECT_THAT(groups.value[0].uplinks, ElementsAre("nic1"));
}

TEST_F(LinuxHostTest, FailsForAPortGroupThatIsNotThereAndWhereTheKernelFails) {
  answerLinks();
  EXPECT_EQ(host_->portGroup("Production").outcome.status, ENOENT);
  netlink_->answer({acknowledgement(ENOMEM)});
  EXPECT_EQ(host_->portGroup("br0").outcome.status, ENOMEM);
  netlink_->refusal = EAFNOSUPPORT;
  EXPECT_EQ(host_->portGroups().outcome.status, EAFNOSUPPORT);
}

TEST_F(LinuxHostTest, SaysWhatTheMachineLacks) {
  const auto lacks = [](const platform::Outcome& outcome) {
    EXPECT_EQ(outcome.status, ENOTSUP);
    EXPECT_THAT(outcome.text, testing::StartsWith("not available: "));
  };
  lacks(host_->storagePaths().outcome);
  lacks(host_->storageDevices().outcome);
  lacks(host_->deviceOfPath("sda").outcome);
  lacks(host_->storageDevice("sda").outcome);
  lacks(host_->volumeOfPartition("sda", 1).outcome);
  lacks(host_->openVolumes());
  lacks(host_->datastorePath("/a/b").outcome);
  lacks(host_->vms().outcome);
  lacks(host_->vmName(12).outcome);
  lacks(host_->vmNameOfGroup(12).outcome);
  lacks(host_->vmByWorldId(12).outcome);
  lacks(host_->cpuVendor().outcome);
  lacks(host_->cpuCounts().outcome);
  lacks(host_->cpuOfflineEnabled().outcome);
  lacks(host_->pageStatus(1).outcome);
  lacks(host_->pageRetire(1, 1, "NiceRetire"));
  lacks(host_->swapReconfigure());
  EXPECT_EQ(host_->cpuOffline(0).status, ENODEV);
  lacks(host_->vmKill(12));
  EXPECT_THAT(audit(), IsEmpty());
}

TEST_F(LinuxHostTest, KillsNoRealProcessThatARecordedTreeNumbers) {
  const std::string self = std::to_string(::getpid());
  write("proc/" + self + "/comm", "qemu-system-x86\n");
  write("proc/" + self + "/cmdline", std::string("qemu-system-x86_64\0-name\0web01\0", 32));
  ASSERT_EQ(host_->vmName(::getpid()).value, "web01");
  EXPECT_EQ(host_->vmNameOfGroup(::getpid()).value, "web01");
  EXPECT_EQ(host_->vmKill(::getpid()).status, ENOTSUP);
  EXPECT_THAT(audit(), IsEmpty());
}

TEST_F(LinuxHostTest, PlansWithoutDoingOrRecording) {
  write("sys/devices/system/cpu/cpu1/online", "1\n");
  write("sys/devices/system/cpu/online", "0-1\n");
  write("sys/devices/system/memory/soft_offline_page", "");
  answerLinks();
  EXPECT_EQ(host_->plan(platform::NicDown{"nic1"}).value, "set NIC nic1 (link 2) down through rtnetlink");
  EXPECT_EQ(host_->plan(platform::CpuOffline{1}).value,
            "write \"0\" to " + directory_ + "/sys/devices/system/cpu/cpu1/online");
  EXPECT_EQ(host_->plan(platform::PageRetire{0x1234, 1, "NiceRetire"}).value,
            "write \"0x1234000\" to " + directory_ + "/sys/devices/system/memory/soft_offline_page");
  answerLinks();
  EXPECT_EQ(host_->plan(platform::NicDown{"br0"}).outcome.status, EINVAL);
  EXPECT_EQ(host_->plan(platform::VmKill{12}).outcome.status, ENOTSUP);
  EXPECT_EQ(host_->plan(platform::SwapReconfigure{}).outcome.status, ENOTSUP);
  EXPECT_THAT(audit(), IsEmpty());
  EXPECT_THAT(netlink_->requests, SizeIs(2)) << "questions alone";
}

TEST_F(LinuxHostTest, RecordsASetOption) {
  host_->optionWasSet("Net/LinkFlappingThreshold", 3);
  const auto records = audit();
  ASSERT_THAT(records, SizeIs(1));
  EXPECT_EQ(records[0].at("record"), "option.set");
  EXPECT_EQ(records[0].at("text"), "Net/LinkFlappingThreshold = 3");
}

TEST_F(LinuxHostTest, RecordsThatANicIsTakenDownAndTakesItDown) {
  answerLinks();
  netlink_->answer({acknowledgement(0)});
  EXPECT_TRUE(host_->nicDown("nic1").ok());
  const auto records = audit();
  ASSERT_THAT(records, SizeIs(1));
  EXPECT_EQ(records[0].at("record"), "nic.down");
  EXPECT_EQ(records[0].at("text"), "NIC nic1 is taken down because its link is flapping");
  ASSERT_THAT(netlink_->requests, SizeIs(2));
  EXPECT_EQ(netlink_->requests[1].at(20), 2) << "the index";
}

TEST_F(LinuxHostTest, ReturnsTheKernelsRefusalToTakeANicDown) {
  answerLinks();
  netlink_->answer({acknowledgement(EPERM)});
  const auto outcome = host_->nicDown("nic1");
  EXPECT_EQ(outcome.status, EPERM);
  EXPECT_THAT(outcome.text, HasSubstr("nic1"));
}

TEST_F(LinuxHostTest, TakesNothingDownThatIsNoNic) {
  answerLinks();
  auto outcome = host_->nicDown("nic7");
  EXPECT_EQ(outcome.status, ENODEV);
  EXPECT_THAT(outcome.text, HasSubstr("nic7"));
  answerLinks();
  outcome = host_->nicDown("br0");
  EXPECT_EQ(outcome.status, EINVAL);
  EXPECT_EQ(outcome.text, "br0 is no NIC: a bridge");
  write("conf/platform.conf", "nics.exclude = nic*\n");
  answerLinks();
  EXPECT_EQ(host_->nicDown("nic0").status, EINVAL);
  EXPECT_THAT(audit(), IsEmpty());
  EXPECT_THAT(netlink_->requests, SizeIs(3));
}

TEST_F(LinuxHostTest, DoesNotDoWhatItCannotRecord) {
  write("state", "a file where the directory should be");
  answerLinks();
  EXPECT_EQ(host_->nicDown("nic0").status, ENOTDIR);
  EXPECT_THAT(netlink_->requests, SizeIs(1));
}

}  // namespace
}  // namespace linktest
