#include "linux/storage.h"

#include <cerrno>
#include <filesystem>

#include "hostTree.h"

namespace linktest {
namespace {

using platform::Storage;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

constexpr const char* kMapUuid = "mpath-3600508b400105e210000900000490000";

class StorageTest : public HostTree {
 protected:
  [[nodiscard]] Storage storage() const { return Storage(roots()); }
  [[nodiscard]] std::int64_t redundancy(const std::string& device) const {
    const auto facts = storage().device(device);
    return facts.ok() ? facts.value.redundancyState.value_or(0) : -1;
  }
  /// mpatha over the disks sda, sdb, … of these states.
  void multipath(const std::vector<std::string>& states) const {
    std::vector<std::string> slaves;
    for (std::size_t i = 0; i < states.size(); ++i) {
      slaves.push_back(std::string("sd") + static_cast<char>('a' + i));
      scsiDisk(slaves.back(), "8:" + std::to_string(16 * i), "2:0:0:" + std::to_string(i), states[i]);
    }
    deviceMapper("dm-0", "253:0", "mpatha", kMapUuid, slaves);
  }
};

TEST_F(StorageTest, ADiskIsItsOwnPath) {
  scsiDisk("sda", "8:0", "2:0:0:1");
  EXPECT_EQ(storage().deviceOfPath("sda").value, "sda");
  EXPECT_THAT(storage().paths().value, ElementsAre(Pair("sda", "sda")));
  EXPECT_EQ(redundancy("sda"), 2);
  EXPECT_TRUE(storage().device("sda").value.disk);
}

TEST_F(StorageTest, APathIsFoundByItsDeviceFileItsNumberAndItsScsiAddress) {
  scsiDisk("sda", "8:0", "2:0:0:1");
  for (const char* const name : {"sda", "/dev/sda", "8:0", "2:0:0:1"}) {
    EXPECT_EQ(storage().deviceOfPath(name).value, "sda") << name;
  }
}

TEST_F(StorageTest, WhatIsNoPathIsNotFound) {
  scsiDisk("sda", "8:0", "2:0:0:1");
  partition("sda", "sda1", "8:1", 1);
  deviceMapper("dm-0", "253:0", "mpatha", kMapUuid, {"sda"});
  virtualDisk("loop0", "7:0");
  for (const std::string& name :
       {std::string("sdb"), std::string("sda1"), std::string("dm-0"), std::string("mpatha"), std::string("loop0"),
        std::string(""), std::string("."), std::string(".."), std::string("../block/sda"), std::string("/dev/"),
        std::string("9:9"), std::string("3:0:0:1"), std::string(":::"), std::string("s\0a", 3),
        std::string(100'000, 'x')}) {
    EXPECT_EQ(storage().deviceOfPath(name).outcome.status, ENOENT) << name.substr(0, 20);
  }
}

TEST_F(StorageTest, AnUnusableDiskHasNoPath) {
  for (const char* const state : {"offline", "blocked", "transport-offline", "created", ""}) {
    scsiDisk("sda", "8:0", "2:0:0:1", state);
    EXPECT_EQ(redundancy("sda"), 1) << state;
    remove("sys");
  }
}

TEST_F(StorageTest, APathThatItsArrayTakesNoRequestsOnIsNotUsable) {
  const std::pair<const char*, std::int64_t> states[] = {{"active/optimized", 2}, {"active/non-optimized", 2},
                                                         {"standby", 2},          {"unavailable", 1},
                                                         {"offline", 1},          {"lba-dependent", 2}};
  scsiDisk("sda", "8:0", "2:0:0:1");
  for (const auto& [state, redundancyState] : states) {
    write("sys/class/block/sda/device/access_state", std::string(state) + "\n");
    EXPECT_EQ(redundancy("sda"), redundancyState) << state;
  }
}

TEST_F(StorageTest, ASlashInADevicesNameIsAnExclamationMarkInSysfs) {
  disk("cciss!c0d0", "104:0", "pci0000:00/0000:00:06.0/cciss0");
  EXPECT_EQ(storage().deviceOfPath("/dev/cciss/c0d0").value, "cciss!c0d0");
  EXPECT_EQ(redundancy("cciss/c0d0"), 2);
}

TEST_F(StorageTest, APathUnderAMapLeadsToTheMap) {
  multipath({"running", "running"});
  scsiDisk("sdz", "65:144", "9:0:0:0");
  EXPECT_EQ(storage().deviceOfPath("sdb").value, "mpatha");
  EXPECT_EQ(storage().deviceOfPath("8:16").value, "mpatha");
  EXPECT_THAT(storage().paths().value, ElementsAre(Pair("sda", "mpatha"), Pair("sdb", "mpatha"), Pair("sdz", "sdz")));
  EXPECT_THAT(storage().devices().value, ElementsAre(Pair("mpatha", testing::_), Pair("sdz", testing::_)));
}

TEST_F(StorageTest, TheRedundancyOfAMapIsThatOfItsUsablePaths) {
  const std::pair<std::vector<std::string>, std::int64_t> cases[] = {
      {{}, 1},
      {{"offline"}, 1},
      {{"running"}, 2},
      {{"transport-offline", "blocked"}, 1},
      {{"running", "offline"}, 2},
      {{"running", "running"}, 3},
      {{"running", "offline", "running"}, 3},
      {{"running", "running", "running"}, 3},
  };
  for (const auto& [states, redundancyState] : cases) {
    multipath(states);
    EXPECT_EQ(redundancy("mpatha"), redundancyState) << testing::PrintToString(states);
    remove("sys");
  }
}

TEST_F(StorageTest, APathThatWentAwayUnderItsMapIsNotUsable) {
  multipath({"running", "running"});
  remove("sys/class/block/sdb");
  EXPECT_EQ(redundancy("mpatha"), 2);
}

TEST_F(StorageTest, AMapWithoutPathsIsStillADevice) {
  multipath({});
  EXPECT_THAT(storage().paths().value, IsEmpty());
  const auto devices = storage().devices();
  ASSERT_THAT(devices.value, ElementsAre(Pair("mpatha", testing::_)));
  EXPECT_EQ(devices.value.at("mpatha").redundancyState, 1);
}

TEST_F(StorageTest, ADeviceIsFoundByAllItsLastingNames) {
  multipath({"running", "running"});
  write("sys/class/block/sda/device/wwid", "naa.600508b400105e210000900000490000\n");
  write("sys/class/block/sdb/device/wwid", "naa.600508b400105e210000900000490000\n");
  for (const char* const name : {"mpatha", "dm-0", "/dev/dm-0", "253:0", kMapUuid, "3600508b400105e210000900000490000",
                                 "naa.600508b400105e210000900000490000", "sda", "sdb", "2:0:0:1"}) {
    EXPECT_EQ(redundancy(name), 3) << name;
  }
  EXPECT_EQ(storage().device("mpathb").outcome.status, ENOENT);
  EXPECT_EQ(storage().device("mpathb").outcome.text, "no storage device mpathb");
  EXPECT_EQ(storage().device("").outcome.status, ENOENT);
}

TEST_F(StorageTest, AMapGoesBeforeADiskOfTheSameName) {
  multipath({"running", "running"});
  scsiDisk("mpatha", "66:0", "9:0:0:0");
  EXPECT_EQ(redundancy("mpatha"), 3);
  EXPECT_EQ(storage().devices().value.at("mpatha").redundancyState, 3);
}

TEST_F(StorageTest, VolumesLoopAndMemoryDevicesAreNoDevices) {
  scsiDisk("sda", "8:0", "2:0:0:1");
  virtualDisk("loop0", "7:0");
  virtualDisk("zram0", "252:0");
  deviceMapper("dm-0", "253:0", "vg-data", "LVM-abcdef", {"sda"});
  EXPECT_EQ(storage().deviceOfPath("sda").value, "sda") << "a volume group is no multipath map";
  EXPECT_THAT(storage().devices().value, ElementsAre(Pair("sda", testing::_)));
  for (const char* const name : {"loop0", "zram0", "dm-0", "vg-data"}) {
    EXPECT_EQ(storage().device(name).outcome.status, ENOENT) << name;
  }
}

TEST_F(StorageTest, ADiskOfABusWithoutStatesIsThereOrNot) {
  disk("vda", "254:0", "pci0000:00/0000:00:02.0/virtio1");
  EXPECT_EQ(redundancy("vda"), 2);
  disk("mmcblk0", "179:0", "platform/mmc_host/mmc0/mmc0:0001");
  write("sys/class/block/mmcblk0/device/type", "SD\n");
  EXPECT_TRUE(storage().device("mmcblk0").value.disk);
}

TEST_F(StorageTest, ACdDriveIsNoDisk) {
  scsiDisk("sr0", "11:0", "1:0:0:0");
  write("sys/class/block/sr0/device/type", "5\n");
  EXPECT_FALSE(storage().device("sr0").value.disk);
}

TEST_F(StorageTest, AnNvmeDiskIsUsableWhileItsControllerLives) {
  disk("nvme0n1", "259:0", "pci0000:00/0000:00:04.0/nvme/nvme0");
  write("sys/class/block/nvme0n1/device/state", "live\n");
  write("sys/class/block/nvme0n1/wwid", "eui.0025385b71b07e30\n");
  EXPECT_EQ(redundancy("nvme0n1"), 2);
  EXPECT_EQ(redundancy("eui.0025385b71b07e30"), 2);
  write("sys/class/block/nvme0n1/device/state", "connecting\n");
  EXPECT_EQ(redundancy("nvme0n1"), 1);
}

TEST_F(StorageTest, TheHiddenPathsOfAnNvmeNameSpaceAreItsPaths) {
  disk("nvme1n1", "259:1", "virtual/nvme-subsystem/nvme-subsys1");
  disk("nvme1c2n1", "259:2", "virtual/nvme-fabrics/ctl/nvme2");
  disk("nvme1c3n1", "259:3", "virtual/nvme-fabrics/ctl/nvme3");
  for (const char* const path : {"nvme1c2n1", "nvme1c3n1"}) {
    write(std::string("sys/class/block/") + path + "/device/state", "live\n");
    write(std::string("sys/class/block/") + path + "/ana_state", "optimized\n");
  }
  EXPECT_THAT(storage().paths().value, ElementsAre(Pair("nvme1c2n1", "nvme1n1"), Pair("nvme1c3n1", "nvme1n1")));
  EXPECT_EQ(storage().deviceOfPath("nvme1c2n1").value, "nvme1n1");
  EXPECT_EQ(storage().deviceOfPath("nvme1n1").outcome.status, ENOENT) << "its hidden disks are the paths";
  EXPECT_EQ(redundancy("nvme1n1"), 3);
  write("sys/class/block/nvme1c2n1/ana_state", "inaccessible\n");
  EXPECT_EQ(redundancy("nvme1n1"), 2);
  write("sys/class/block/nvme1c3n1/device/state", "deleting\n");
  EXPECT_EQ(redundancy("nvme1n1"), 1);
  EXPECT_THAT(storage().devices().value, ElementsAre(Pair("nvme1n1", testing::_)));
}

TEST_F(StorageTest, PartitionsAreNumberedAsTheKernelNumbersThem) {
  scsiDisk("sda", "8:0", "2:0:0:1");
  partition("sda", "sda10", "8:10", 10);
  partition("sda", "sda2", "8:2", 2);
  write("sys/class/block/sda/sdanonsense/partition", "x\n");
  write("sys/class/block/sda/sda0/partition", "0\n");
  write("sys/class/block/sda/sdabig/partition", "4294967296\n");
  EXPECT_THAT(storage().device("sda").value.partitions, ElementsAre(2U, 10U));
}

TEST_F(StorageTest, ThePartitionsOfAMapAreTheMapsOnIt) {
  multipath({"running", "running"});
  partition("sda", "sda1", "8:1", 1);
  deviceMapper("dm-1", "253:1", "mpatha-part3", std::string("part3-") + kMapUuid, {"dm-0"});
  deviceMapper("dm-2", "253:2", "mpatha-part12", std::string("part12-") + kMapUuid, {"dm-0"});
  deviceMapper("dm-3", "253:3", "vg-data", "LVM-abcdef", {"dm-0"});
  deviceMapper("dm-4", "253:4", "odd", std::string("part-") + kMapUuid, {"dm-0"});
  EXPECT_THAT(storage().device("mpatha").value.partitions, ElementsAre(3U, 12U));
}

TEST_F(StorageTest, LinksInACircleAreNoTrap) {
  multipath({"running"});
  link("sys/class/block/dm-0/holders/sda", "sys/class/block/sda");
  link("sys/class/block/sda/slaves/dm-0", "sys/class/block/dm-0");
  link("sys/class/block/self", "sys/class/block/self");
  partition("sda", "sda1", "8:1", 1);
  mounts({});
  EXPECT_EQ(redundancy("mpatha"), 2);
  EXPECT_EQ(storage().volumeOfPartition("sda", 1).outcome.status, ENOENT);
}

TEST_F(StorageTest, AMachineWithoutBlockDevicesSaysSo) {
  for (const auto& outcome : {storage().paths().outcome, storage().devices().outcome, storage().device("sda").outcome,
                              storage().deviceOfPath("sda").outcome, storage().volumeOfPartition("sda", 1).outcome}) {
    EXPECT_EQ(outcome.status, ENOTSUP);
    EXPECT_EQ(outcome.text, "not available: sysfs shows no block devices");
  }
}

}  // namespace
}  // namespace linktest
