#include "linux/blockDevices.h"

#include <algorithm>
#include <string_view>

#include "linux/kernelFiles.h"

namespace platform {

namespace {

constexpr std::string_view kMapPrefix = "mpath-";
constexpr std::string_view kMapPartitionPrefix = "part";
/// Most devices that are followed upwards from one.
constexpr std::size_t kStackedDevices = 1024;

std::string_view digitsAt(std::string_view text) {
  return text.substr(0, text.find_first_not_of("0123456789"));
}

/// "nvme0n1" of "nvme0c1n1", a path that the kernel hides behind that name space.
std::optional<std::string> nvmeNameSpace(std::string_view path) {
  constexpr std::string_view kNvme = "nvme";
  if (!path.starts_with(kNvme)) return std::nullopt;
  const std::string_view subsystem = digitsAt(path.substr(kNvme.size()));
  std::string_view rest = path.substr(kNvme.size() + subsystem.size());
  if (subsystem.empty() || !rest.starts_with('c')) return std::nullopt;
  rest.remove_prefix(1);
  rest.remove_prefix(digitsAt(rest).size());
  if (!rest.starts_with('n')) return std::nullopt;
  return std::string(kNvme).append(subsystem).append(rest);
}

bool isScsiAddress(std::string_view text) {
  return std::count(text.begin(), text.end(), ':') == 3 &&
         text.find_first_not_of("0123456789:") == std::string_view::npos;
}

}  // namespace

bool BlockDevices::available() const {
  return exists(sys_ + "/class/block");
}

std::vector<std::string> BlockDevices::all() const {
  return namesIn(sys_ + "/class/block");
}

bool BlockDevices::has(const std::string& name) const {
  return isPlainName(name) && exists(directory(name));
}

std::optional<std::string> BlockDevices::find(const std::string& called) const {
  constexpr std::string_view kDev = "/dev/";
  std::string name = called.starts_with(kDev) ? called.substr(kDev.size()) : called;
  std::replace(name.begin(), name.end(), '/', '!');
  if (has(name)) return name;
  if (!isPlainName(name)) return std::nullopt;
  if (!isScsiAddress(name)) return ofNumber(name);
  for (const std::string& block : namesIn(sys_ + "/class/scsi_device/" + name + "/device/block")) {
    if (has(block)) return block;
  }
  return std::nullopt;
}

std::optional<std::string> BlockDevices::ofNumber(const std::string& number) const {
  if (!isPlainName(number)) return std::nullopt;
  return linkName(sys_ + "/dev/block/" + number);
}

std::string BlockDevices::numberOf(const std::string& name) const {
  return readWord(directory(name) + "/dev").value_or("");
}

bool BlockDevices::isPartition(const std::string& name) const {
  return exists(directory(name) + "/partition");
}

bool BlockDevices::isDisk(const std::string& name) const {
  return exists(directory(name) + "/device") && !isPartition(name);
}

std::string BlockDevices::mapUuid(const std::string& name) const {
  return readWord(directory(name) + "/dm/uuid").value_or("");
}

bool BlockDevices::isMap(const std::string& name) const {
  return mapUuid(name).starts_with(kMapPrefix);
}

bool BlockDevices::isPath(const std::string& name) const {
  return isDisk(name) && pathsOf(name) == std::vector{name};
}

std::map<std::string, std::string> BlockDevices::paths() const {
  std::map<std::string, std::string> paths;
  std::set<std::string> nameSpaces;
  for (const std::string& name : all()) {
    if (!isDisk(name)) continue;
    if (auto nameSpace = nvmeNameSpace(name)) nameSpaces.insert(std::move(*nameSpace));
    paths[name] = deviceOf(name);
  }
  for (const std::string& name : nameSpaces) paths.erase(name);
  return paths;
}

std::string BlockDevices::deviceOf(const std::string& disk) const {
  if (auto nameSpace = nvmeNameSpace(disk); nameSpace && has(*nameSpace)) return *nameSpace;
  for (const std::string& holder : namesIn(directory(disk) + "/holders")) {
    if (isMap(holder)) return holder;
  }
  return disk;
}

std::vector<std::string> BlockDevices::pathsOf(const std::string& device) const {
  if (isMap(device)) return namesIn(directory(device) + "/slaves");
  std::vector<std::string> hidden;
  if (device.starts_with("nvme")) {
    for (std::string& name : all()) {
      if (nvmeNameSpace(name) == device) hidden.push_back(std::move(name));
    }
  }
  return hidden.empty() ? std::vector{device} : hidden;
}

bool BlockDevices::usable(const std::string& path) const {
  if (!has(path)) return false;
  // A disk of a bus that keeps no state, such as virtio, is there or it is not.
  const auto state = readWord(directory(path) + "/device/state");
  if (state && *state != "running" && *state != "live") return false;
  // SCSI: a path on standby takes requests once the others are gone.
  const auto scsiAccess = readWord(directory(path) + "/device/access_state");
  if (scsiAccess && (*scsiAccess == "unavailable" || *scsiAccess == "offline")) return false;
  const auto access = readWord(directory(path) + "/ana_state");
  return !access || *access == "optimized" || *access == "non-optimized";
}

std::string BlockDevices::title(const std::string& device) const {
  if (!isMap(device)) return device;
  const std::string name = readWord(directory(device) + "/dm/name").value_or("");
  return name.empty() ? device : name;
}

std::set<std::string> BlockDevices::lastingNames(const std::string& name) const {
  std::set<std::string> names;
  if (const std::string uuid = mapUuid(name); uuid.starts_with(kMapPrefix)) {
    names.insert(uuid);
    names.insert(uuid.substr(kMapPrefix.size()));
  }
  for (const char* const file : {"/wwid", "/device/wwid"}) {
    if (auto wwid = readWord(directory(name) + file)) names.insert(std::move(*wwid));
  }
  names.erase("");
  return names;
}

bool BlockDevices::isDirectAccess(const std::string& device) const {
  const std::vector<std::string> paths = pathsOf(device);
  if (paths.empty()) return true;
  // SCSI peripheral device types; a bus without them has disks.
  const auto type = readNumber(directory(paths.front()) + "/device/type");
  constexpr std::uint64_t kDirectAccess = 0;
  constexpr std::uint64_t kReducedBlock = 14;
  constexpr std::uint64_t kZoned = 20;
  return !type || *type == kDirectAccess || *type == kReducedBlock || *type == kZoned;
}

std::map<std::uint32_t, std::string> BlockDevices::partitionsOf(const std::string& device) const {
  std::map<std::uint32_t, std::string> partitions;
  const auto add = [&](std::optional<std::uint64_t> number, const std::string& name) {
    if (number && *number > 0 && *number <= UINT32_MAX) partitions[static_cast<std::uint32_t>(*number)] = name;
  };
  if (!isMap(device)) {
    for (const std::string& name : namesIn(directory(device))) {
      if (name.starts_with(device)) add(readNumber(directory(device) + "/" + name + "/partition"), name);
    }
    return partitions;
  }
  const std::string suffix = "-" + mapUuid(device);
  for (const std::string& holder : namesIn(directory(device) + "/holders")) {
    const std::string uuid = mapUuid(holder);
    if (!uuid.starts_with(kMapPartitionPrefix) || !uuid.ends_with(suffix)) continue;
    const std::size_t digits = uuid.size() - suffix.size() - kMapPartitionPrefix.size();
    add(parseNumber(std::string_view(uuid).substr(kMapPartitionPrefix.size(), digits)), holder);
  }
  return partitions;
}

std::set<std::string> BlockDevices::upon(const std::string& name) const {
  std::set<std::string> found;
  std::vector<std::string> next{name};
  while (!next.empty() && found.size() < kStackedDevices) {
    const std::string lower = std::move(next.back());
    next.pop_back();
    for (std::string& holder : namesIn(directory(lower) + "/holders")) {
      if (found.insert(holder).second) next.push_back(std::move(holder));
    }
  }
  found.erase(name);
  return found;
}

}  // namespace platform
