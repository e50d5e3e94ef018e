// The block devices of sysfs: disks, the paths and maps of multipathing, and partitions.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace platform {

/// Reads `sys`/class/block and `sys`/dev/block at each call. Names are the kernel's, such as "sda".
/// Any thread.
///
/// A *disk* is a whole block device of some hardware: no partition, and with a "device" link, which
/// loop, RAM, LVM and RAID devices lack. A *map* is a device-mapper device whose UUID begins "mpath-".
/// A *device* is a map, a disk that is no path of one, or an NVMe name space whose paths the kernel
/// itself brings together. A *path* is a disk, but for such a name space, whose paths are hidden
/// devices "nvme0c1n1".
class BlockDevices {
 public:
  explicit BlockDevices(std::string sys) : sys_(std::move(sys)) {}

  /// False where the machine shows no block devices at all.
  [[nodiscard]] bool available() const;
  [[nodiscard]] std::vector<std::string> all() const;
  [[nodiscard]] bool has(const std::string& name) const;

  /// What an operator or the kernel calls a block device: "sda", "/dev/sda", "8:0", or "2:0:0:1", the
  /// SCSI address. sysfs has "!" for a "/" in a name.
  [[nodiscard]] std::optional<std::string> find(const std::string& called) const;
  /// The block device of a number "MAJOR:MINOR".
  [[nodiscard]] std::optional<std::string> ofNumber(const std::string& number) const;
  /// "MAJOR:MINOR", empty where unknown.
  [[nodiscard]] std::string numberOf(const std::string& name) const;

  [[nodiscard]] bool isPartition(const std::string& name) const;
  [[nodiscard]] bool isDisk(const std::string& name) const;
  [[nodiscard]] bool isMap(const std::string& name) const;

  [[nodiscard]] bool isPath(const std::string& name) const;
  /// Every path and the device it leads to.
  [[nodiscard]] std::map<std::string, std::string> paths() const;
  /// The device that a disk leads to.
  [[nodiscard]] std::string deviceOf(const std::string& disk) const;
  [[nodiscard]] std::vector<std::string> pathsOf(const std::string& device) const;
  /// Whether the kernel would send requests along a path.
  [[nodiscard]] bool usable(const std::string& path) const;

  /// What a device is called: a map's name, else the kernel's.
  [[nodiscard]] std::string title(const std::string& device) const;
  /// Lasting names of a block device: the map's UUID with and without "mpath-", the world-wide name.
  [[nodiscard]] std::set<std::string> lastingNames(const std::string& name) const;
  /// Whether the device answers to the commands of a disk; a CD drive does not.
  [[nodiscard]] bool isDirectAccess(const std::string& device) const;

  /// The partitions of a device by their number; a map's are maps on it.
  [[nodiscard]] std::map<std::uint32_t, std::string> partitionsOf(const std::string& device) const;
  /// The block devices that stand upon one, directly or not: volumes, encryption, RAID.
  [[nodiscard]] std::set<std::string> upon(const std::string& name) const;

 private:
  [[nodiscard]] std::string directory(const std::string& name) const { return sys_ + "/class/block/" + name; }
  [[nodiscard]] std::string mapUuid(const std::string& name) const;

  std::string sys_;
};

}  // namespace platform
