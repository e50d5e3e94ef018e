#include "host/facts.h"

#include <unistd.h>

#include <array>
#include <map>
#include <optional>
#include <vector>

#include "host/describe.h"
#include "host/host.h"
#include "host/options.h"
#include "model/modelHost.h"

namespace platform {

namespace {

using Json = nlohmann::json;

/// As much of the link's target as the daemon looks at.
constexpr std::size_t kTargetBytes = 4095;

std::optional<std::string> linkTarget(const std::string& link) {
  std::array<char, kTargetBytes> target{};
  const ssize_t length = ::readlink(link.c_str(), target.data(), target.size());
  if (length < 0) return std::nullopt;
  return std::string(target.data(), static_cast<std::size_t>(length));
}

template <typename T>
void put(Json& facts, const char* name, const Answer<T>& answer) {
  if (answer.ok()) facts[name] = answer.value;
}

Json portGroupFacts(const Host& host) {
  Json groups = Json::object();
  for (const PortGroupFacts& group : host.portGroups().value) groups[group.name] = group.virtualSwitch;
  return groups;
}

Json partitionFacts(const Host& host, const std::string& device, std::uint32_t number) {
  Json partition{{"number", number}};
  const Answer<std::string> volume = host.volumeOfPartition(device, number);
  if (volume.ok()) {
    partition["volume"] = volume.value;
  } else {
    partition["error"] = volume.outcome.status;
  }
  return partition;
}

Json deviceFacts(const Host& host) {
  Json devices = Json::object();
  for (const auto& [name, device] : host.storageDevices().value) {
    Json facts{{"disk", device.disk}, {"partitions", Json::array()}};
    if (device.redundancyState) facts["redundancyState"] = *device.redundancyState;
    for (const std::uint32_t number : device.partitions) {
      facts["partitions"].push_back(partitionFacts(host, name, number));
    }
    devices[name] = std::move(facts);
  }
  return devices;
}

Json storageFacts(const Host& host) {
  Json storage{{"devices", deviceFacts(host)}};
  put(storage, "paths", host.storagePaths());
  return storage;
}

Json vmFacts(const Host& host) {
  Json vms = Json::array();
  for (const VmIdentity& vm : host.vms().value) {
    vms.push_back({{"worldId", vm.worldId}, {"groupId", vm.groupId}, {"name", vm.name}});
  }
  return vms;
}

Json cpuFacts(const Host& host) {
  Json cpu = Json::object();
  put(cpu, "vendor", host.cpuVendor());
  put(cpu, "offlineEnabled", host.cpuOfflineEnabled());
  if (const Answer<CpuCounts> counts = host.cpuCounts(); counts.ok()) {
    cpu["cores"] = counts.value.cores;
    cpu["pcpus"] = counts.value.pcpus;
  }
  return cpu;
}

/// Failures of what a model that is silent would not fail.
Json failureFacts(const Host& host) {
  Json failures = Json::object();
  const auto note = [&failures](const char* operation, const Outcome& outcome) {
    if (!outcome.ok()) failures[operation] = outcome.status;
  };
  note("volumes.open", host.openVolumes());
  note("pageRetire.threshold", host.pageRetireThreshold().outcome);
  return failures;
}

Json askedFacts(const Host& host) {
  Json facts{{"build", {{"matches", host.buildMatches()}, {"kernel", host.kernelBuild()}}},
             {"portGroups", portGroupFacts(host)},
             {"storage", storageFacts(host)},
             {"vms", vmFacts(host)},
             {"cpu", cpuFacts(host)},
             {"failures", failureFacts(host)}};
  put(facts, "datastorePaths", host.datastoreForms());
  if (const Answer<std::string> uuid = host.systemUuid(); uuid.ok()) {
    facts["system"]["uuid"] = hexadecimal(uuid.value);
  }
  if (const Answer<std::uint64_t> threshold = host.pageRetireThreshold(); threshold.ok()) {
    facts["pageRetire"]["threshold"] = threshold.value;
  }
  return facts;
}

/// A merge patch cannot set what is null.
void dropNulls(Json& value) {
  if (!value.is_object()) return;
  for (auto member = value.begin(); member != value.end();) {
    if (member->is_null()) {
      member = value.erase(member);
    } else {
      dropNulls(*member++);
    }
  }
}

Json modelFacts(const ModelHost& host) {
  const Answer<std::string> text = host.readText();
  Json facts = text.ok() ? Json::parse(text.value) : Json::object();
  dropNulls(facts);
  return facts;
}

}  // namespace

Json optionsInForce() {
  Json options = Json::object();
  for (const OptionFacts& option : listOptions()) options[option.name] = option.value;
  return options;
}

Json hostFacts(const std::string& scratchLink) {
  const Host& host = currentHost();
  const auto* const model = dynamic_cast<const ModelHost*>(&host);
  Json facts = model != nullptr ? modelFacts(*model) : askedFacts(host);
  facts["options"].update(optionsInForce());
  facts.erase("scratch");
  if (auto target = linkTarget(scratchLink)) facts["scratch"] = std::move(*target);
  return facts;
}

}  // namespace platform
