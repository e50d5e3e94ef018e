#include "host/describe.h"

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "host/files.h"
#include "host/host.h"
#include "host/options.h"
#include "model/modelHost.h"
#include "model/modelSections.h"

namespace platform {

namespace {

using Json = nlohmann::ordered_json;

Json missing(const Outcome& outcome) {
  return {{"error", reasonOf(outcome)}, {"status", outcome.status}};
}

Json describeKernel(const Host& host) {
  return {{"build", host.kernelBuild()}, {"matches", host.buildMatches()}};
}

Json describeSystem(const Host& host) {
  const Answer<std::string> uuid = host.systemUuid();
  return {{"uuid", uuid.ok() ? Json(hexadecimal(uuid.value)) : missing(uuid.outcome)}};
}

Json describeOptions(const Host&) {
  Json options = Json::array();
  for (const OptionFacts& option : listOptions()) {
    options.push_back({{"name", option.name}, {"value", option.value}, {"origin", option.origin}});
  }
  return options;
}

Json describePortGroups(const Host& host) {
  const Answer<std::vector<PortGroupFacts>> groups = host.portGroups();
  if (!groups.ok()) return missing(groups.outcome);
  Json all = Json::array();
  for (const PortGroupFacts& group : groups.value) {
    all.push_back({{"name", group.name}, {"virtualSwitch", group.virtualSwitch}, {"uplinks", group.uplinks}});
  }
  return all;
}

template <typename T>
Json valueOrMissing(const Answer<T>& answer) {
  return answer.ok() ? Json(answer.value) : missing(answer.outcome);
}

Json describePartition(const Host& host, const std::string& device, std::uint32_t number) {
  Json partition{{"number", number}};
  const Answer<std::string> volume = host.volumeOfPartition(device, number);
  if (volume.ok()) {
    partition["volume"] = volume.value;
  } else {
    partition.update(missing(volume.outcome));
  }
  return partition;
}

Json describeDevices(const Host& host) {
  const Answer<std::map<std::string, StorageDevice>> devices = host.storageDevices();
  if (!devices.ok()) return missing(devices.outcome);
  Json all = Json::object();
  for (const auto& [name, device] : devices.value) {
    Json shown = Json::object();
    if (device.redundancyState) shown["redundancyState"] = *device.redundancyState;
    shown["disk"] = device.disk;
    shown["partitions"] = Json::array();
    for (const std::uint32_t number : device.partitions) {
      shown["partitions"].push_back(describePartition(host, name, number));
    }
    all[name] = std::move(shown);
  }
  return all;
}

Json describeStorage(const Host& host) {
  const Answer<std::map<std::string, std::string>> paths = host.storagePaths();
  Json storage{{"paths", valueOrMissing(paths)}, {"devices", describeDevices(host)}};
  if (const Outcome volumes = host.openVolumes(); !volumes.ok()) storage["volumes"] = missing(volumes);
  return storage;
}

Json describeMounts(const Host& host) {
  const Answer<std::vector<MountFacts>> mounts = host.mounts();
  if (!mounts.ok()) return missing(mounts.outcome);
  Json all = Json::array();
  for (const MountFacts& mount : mounts.value) {
    all.push_back({{"point", mount.point}, {"device", mount.device}, {"fileSystem", mount.fileSystem}});
    if (!mount.label.empty()) all.back()["label"] = mount.label;
  }
  return all;
}

Json describeVms(const Host& host) {
  const Answer<std::vector<VmIdentity>> vms = host.vms();
  if (!vms.ok()) return missing(vms.outcome);
  Json all = Json::array();
  for (const VmIdentity& vm : vms.value) {
    all.push_back({{"worldId", vm.worldId}, {"groupId", vm.groupId}, {"name", vm.name}});
  }
  return all;
}

Json describeCpu(const Host& host) {
  const Answer<CpuCounts> counts = host.cpuCounts();
  const auto shown = [&](std::uint32_t count) { return counts.ok() ? Json(count) : missing(counts.outcome); };
  return {{"vendor", valueOrMissing(host.cpuVendor())},
          {"cores", shown(counts.value.cores)},
          {"pcpus", shown(counts.value.pcpus)},
          {"offlineEnabled", valueOrMissing(host.cpuOfflineEnabled())}};
}

Json describePageRetire(const Host& host) {
  return {{"threshold", valueOrMissing(host.pageRetireThreshold())}};
}

/// Null, and so left out, where the host is no model.
Json describeModel(const Host& host) {
  const auto* const modelHost = dynamic_cast<const ModelHost*>(&host);
  if (modelHost == nullptr) return nullptr;
  const Answer<ModelFile> model = modelHost->read();
  return model.ok() ? modelSections(model.value) : missing(model.outcome);
}

struct Section {
  const char* name;
  Json (*describe)(const Host& host);
};

constexpr std::array<Section, 11> kSections{{
    {"host", [](const Host& host) { return Json(host.describe()); }},
    {"kernel", describeKernel},
    {"system", describeSystem},
    {"options", describeOptions},
    {"portGroups", describePortGroups},
    {"storage", describeStorage},
    {"mounts", describeMounts},
    {"vms", describeVms},
    {"cpu", describeCpu},
    {"pageRetire", describePageRetire},
    {"model", describeModel},
}};

}  // namespace

std::string hexadecimal(const std::string& bytes) {
  constexpr const char* kDigits = "0123456789abcdef";
  std::string digits;
  for (const char byte : bytes) {
    const auto value = static_cast<unsigned char>(byte);
    digits += kDigits[value >> 4];
    digits += kDigits[value & 0xf];
  }
  return digits;
}

nlohmann::ordered_json describeHost() {
  const Host& host = currentHost();
  Json all = Json::object();
  for (const Section& section : kSections) {
    Json value = section.describe(host);
    if (!value.is_null()) all[section.name] = std::move(value);
  }
  return all;
}

}  // namespace platform
