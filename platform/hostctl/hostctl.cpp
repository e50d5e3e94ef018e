#include "platform/hostctl.h"

#include <cerrno>
#include <exception>
#include <utility>

#include "host/host.h"
#include "hostctl/answered.h"

namespace HostCtl::Lib {

HostCtlException::HostCtlException(const std::string& text, int status) : std::runtime_error(text), status_(status) {}

}  // namespace HostCtl::Lib

using platform::answered;
using platform::answeredIfAny;

namespace HostCtl::Network {

PortGroup::PortGroup(std::string name, std::string virtualSwitch)
    : name_(std::move(name)), virtualSwitch_(std::move(virtualSwitch)) {}

PortGroup NetworkFactory::GetPortGroupByName(const std::string& name) {
  auto facts = answered("port group \"" + name + "\"", [&] { return platform::currentHost().portGroup(name); });
  return {std::move(facts.name), std::move(facts.virtualSwitch)};
}

}  // namespace HostCtl::Network

namespace HostCtl::Storage {

Path::Path(std::string deviceName) : deviceName_(std::move(deviceName)) {}
Device::Device(std::uint32_t redundancyState) : redundancyState_(redundancyState) {}
DiskLunPartition::DiskLunPartition(std::uint32_t number) : number_(number) {}
DiskLun::DiskLun(std::vector<DiskLunPartition> partitions) : partitions_(std::move(partitions)) {}

std::unique_ptr<Path> StorageInfo::GetPath(const std::string& name) const {
  auto device =
      answeredIfAny("storage path \"" + name + "\"", [&] { return platform::currentHost().deviceOfPath(name); });
  return device ? std::make_unique<Path>(std::move(*device)) : nullptr;
}

std::unique_ptr<Device> StorageInfo::GetDevice(const std::string& name, int /*flags*/) const {
  const auto device =
      answeredIfAny("storage device \"" + name + "\"", [&] { return platform::currentHost().storageDevice(name); });
  if (!device || !device->redundancyState) return nullptr;
  return std::make_unique<Device>(static_cast<std::uint32_t>(*device->redundancyState));
}

std::unique_ptr<Lun> StorageInfo::GetLun(const std::string& deviceName) const {
  const auto device = answeredIfAny("logical unit \"" + deviceName + "\"",
                                    [&] { return platform::currentHost().storageDevice(deviceName); });
  if (!device) return nullptr;
  if (!device->disk) return std::make_unique<Lun>();
  std::vector<DiskLunPartition> partitions;
  for (const std::uint32_t number : device->partitions) partitions.emplace_back(number);
  return std::make_unique<DiskLun>(std::move(partitions));
}

std::string StorageInfo::GetDatastorePath(const std::string& path) const {
  try {
    const auto shown = platform::currentHost().datastorePath(path);
    return shown.ok() ? shown.value : path;
  } catch (const std::exception&) {
    return path;  // shown as it is, like every path without a form
  }
}

}  // namespace HostCtl::Storage

namespace HostCtl {

Storage::StorageInfo Host::GetStorageInfo() const {
  return {};
}

Host HostFactory::GetHost() {
  return {};
}

}  // namespace HostCtl
