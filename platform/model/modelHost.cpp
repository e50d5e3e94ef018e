#include "model/modelHost.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <system_error>
#include <utility>

#include "host/complaints.h"
#include "host/files.h"
#include "host/paths.h"

namespace platform {

namespace {

using Line = nlohmann::ordered_json;

constexpr const char* kUnknownBuild = "unknown";

std::string textOf(const Line& line) {
  return line.dump(-1, ' ', false, Line::error_handler_t::replace);
}

template <typename T>
Answer<T> valueOr(const std::optional<T>& value, const char* what) {
  if (value) return {{}, *value};
  return {{ENOENT, std::string("the model names no ") + what}, {}};
}

template <typename Map, typename Key>
Answer<typename Map::mapped_type> valueOf(const Map& map, const Key& key, const char* what) {
  const auto found = map.find(key);
  if (found != map.end()) return {{}, found->second};
  return {{ENOENT, std::string("the model has no such ") + what}, {}};
}

Answer<VmIdentity> firstVm(const ModelFile& model, std::int64_t VmIdentity::*id, std::int64_t wanted) {
  const auto vm = std::find_if(model.vms.begin(), model.vms.end(), [&](const auto& v) { return v.*id == wanted; });
  if (vm != model.vms.end()) return {{}, *vm};
  return {{ESRCH, "the model has no such VM"}, {}};
}

StorageDevice factsOf(const ModelDevice& device) {
  StorageDevice facts{device.redundancyState, device.disk, {}};
  for (const ModelPartition& partition : device.partitions) facts.partitions.push_back(partition.number);
  return facts;
}

Answer<Line> lineOf(const NicDown& asked, const ModelFile&) {
  return {{}, {{"action", "nic.down"}, {"nic", asked.nic}}};
}

Answer<Line> lineOf(const CpuOffline& asked, const ModelFile&) {
  return {{}, {{"action", "cpu.offline"}, {"cpu", asked.cpu}}};
}

Answer<Line> lineOf(const PageRetire& asked, const ModelFile&) {
  return {{}, {{"action", "page.retire"}, {"page", asked.page}, {"count", asked.count}, {"mode", asked.mode}}};
}

Answer<Line> lineOf(const VmKill& asked, const ModelFile& model) {
  const Answer<VmIdentity> vm = firstVm(model, &VmIdentity::worldId, asked.worldId);
  return {vm.outcome, {{"action", "vm.kill"}, {"worldId", asked.worldId}, {"name", vm.value.name}}};
}

Answer<Line> lineOf(const SwapReconfigure&, const ModelFile&) {
  return {{}, {{"action", "swap.reconfigure"}}};
}

Answer<std::string> nameOf(Answer<VmIdentity> vm) {
  return {std::move(vm.outcome), std::move(vm.value.name)};
}

/// Of the longest key that ends in a slash and holds the path, which a key of its own goes before.
Answer<std::string> formOf(const std::string& path, const std::map<std::string, std::string>& forms) {
  if (const auto own = forms.find(path); own != forms.end() && !path.ends_with('/')) return {{}, own->second};
  Answer<std::string> none{{ENOENT, "the model has no such path"}, {}};
  if (std::filesystem::path(path).lexically_normal().string() != path) return none;
  // The directory itself is held by its key, too, but there is nothing to be told of it.
  std::string directory = path.ends_with('/') ? path : path + '/';
  auto found = forms.find(directory);
  while (found == forms.end()) {
    directory.pop_back();
    directory.erase(directory.rfind('/') + 1);
    if (directory.empty()) return none;
    found = forms.find(directory);
  }
  if (found->second.empty() || directory.size() >= path.size()) return none;
  return {{}, found->second + path.substr(directory.size())};
}

}  // namespace

ModelHost::ModelHost(std::string file) : given_(std::move(file)) {
  std::error_code error;
  const std::filesystem::path absolute = std::filesystem::absolute(given_, error);
  file_ = error ? given_ : absolute.string();
}

std::shared_ptr<const Answer<ModelFile>> ModelHost::model() const {
  const Answer<std::string> content = readFile(file_, kModelFileBytes);
  Answer<ModelFile> model;
  if (content.ok()) {
    model = parseModelFile(content.value);
  } else {
    model.outcome = content.outcome;
  }
  if (!model.ok()) logSparsely(file_, "model " + file_ + ": " + reasonOf(model.outcome) + "; every query fails");
  if (!content.ok()) model.outcome.text = "model " + file_ + ": " + reasonOf(content.outcome);
  return std::make_shared<const Answer<ModelFile>>(std::move(model));
}

/// Asks `find` unless the file is no model or makes `operation` (if any) fail.
template <typename T, typename Find>
Answer<T> ModelHost::query(const std::string& operation, const Find& find) const {
  const auto known = model();
  if (!known->ok()) return {known->outcome, {}};
  if (Outcome failure = known->value.failureOf(operation); !failure.ok()) return {std::move(failure), {}};
  return find(known->value);
}

std::string ModelHost::describe() const {
  return "model:" + given_;
}

bool ModelHost::buildMatches() const {
  const Answer<ModelFile> model = read();
  return model.ok() && model.value.buildMatches;
}

std::string ModelHost::kernelBuild() const {
  return read().value.kernelBuild.value_or(kUnknownBuild);
}

Answer<std::string> ModelHost::systemUuid() const {
  return query<std::string>("uuid.read",
                            [](const ModelFile& model) { return valueOr(model.systemUuid, "system UUID"); });
}

Answer<std::unique_ptr<Channel>> ModelHost::openChannel(std::uint32_t number) {
  return query<std::unique_ptr<Channel>>("context.open:" + std::to_string(number),
                                         [](const ModelFile&) { return Answer<std::unique_ptr<Channel>>{}; });
}

Answer<std::optional<std::int64_t>> ModelHost::optionValue(const std::string& name) const {
  return query<std::optional<std::int64_t>>("option.read:" + name, [&](const ModelFile& model) {
    const auto found = model.options.find(name);
    return Answer<std::optional<std::int64_t>>{
        {}, found == model.options.end() ? std::nullopt : std::optional(found->second)};
  });
}

std::vector<std::string> ModelHost::optionNames() const {
  const Answer<ModelFile> model = read();
  std::vector<std::string> names;
  for (const auto& option : model.value.options) names.push_back(option.first);
  return names;
}

void ModelHost::optionWasSet(const std::string& name, std::int64_t value) {
  // The value is stored already, so a line that cannot be written is mentioned in the log only.
  (void)record(textOf({{"action", "option.set"}, {"option", name}, {"value", value}}));
}

Answer<PortGroupFacts> ModelHost::portGroup(const std::string& name) const {
  return query<PortGroupFacts>("portGroup.lookup", [&](const ModelFile& model) {
    Answer<std::string> virtualSwitch = valueOf(model.portGroups, name, "port group");
    return Answer<PortGroupFacts>{std::move(virtualSwitch.outcome), {name, std::move(virtualSwitch.value), {}}};
  });
}

Answer<std::vector<PortGroupFacts>> ModelHost::portGroups() const {
  return query<std::vector<PortGroupFacts>>("portGroup.lookup", [](const ModelFile& model) {
    Answer<std::vector<PortGroupFacts>> all;
    for (const auto& [name, virtualSwitch] : model.portGroups) all.value.push_back({name, virtualSwitch, {}});
    return all;
  });
}

Answer<std::string> ModelHost::vmNameOfGroup(std::int64_t groupId) const {
  return query<std::string>(
      "vm.name", [&](const ModelFile& model) { return nameOf(firstVm(model, &VmIdentity::groupId, groupId)); });
}

Outcome ModelHost::storeTrouble(const std::string& operation) const {
  return query<bool>(operation, [](const ModelFile&) { return Answer<bool>{}; }).outcome;
}

Answer<std::string> ModelHost::deviceOfPath(const std::string& path) const {
  return query<std::string>("path.lookup",
                            [&](const ModelFile& model) { return valueOf(model.paths, path, "storage path"); });
}

Answer<StorageDevice> ModelHost::storageDevice(const std::string& name) const {
  return query<StorageDevice>("device.lookup", [&](const ModelFile& model) {
    Answer<ModelDevice> device = valueOf(model.devices, name, "storage device");
    return Answer<StorageDevice>{std::move(device.outcome), factsOf(device.value)};
  });
}

Answer<std::map<std::string, std::string>> ModelHost::storagePaths() const {
  using Paths = std::map<std::string, std::string>;
  return query<Paths>("path.lookup", [](const ModelFile& model) { return Answer<Paths>{{}, model.paths}; });
}

Answer<std::map<std::string, StorageDevice>> ModelHost::storageDevices() const {
  using Devices = std::map<std::string, StorageDevice>;
  return query<Devices>("device.lookup", [](const ModelFile& model) {
    Answer<Devices> all;
    for (const auto& [name, device] : model.devices) all.value[name] = factsOf(device);
    return all;
  });
}

Outcome ModelHost::openVolumes() const {
  return query<bool>("volumes.open", [](const ModelFile&) { return Answer<bool>{}; }).outcome;
}

Answer<std::string> ModelHost::volumeOfPartition(const std::string& device, std::uint32_t number) const {
  return query<std::string>("volumes.open", [&](const ModelFile& model) -> Answer<std::string> {
    const auto found = model.devices.find(device);
    if (found == model.devices.end()) return {{ENOENT, "the model has no such storage device"}, {}};
    for (const ModelPartition& partition : found->second.partitions) {
      if (partition.number != number) continue;
      if (partition.error != 0) return {{partition.error, {}}, {}};
      return valueOr(partition.volume, "volume on the partition");
    }
    return {{ENOENT, "the model has no such partition"}, {}};
  });
}

Answer<std::string> ModelHost::datastorePath(const std::string& path) const {
  return query<std::string>("", [&](const ModelFile& model) { return formOf(path, model.datastorePaths); });
}

Answer<std::map<std::string, std::string>> ModelHost::datastoreForms() const {
  using Forms = std::map<std::string, std::string>;
  return query<Forms>("", [](const ModelFile& model) { return Answer<Forms>{{}, model.datastorePaths}; });
}

Answer<std::string> ModelHost::readText() const {
  Answer<std::string> content = readFile(file_, kModelFileBytes);
  if (content.ok()) content.outcome = parseModelFile(content.value).outcome;
  return content;
}

Answer<VmIdentity> ModelHost::vmByWorldId(std::int64_t worldId) const {
  return query<VmIdentity>("vm.lookup",
                           [&](const ModelFile& model) { return firstVm(model, &VmIdentity::worldId, worldId); });
}

Answer<std::string> ModelHost::vmName(std::int64_t worldId) const {
  return query<std::string>(
      "vm.name", [&](const ModelFile& model) { return nameOf(firstVm(model, &VmIdentity::worldId, worldId)); });
}

Answer<std::vector<VmIdentity>> ModelHost::vms() const {
  using Vms = std::vector<VmIdentity>;
  return query<Vms>("vm.lookup", [](const ModelFile& model) { return Answer<Vms>{{}, model.vms}; });
}

Answer<CpuCounts> ModelHost::cpuCounts() const {
  return query<CpuCounts>("cpu.info", [](const ModelFile& model) -> Answer<CpuCounts> {
    if (!model.cpu.cores || !model.cpu.pcpus) return {{ENOENT, "the model does not count the processors"}, {}};
    return {{}, {*model.cpu.cores, *model.cpu.pcpus}};
  });
}

Answer<std::string> ModelHost::cpuVendor() const {
  return query<std::string>("cpu.list", [](const ModelFile& model) { return valueOr(model.cpu.vendor, "CPU vendor"); });
}

Answer<bool> ModelHost::cpuOfflineEnabled() const {
  return query<bool>("offlineEnabled.read",
                     [](const ModelFile& model) { return valueOr(model.cpu.offlineEnabled, "offlineEnabled"); });
}

Answer<std::uint64_t> ModelHost::pageRetireThreshold() const {
  return query<std::uint64_t>("pageRetire.threshold", [](const ModelFile& model) {
    return Answer<std::uint64_t>{{}, model.pageRetireThreshold.value_or(kDefaultPageRetireThreshold)};
  });
}

Answer<std::uint32_t> ModelHost::pageStatus(std::uint64_t page) const {
  return query<std::uint32_t>("page.status",
                              [&](const ModelFile& model) { return valueOf(model.pageStatus, page, "page"); });
}

Outcome ModelHost::nicDown(const std::string& nic) {
  return act(NicDown{nic});
}

Outcome ModelHost::cpuOffline(std::int64_t cpu) {
  return act(CpuOffline{cpu});
}

Outcome ModelHost::pageRetire(std::uint64_t page, std::int64_t count, const std::string& mode) {
  return act(PageRetire{page, count, mode});
}

Outcome ModelHost::vmKill(std::int64_t worldId) {
  return act(VmKill{worldId});
}

Outcome ModelHost::swapReconfigure() {
  return act(SwapReconfigure{});
}

Answer<std::string> ModelHost::plan(const Action& action) const {
  const Answer<ModelFile> model = read();
  if (!model.ok()) return {model.outcome, {}};
  const Answer<Line> line = std::visit([&](const auto& asked) { return lineOf(asked, model.value); }, action);
  // What the model makes fail fails, whatever it is given.
  if (Outcome failure = model.value.failureOf(line.value.at("action")); !failure.ok()) return {std::move(failure), {}};
  if (!line.ok()) return {line.outcome, {}};
  return {{}, textOf(line.value)};
}

Outcome ModelHost::record(const std::string& line) {
  const std::string path = runDirectory() + "/host-actions.jsonl";
  const int status = appendLine(path, line);
  if (status == 0) return {};
  logSparsely(path, "cannot write " + path + ": " + errnoText(status));
  return {status, {}};
}

Outcome ModelHost::act(const Action& action) {
  const Answer<std::string> line = plan(action);
  return line.ok() ? record(line.value) : line.outcome;
}

}  // namespace platform
