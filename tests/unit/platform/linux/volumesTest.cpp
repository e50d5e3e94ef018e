#include "linux/volumes.h"

#include <cerrno>

#include "hostTree.h"
#include "linux/storage.h"

namespace linktest {
namespace {

using platform::Storage;

class VolumesTest : public HostTree {
 public:
  VolumesTest() {
    scsiDisk("sda", "8:0", "2:0:0:1");
    partition("sda", "sda1", "8:1", 1);
    partition("sda", "sda2", "8:2", 2);
  }

 protected:
  [[nodiscard]] platform::Answer<std::string> volume(std::uint32_t number) const {
    return Storage(roots()).volumeOfPartition("sda", number);
  }
  [[nodiscard]] platform::Answer<std::string> datastore(const std::string& name) const {
    return Storage(roots()).datastorePath(name);
  }
};

TEST_F(VolumesTest, TheVolumeOfAPartitionIsItsFileSystemsLabel) {
  mounts({"8:2 / /srv/a /dev/sda2", "8:1 / /data /dev/sda1"});
  link("dev/disk/by-label/datastore1", "dev/sda1");
  EXPECT_EQ(volume(1).value, "datastore1");
}

TEST_F(VolumesTest, WithoutALabelTheVolumeIsTheMountPoint) {
  mounts({"8:1 / /my\\040data /dev/sda1"});
  EXPECT_EQ(volume(1).value, "/my data");
}

TEST_F(VolumesTest, UdevsRecordOfTheDeviceGoesBeforeTheLinks) {
  mounts({"8:1 / /data /dev/sda1"});
  link("dev/disk/by-label/stale", "dev/sda1");
  write("run/udev/data/b8:1", "S:disk/by-label/x\nE:ID_FS_LABEL=my_data\nE:ID_FS_LABEL_ENC=my\\x20data\n");
  EXPECT_EQ(volume(1).value, "my data");
  write("run/udev/data/b8:1", "E:ID_FS_LABEL=my_data\n");
  EXPECT_EQ(volume(1).value, "my_data");
  write("run/udev/data/b8:1", "E:ID_FS_LABEL=\nE:ID_FS_TYPE=ext4\n");
  EXPECT_EQ(volume(1).value, "stale");
}

TEST_F(VolumesTest, EscapesOfALinksNameAreDecoded) {
  mounts({"8:1 / /data /dev/sda1"});
  link("dev/disk/by-label/my\\x20data\\x2f1", "dev/sda1");
  EXPECT_EQ(volume(1).value, "my data/1");
}

TEST_F(VolumesTest, ALabelThatWouldBreakALineIsMadeHarmless) {
  mounts({"8:1 / /data /dev/sda1"});
  write("run/udev/data/b8:1", "E:ID_FS_LABEL_ENC=a\\x0ab\\x1b\n");
  EXPECT_EQ(volume(1).value, "a?b?");
  write("run/udev/data/b8:1", "E:ID_FS_LABEL_ENC=" + std::string(100'000, 'x') + "\n");
  EXPECT_EQ(volume(1).value.size(), 255U);
}

TEST_F(VolumesTest, MountsOfBlockDevicesAreListedWithTheirLabels) {
  mounts({"8:1 / /my\\040data /dev/sda1", "0:21 / /proc proc", "8:2 / /srv /dev/sda2"});
  link("dev/disk/by-label/datastore1", "dev/sda2");
  const auto all = Storage(roots()).mounts();
  ASSERT_EQ(all.value.size(), 2U);
  EXPECT_EQ(all.value[0].point, "/my data");
  EXPECT_EQ(all.value[0].device, "sda1");
  EXPECT_EQ(all.value[0].label, "");
  EXPECT_EQ(all.value[1].point, "/srv");
  EXPECT_EQ(all.value[1].label, "datastore1");
}

TEST_F(VolumesTest, WhatIsNotMountedHasNoVolume) {
  mounts({"8:1 / /data /dev/sda1"});
  link("dev/disk/by-label/swap", "dev/sda2");
  EXPECT_EQ(volume(2).outcome.status, ENOENT);
  EXPECT_EQ(volume(2).outcome.text, "no file system of sda2 is mounted");
  EXPECT_EQ(volume(3).outcome.status, ENOENT);
  EXPECT_EQ(volume(0).outcome.status, ENOENT);
}

TEST_F(VolumesTest, WithoutMountsEveryQuestionFailsWithTheReason) {
  EXPECT_EQ(Storage(roots()).openVolumes().status, ENOTSUP);
  EXPECT_EQ(volume(1).outcome.status, ENOTSUP);
  EXPECT_EQ(datastore("/data/a").outcome.status, ENOTSUP);
  EXPECT_EQ(Storage(roots()).datastoreForms().outcome.status, ENOTSUP);
  mounts({});
  EXPECT_TRUE(Storage(roots()).openVolumes().ok());
}

TEST_F(VolumesTest, WhatStandsUponAPartitionIsItsVolume) {
  deviceMapper("dm-0", "253:0", "luks", "CRYPT-LUKS2-abc", {"sda1"});
  deviceMapper("dm-1", "253:1", "vg-data", "LVM-abc", {"dm-0"});
  mounts({"253:1 / /data /dev/mapper/vg-data"});
  link("dev/disk/by-label/datastore1", "dev/dm-1");
  EXPECT_EQ(volume(1).value, "datastore1");
  EXPECT_EQ(volume(2).outcome.status, ENOENT);
}

TEST_F(VolumesTest, AMapsPartitionIsAskedForByTheMapsName) {
  const std::string uuid = "mpath-36005";
  deviceMapper("dm-0", "253:0", "mpatha", uuid, {"sda"});
  deviceMapper("dm-1", "253:1", "mpatha-part1", "part1-" + uuid, {"dm-0"});
  mounts({"253:1 / /data /dev/mapper/mpatha-part1"});
  write("run/udev/data/b253:1", "E:ID_FS_LABEL=datastore1\n");
  EXPECT_EQ(Storage(roots()).volumeOfPartition("mpatha", 1).value, "datastore1");
}

TEST_F(VolumesTest, WholeFileSystemsGoBeforeDirectoriesOfThem) {
  mounts({"8:1 /sub /bound /dev/sda1", "8:1 / /data /dev/sda1", "8:1 / /again /dev/sda1"});
  EXPECT_EQ(volume(1).value, "/data");
  mounts({"8:1 /sub /bound /dev/sda1"});
  EXPECT_EQ(volume(1).value, "/bound");
}

TEST_F(VolumesTest, AFileSystemWithANumberOfItsOwnIsFoundByItsSource) {
  mounts({"0:35 / /pool /dev/sda2 btrfs", "0:36 / /lv /dev/mapper/vg-x bcachefs", "0:37 / /tmp tmpfs tmpfs"});
  EXPECT_EQ(volume(2).value, "/pool");
  deviceMapper("dm-0", "253:0", "vg-x", "LVM-abc", {"sda1"});
  link("dev/mapper/vg-x", "dev/dm-0");
  EXPECT_EQ(volume(1).value, "/lv");
}

TEST_F(VolumesTest, ASourceThatAnybodyMayWriteIsNoDevice) {
  mounts({"0:50 / /home/mallory/m /dev/sda1 fuse.sshfs", "0:51 / /ram /dev/sda1 tmpfs",
          "0:52 / /up /dev/mapper/../sda1 btrfs"});
  link("dev/sda1", "dev/block/sda1");
  write("run/udev/data/b8:1", "E:ID_FS_LABEL=datastore1\n");
  EXPECT_EQ(volume(1).outcome.status, ENOENT);
  for (const char* const name : {"/home/mallory/m/a", "/ram/a", "/up/a"}) {
    EXPECT_EQ(datastore(name).outcome.status, ENOENT) << name;
  }
  EXPECT_TRUE(Storage(roots()).mounts().value.empty());
}

TEST_F(VolumesTest, ADatastorePathNamesTheLabelAndTheRest) {
  mounts({"8:2 / / /dev/sda2", "8:1 / /cvfs/volumes/5f /dev/sda1"});
  write("run/udev/data/b8:1", "E:ID_FS_LABEL=datastore1\n");
  EXPECT_EQ(datastore("/cvfs/volumes/5f/sys.swp").value, "datastore1: sys.swp");
  EXPECT_EQ(datastore("/cvfs/volumes/5f/a/b c").value, "datastore1: a/b c");
  EXPECT_EQ(datastore("/cvfs/volumes/5f").outcome.status, ENOENT) << "names nothing on the datastore";
  EXPECT_EQ(datastore("/cvfs/volumes/5fa").outcome.status, ENOENT) << "the root's file system has no label";
}

TEST_F(VolumesTest, APathOnADirectoryMountedElsewhereIsNamedFromItsFileSystem) {
  mounts({"8:1 /vm/swap /swap /dev/sda1"});
  write("run/udev/data/b8:1", "E:ID_FS_LABEL=datastore1\n");
  EXPECT_EQ(datastore("/swap/sys.swp").value, "datastore1: vm/swap/sys.swp");
}

TEST_F(VolumesTest, OnlyPlainAbsolutePathsAreLookedFor) {
  mounts({"8:1 / / /dev/sda1"});
  write("run/udev/data/b8:1", "E:ID_FS_LABEL=datastore1\n");
  EXPECT_EQ(datastore("/a").value, "datastore1: a");
  for (const std::string& name : {std::string(""), std::string("a"), std::string("/"), std::string("/a/../b"),
                                  std::string("/a/./b"), std::string("/.."), std::string("//a"), std::string("/a//b"),
                                  std::string("/a\0b", 4), "/" + std::string(5000, 'x')}) {
    EXPECT_EQ(datastore(name).outcome.status, ENOENT) << name.substr(0, 20);
  }
}

TEST_F(VolumesTest, TheFormsOfPathsAreListedByMount) {
  mounts({"8:2 / / /dev/sda2", "8:1 / /data /dev/sda1", "8:1 /vm/swap /data/swap /dev/sda1", "0:31 / /data/tmp tmpfs",
          "0:32 / /proc proc"});
  write("run/udev/data/b8:1", "E:ID_FS_LABEL=datastore1\n");
  const auto forms = Storage(roots()).datastoreForms();
  ASSERT_TRUE(forms.ok());
  EXPECT_THAT(
      forms.value,
      testing::ElementsAre(testing::Pair("/data/", "datastore1: "), testing::Pair("/data/swap", "datastore1: vm/swap"),
                           testing::Pair("/data/swap/", "datastore1: vm/swap/"), testing::Pair("/data/tmp/", "")));
  EXPECT_EQ(datastore("/data/swap").value, "datastore1: vm/swap");
}

TEST_F(VolumesTest, AMountOverAnotherHasItsForm) {
  mounts({"8:1 /vm /data /dev/sda1", "8:2 / /data /dev/sda2"});
  write("run/udev/data/b8:1", "E:ID_FS_LABEL=datastore1\n");
  EXPECT_TRUE(Storage(roots()).datastoreForms().value.empty());
  write("run/udev/data/b8:2", "E:ID_FS_LABEL=datastore2\n");
  EXPECT_THAT(Storage(roots()).datastoreForms().value, testing::ElementsAre(testing::Pair("/data/", "datastore2: ")));
}

TEST_F(VolumesTest, AFileSystemOfNoDeviceIsNoDatastore) {
  mounts({"0:30 / /net server:/export", "0:31 / /tmp tmpfs", "0:32 / /odd /dev/../../etc btrfs"});
  for (const char* const name : {"/net/a", "/tmp/a", "/odd/a"}) EXPECT_EQ(datastore(name).outcome.status, ENOENT);
}

}  // namespace
}  // namespace linktest
