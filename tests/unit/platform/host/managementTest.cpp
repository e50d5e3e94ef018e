// The host management library's objects for storage, virtual machines and swap, and the volume query.
#include <cerrno>
#include <cstring>
#include <memory>

#include "hostFixture.h"
#include "platform/cvfs.h"
#include "platform/hostctl.h"
#include "platform/qkctl.h"

namespace {

using HostCtl::Lib::HostCtlException;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char* kModel = R"({
  "storage": {"paths": {"path-0": "naa.1"},
              "devices": {"naa.1": {"redundancyState": 2, "disk": true,
                                    "partitions": [{"number": 1, "volume": "one"}, {"number": 2, "error": 2},
                                                   {"number": 3, "error": 5}]},
                          "naa.2": {"disk": false}}},
  "vms": [{"worldId": 4711, "groupId": 12, "name": "web01"}],
  "datastorePaths": {"/cvfs/volumes/5f/sys.swp": "datastore1: sys.swp"})";

class Management : public HostTest {
 protected:
  Management() { writeModel(""); }
  /// The model with more sections behind it.
  void writeModel(const std::string& more) { model_.write(kModel + more + "}"); }
  static HostCtl::Storage::StorageInfo storage() { return HostCtl::HostFactory::GetHost().GetStorageInfo(); }

  template <typename Call>
  static int statusOf(const Call& call) {
    try {
      call();
    } catch (const HostCtlException& thrown) {
      return thrown.status();
    }
    return 0;
  }
};

TEST_F(Management, APathLeadsToItsDevice) {
  const auto path = storage().GetPath("path-0");
  ASSERT_NE(path, nullptr);
  EXPECT_EQ(path->GetDeviceName(), "naa.1");
  EXPECT_EQ(storage().GetPath("path-9"), nullptr);
}

TEST_F(Management, ADeviceTellsTheStateOfItsPaths) {
  const auto device = storage().GetDevice("naa.1", 1);
  ASSERT_NE(device, nullptr);
  EXPECT_EQ(device->GetPathRedundancyState(), 2U);
  EXPECT_EQ(storage().GetDevice("naa.9", 1), nullptr);
  EXPECT_EQ(storage().GetDevice("naa.2", 1), nullptr) << "the state of its paths is not known";
}

TEST_F(Management, OnlyADiskHasPartitions) {
  const auto disk = storage().GetLun("naa.1");
  const auto* const partitioned = dynamic_cast<const HostCtl::Storage::DiskLun*>(disk.get());
  ASSERT_NE(partitioned, nullptr);
  ASSERT_EQ(partitioned->GetPartitions().size(), 3U);
  EXPECT_EQ(partitioned->GetPartitions()[1].GetPartitionNumber(), 2U);
  const auto other = storage().GetLun("naa.2");
  ASSERT_NE(other, nullptr);
  EXPECT_EQ(dynamic_cast<const HostCtl::Storage::DiskLun*>(other.get()), nullptr);
  EXPECT_EQ(storage().GetLun("naa.9"), nullptr);
}

TEST_F(Management, ALookupThatFailsThrows) {
  writeModel(R"(, "failures": {"path.lookup": 5, "device.lookup": 7})");
  EXPECT_EQ(statusOf([] { (void)storage().GetPath("path-0"); }), 5);
  EXPECT_EQ(statusOf([] { (void)storage().GetDevice("naa.1", 1); }), 7);
  EXPECT_EQ(statusOf([] { (void)storage().GetLun("naa.1"); }), 7);
}

TEST_F(Management, APathIsShownWithItsDatastoreWhereThatIsKnown) {
  EXPECT_EQ(storage().GetDatastorePath("/cvfs/volumes/5f/sys.swp"), "datastore1: sys.swp");
  EXPECT_EQ(storage().GetDatastorePath("/other/path"), "/other/path");
  model_.write("no model");
  EXPECT_EQ(storage().GetDatastorePath("/cvfs/volumes/5f/sys.swp"), "/cvfs/volumes/5f/sys.swp");
}

TEST_F(Management, AVirtualMachineIsNamedAndKilled) {
  const auto machine = QkCtl::Resource::ResourceInfoImpl().GetVirtualMachineByWorldId(4711);
  EXPECT_EQ(machine->GetDisplayName(), "web01");
  machine->Kill(0);
  EXPECT_THAT(model_.actions(), ElementsAre(R"({"action":"vm.kill","worldId":4711,"name":"web01"})"));
  EXPECT_EQ(statusOf([] { (void)QkCtl::Resource::ResourceInfoImpl().GetVirtualMachineByWorldId(1); }), ESRCH);
  writeModel(R"(, "failures": {"vm.name": 5, "vm.kill": 7, "vm.lookup": 9})");
  EXPECT_EQ(statusOf([&] { (void)machine->GetDisplayName(); }), 5);
  EXPECT_EQ(statusOf([&] { machine->Kill(0); }), 7);
  EXPECT_EQ(statusOf([] { (void)QkCtl::Resource::ResourceInfoImpl().GetVirtualMachineByWorldId(4711); }), 9);
}

TEST_F(Management, SwapIsReconfiguredOrTheReasonIsTold) {
  QkCtl::System::SwapInfoImpl().ReconfigureSysSwap(0, 0);
  EXPECT_THAT(model_.actions(), ElementsAre(R"({"action":"swap.reconfigure"})"));
  writeModel(R"(, "failures": {"swap.reconfigure": "no room for swap"})");
  try {
    QkCtl::System::SwapInfoImpl().ReconfigureSysSwap(0, 0);
    FAIL();
  } catch (const HostCtlException& thrown) {
    EXPECT_EQ(thrown.GetDetailedMessage(), "no room for swap");
  }
}

class VolumeQuery : public Management {
 protected:
  static int ask(const std::string& request, std::string* volume = nullptr, unsigned control = 3038) {
    CVFS_Directory* directory = nullptr;
    EXPECT_EQ(CVFS_Open("/cvfs/volumes/", &directory), 0);
    CVFS_VolumeQuery query{};
    std::memcpy(query.request, request.data(), std::min(request.size(), sizeof query.request));
    const int status = CVFS_Control(directory, control, &query);
    if (volume != nullptr) *volume = query.volume;
    CVFS_Close(directory);
    return status;
  }
};

TEST_F(VolumeQuery, NamesTheVolumeOnAPartition) {
  std::string volume;
  EXPECT_EQ(ask("naa.1:1", &volume), 0);
  EXPECT_EQ(volume, "one");
  EXPECT_EQ(ask("naa.1:2"), ENOENT);
  EXPECT_EQ(ask("naa.1:3"), 5);
  EXPECT_EQ(ask("naa.1:4"), ENOENT);
  EXPECT_EQ(ask("naa.9:1"), ENOENT);
}

TEST_F(VolumeQuery, RefusesWhatIsNoRequest) {
  EXPECT_EQ(ask("naa.1"), EINVAL);
  EXPECT_EQ(ask("naa.1:"), EINVAL);
  EXPECT_EQ(ask("naa.1:x"), EINVAL);
  EXPECT_EQ(ask("naa.1:-1"), EINVAL);
  EXPECT_EQ(ask(std::string(128, 'a')), EINVAL);
  EXPECT_EQ(ask("naa.1:1", nullptr, 3039), ENOTTY);
  EXPECT_EQ(CVFS_Control(nullptr, 3038, nullptr), EBADF);
}

TEST_F(VolumeQuery, ADeviceNameMayHoldColons) {
  model_.write(R"({"storage": {"devices": {"t10:a:1": {"partitions": [{"number": 2, "volume": "two"}]}}}})");
  std::string volume;
  EXPECT_EQ(ask("t10:a:1:2", &volume), 0);
  EXPECT_EQ(volume, "two");
}

TEST_F(VolumeQuery, FailsWhereVolumesCannotBeAskedFor) {
  CVFS_Directory* directory = nullptr;
  EXPECT_EQ(CVFS_Open("/elsewhere/", &directory), ENOENT);
  writeModel(R"(, "failures": {"volumes.open": 13})");
  EXPECT_EQ(CVFS_Open("/cvfs/volumes/", &directory), 13);
  EXPECT_EQ(directory, nullptr);
  CVFS_Close(nullptr);
}

}  // namespace
