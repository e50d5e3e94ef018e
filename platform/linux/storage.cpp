#include "linux/storage.h"

#include <algorithm>
#include <cerrno>

#include "linux/kernelFiles.h"

namespace platform {

namespace {

constexpr const char* kNoBlockDevices = "sysfs shows no block devices";

/// The redundancy states of host.h.
constexpr std::int64_t kNoPath = 1;
constexpr std::int64_t kOnePath = 2;
constexpr std::int64_t kMorePaths = 3;

}  // namespace

Answer<std::string> Storage::deviceOfPath(const std::string& path) const {
  if (!blocks_.available()) return {notAvailable(kNoBlockDevices), {}};
  const auto block = blocks_.find(path);
  if (!block || !blocks_.isPath(*block)) return {{ENOENT, "no storage path " + shownName(path)}, {}};
  return {{}, blocks_.title(blocks_.deviceOf(*block))};
}

Answer<std::string> Storage::resolve(const std::string& name) const {
  if (!blocks_.available()) return {notAvailable(kNoBlockDevices), {}};
  const std::vector<std::string> all = blocks_.all();
  for (const std::string& block : all) {
    if (block.starts_with("dm-") && blocks_.isMap(block) && blocks_.title(block) == name) return {{}, block};
  }
  auto called = blocks_.find(name);
  if (!called) {
    const auto isCalled = [&](const std::string& block) { return blocks_.lastingNames(block).contains(name); };
    const auto found = std::find_if(all.begin(), all.end(), isCalled);
    if (found != all.end()) called = *found;
  }
  if (called && blocks_.isMap(*called)) return {{}, *called};
  if (called && blocks_.isDisk(*called)) return {{}, blocks_.deviceOf(*called)};
  return {{ENOENT, "no storage device " + shownName(name)}, {}};
}

StorageDevice Storage::facts(const std::string& block) const {
  StorageDevice device;
  const std::vector<std::string> paths = blocks_.pathsOf(block);
  const auto usable = std::count_if(paths.begin(), paths.end(), [&](const auto& path) { return blocks_.usable(path); });
  device.redundancyState = usable == 0 ? kNoPath : usable == 1 ? kOnePath : kMorePaths;
  device.disk = blocks_.isDirectAccess(block);
  for (const auto& partition : blocks_.partitionsOf(block)) device.partitions.push_back(partition.first);
  return device;
}

Answer<StorageDevice> Storage::device(const std::string& name) const {
  const Answer<std::string> block = resolve(name);
  if (!block.ok()) return {block.outcome, {}};
  return {{}, facts(block.value)};
}

Answer<std::map<std::string, std::string>> Storage::paths() const {
  if (!blocks_.available()) return {notAvailable(kNoBlockDevices), {}};
  Answer<std::map<std::string, std::string>> paths{{}, blocks_.paths()};
  for (auto& path : paths.value) path.second = blocks_.title(path.second);
  return paths;
}

Answer<std::map<std::string, StorageDevice>> Storage::devices() const {
  if (!blocks_.available()) return {notAvailable(kNoBlockDevices), {}};
  std::map<std::string, std::string> blocks;
  for (const auto& path : blocks_.paths()) blocks.try_emplace(blocks_.title(path.second), path.second);
  // A map that has lost its last path is still there, and a map goes before a disk of its name.
  for (const std::string& block : blocks_.all()) {
    if (blocks_.isMap(block)) blocks.insert_or_assign(blocks_.title(block), block);
  }
  Answer<std::map<std::string, StorageDevice>> devices;
  for (const auto& [name, block] : blocks) devices.value.emplace(name, facts(block));
  return devices;
}

Answer<std::string> Storage::volumeOfPartition(const std::string& device, std::uint32_t number) const {
  const Answer<std::string> block = resolve(device);
  if (!block.ok()) return {block.outcome, {}};
  const auto partitions = blocks_.partitionsOf(block.value);
  const auto partition = partitions.find(number);
  if (partition == partitions.end()) {
    return {{ENOENT, "no partition " + std::to_string(number) + " of " + shownName(device)}, {}};
  }
  return volumes_.volumeOn(partition->second);
}

}  // namespace platform
