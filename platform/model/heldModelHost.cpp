#include "model/heldModelHost.h"

#include <nlohmann/json.hpp>

namespace platform {

namespace {

using Line = nlohmann::ordered_json;

std::string textOf(const Line& line) {
  return line.dump(-1, ' ', false, Line::error_handler_t::replace);
}

/// The moment of a record is that of the action itself.
constexpr const char* kTimestamp = "timestamp";

}  // namespace

HeldModelHost::HeldModelHost(std::function<void(const std::string&)> act)
    : ModelHost("-"), act_(std::move(act)), model_(std::make_shared<const Answer<ModelFile>>()) {}

void HeldModelHost::set(ModelFile model) {
  model_ = std::make_shared<const Answer<ModelFile>>(Answer<ModelFile>{{}, std::move(model)});
}

Outcome HeldModelHost::record(const std::string& line) {
  act_(line);
  return {};
}

void HeldModelHost::keepAudit(const std::string& record, const std::string& user) {
  act_(textOf({{"action", "audit"}, {"record", record}, {"user", user}}));
}

void HeldModelHost::keepObject(const std::string& name,
                               const std::vector<std::pair<std::string, std::string>>& values) {
  Line line{{"action", "store"}, {"object", name}};
  for (const auto& [key, value] : values) {
    if (key != kTimestamp) line[key] = value;
  }
  act_(textOf(line));
}

}  // namespace platform
