#include "model/modelSections.h"

#include <array>
#include <charconv>
#include <string>

namespace platform {

namespace {

using Json = nlohmann::ordered_json;

template <typename T>
void put(Json& object, const char* key, const std::optional<T>& value) {
  if (value) object[key] = *value;
}

Json partitionJson(const ModelPartition& partition) {
  Json json{{"number", partition.number}};
  put(json, "volume", partition.volume);
  if (partition.error != 0) json["error"] = partition.error;
  return json;
}

Json storageJson(const ModelFile& model) {
  Json devices = Json::object();
  for (const auto& [name, device] : model.devices) {
    Json json = Json::object();
    put(json, "redundancyState", device.redundancyState);
    json["disk"] = device.disk;
    json["partitions"] = Json::array();
    for (const ModelPartition& partition : device.partitions) json["partitions"].push_back(partitionJson(partition));
    devices[name] = std::move(json);
  }
  Json paths = Json::object();
  for (const auto& [path, device] : model.paths) paths[path] = device;
  return {{"paths", std::move(paths)}, {"devices", std::move(devices)}};
}

Json vmsJson(const ModelFile& model) {
  Json vms = Json::array();
  for (const VmIdentity& vm : model.vms) {
    vms.push_back({{"worldId", vm.worldId}, {"groupId", vm.groupId}, {"name", vm.name}});
  }
  return vms;
}

Json cpuJson(const ModelCpu& cpu) {
  Json json = Json::object();
  put(json, "vendor", cpu.vendor);
  put(json, "cores", cpu.cores);
  put(json, "pcpus", cpu.pcpus);
  put(json, "offlineEnabled", cpu.offlineEnabled);
  return json;
}

Json pageRetireJson(const ModelFile& model) {
  Json status = Json::object();
  for (const auto& [page, value] : model.pageStatus) {
    std::array<char, 16> digits{};
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), page, 16).ptr;
    status["0x" + std::string(digits.data(), end)] = value;
  }
  return {{"threshold", model.pageRetireThreshold.value_or(kDefaultPageRetireThreshold)},
          {"status", std::move(status)}};
}

Json failuresJson(const ModelFile& model) {
  Json failures = Json::object();
  for (const auto& [operation, failure] : model.failures) {
    failures[operation] = failure.text.empty() ? Json(failure.status) : Json(failure.text);
  }
  return failures;
}

}  // namespace

nlohmann::ordered_json modelSections(const ModelFile& model) {
  Json datastorePaths = Json::object();
  for (const auto& [path, shown] : model.datastorePaths) datastorePaths[path] = shown;
  return {{"storage", storageJson(model)},
          {"vms", vmsJson(model)},
          {"cpu", cpuJson(model.cpu)},
          {"pageRetire", pageRetireJson(model)},
          {"datastorePaths", std::move(datastorePaths)},
          {"failures", failuresJson(model)}};
}

}  // namespace platform
