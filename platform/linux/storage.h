// Storage paths, devices and their partitions, from sysfs.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "host/host.h"
#include "linux/blockDevices.h"
#include "linux/linuxRoots.h"
#include "linux/volumes.h"

namespace platform {

/// The storage operations of the host (host.h). What a path and a device are: blockDevices.h. Any
/// thread; nothing is kept between calls.
class Storage {
 public:
  explicit Storage(const LinuxRoots& roots) : blocks_(roots.sys), volumes_(roots) {}

  [[nodiscard]] Answer<std::string> deviceOfPath(const std::string& path) const;
  [[nodiscard]] Answer<StorageDevice> device(const std::string& name) const;
  [[nodiscard]] Answer<std::map<std::string, std::string>> paths() const;
  [[nodiscard]] Answer<std::map<std::string, StorageDevice>> devices() const;
  [[nodiscard]] Outcome openVolumes() const { return volumes_.open(); }
  [[nodiscard]] Answer<std::string> volumeOfPartition(const std::string& device, std::uint32_t number) const;
  [[nodiscard]] Answer<std::vector<MountFacts>> mounts() const { return volumes_.all(); }
  [[nodiscard]] Answer<std::string> datastorePath(const std::string& path) const {
    return volumes_.datastorePath(path);
  }
  [[nodiscard]] Answer<std::map<std::string, std::string>> datastoreForms() const { return volumes_.datastoreForms(); }

 private:
  /// The block device of a storage device by any of its names.
  [[nodiscard]] Answer<std::string> resolve(const std::string& name) const;
  [[nodiscard]] StorageDevice facts(const std::string& block) const;

  BlockDevices blocks_;
  Volumes volumes_;
};

}  // namespace platform
