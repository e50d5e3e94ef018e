// Mounted file systems as the volumes of a device's partitions, and as datastores of paths.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/host.h"
#include "linux/blockDevices.h"
#include "linux/linuxRoots.h"
#include "linux/mounts.h"

namespace platform {

/// Longest path that is looked for among the mounts.
inline constexpr std::size_t kDatastorePathBytes = 4096;

/// Reads the mounts, sysfs and udev's names at each call. Any thread.
class Volumes {
 public:
  explicit Volumes(LinuxRoots roots) : roots_(std::move(roots)), blocks_(roots_.sys) {}

  /// Whether the mounts can be read.
  [[nodiscard]] Outcome open() const { return readMounts(roots_.proc).outcome; }

  /// The volume on a partition, by the partition's block device: the label of the file system that
  /// is mounted from it or from what stands upon it, else its mount point. ENOENT where none is
  /// mounted.
  [[nodiscard]] Answer<std::string> volumeOn(const std::string& block) const;

  /// The mounts of block devices, in the order in which they were made.
  [[nodiscard]] Answer<std::vector<MountFacts>> all() const;

  /// "LABEL: PATH" of an absolute path whose file system has a label. ENOENT for any other.
  [[nodiscard]] Answer<std::string> datastorePath(const std::string& path) const;

  /// What datastorePath() says, directory by directory: "LABEL: " and what goes before the rest of the path
  /// by a mount point and a slash; an empty form where a mount without a label lies below one with a label. A
  /// mount point without a slash stands where a directory of a file system is mounted.
  [[nodiscard]] Answer<std::map<std::string, std::string>> datastoreForms() const;

  /// The label of the file system on a block device, as udev(7) found it.
  [[nodiscard]] std::optional<std::string> labelOf(const std::string& block) const;

 private:
  /// The block device that a mount is of: by its number, else by its source.
  [[nodiscard]] std::optional<std::string> blockOf(const Mount& mount) const;

  LinuxRoots roots_;
  BlockDevices blocks_;
};

}  // namespace platform
