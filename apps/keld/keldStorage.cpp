#include "keldStorage.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <vector>

#include "keldText.h"
#include "platform/cvfs.h"
#include "platform/hostctl.h"

namespace keld {

namespace {

using HostCtl::Lib::HostCtlException;

/// The current state of a device's paths, not one that was kept.
constexpr int kCurrentPaths = 1;
/// The part of a partition's number that its volume is asked for by.
constexpr std::uint32_t kPartitionMask = 0xff;

struct CloseDirectory {
  void operator()(CVFS_Directory* directory) const noexcept { CVFS_Close(directory); }
};
using Volumes = std::unique_ptr<CVFS_Directory, CloseDirectory>;

Volumes openVolumes() {
  CVFS_Directory* directory = nullptr;
  return Volumes(CVFS_Open(CVFS_VOLUMES_DIRECTORY, &directory) == 0 ? directory : nullptr);
}

/// Empty where the device is no disk.
std::vector<HostCtl::Storage::DiskLunPartition> partitionsOf(const std::string& device) {
  const auto lun = HostCtl::HostFactory::GetHost().GetStorageInfo().GetLun(device);
  const auto* const disk = dynamic_cast<const HostCtl::Storage::DiskLun*>(lun.get());
  if (disk == nullptr) return {};
  return disk->GetPartitions();
}

/// Adds the volume on one partition to `names`. False where the query fails.
bool addVolume(const Volumes& volumes, const std::string& device, std::uint32_t partition,
               std::vector<std::string>& names) {
  CVFS_VolumeQuery query{};
  const int length = std::snprintf(query.request, sizeof query.request, "%s:%u", device.c_str(), partition);
  // Cut short, the request could name another partition.
  if (length < 0 || static_cast<std::size_t>(length) >= sizeof query.request) return false;
  const int status = CVFS_Control(volumes.get(), CVFS_QUERY_VOLUME, &query);
  if (status == ENOENT) return true;
  if (status != 0) return false;
  if (std::find(names.begin(), names.end(), query.volume) == names.end()) names.emplace_back(query.volume);
  return true;
}

}  // namespace

std::optional<std::string> deviceOfPath(const std::string& path) {
  try {
    const auto found = HostCtl::HostFactory::GetHost().GetStorageInfo().GetPath(path);
    if (found == nullptr) return std::nullopt;
    return found->GetDeviceName();
  } catch (const HostCtlException&) {
    return std::nullopt;
  }
}

std::optional<std::uint32_t> pathRedundancyState(const std::string& device) {
  try {
    const auto found = HostCtl::HostFactory::GetHost().GetStorageInfo().GetDevice(device, kCurrentPaths);
    if (found == nullptr) return std::nullopt;
    return found->GetPathRedundancyState();
  } catch (const HostCtlException&) {
    return std::nullopt;
  }
}

std::optional<std::string> GetAffectedDatastores(const std::string& device) {
  const Volumes volumes = openVolumes();
  if (volumes == nullptr) return std::nullopt;
  std::vector<std::string> names;
  try {
    for (const auto& partition : partitionsOf(device)) {
      const std::uint32_t number = partition.GetPartitionNumber() & kPartitionMask;
      if (number != 0 && !addVolume(volumes, device, number, names)) return std::nullopt;
    }
  } catch (const HostCtlException&) {
    return std::nullopt;
  }
  if (names.empty()) return std::nullopt;
  return quoteJoin(names);
}

std::string datastoreForm(const char* path) {
  return HostCtl::HostFactory::GetHost().GetStorageInfo().GetDatastorePath(path != nullptr ? path : "");
}

}  // namespace keld
