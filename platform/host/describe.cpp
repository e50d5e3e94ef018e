#include "host/describe.h"

#include <array>
#include <string>

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

constexpr std::array<Section, 6> kSections{{
    {"host", [](const Host& host) { return Json(host.describe()); }},
    {"kernel", describeKernel},
    {"system", describeSystem},
    {"options", describeOptions},
    {"portGroups", describePortGroups},
    {"model", describeModel},
}};

}  // namespace

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
