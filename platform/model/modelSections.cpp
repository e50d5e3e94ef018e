#include "model/modelSections.h"

#include <array>
#include <charconv>
#include <string>

namespace platform {

namespace {

using Json = nlohmann::ordered_json;

Json pageRetireJson(const ModelFile& model) {
  Json status = Json::object();
  for (const auto& [page, value] : model.pageStatus) {
    std::array<char, 16> digits{};
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), page, 16).ptr;
    status["0x" + std::string(digits.data(), end)] = value;
  }
  return {{"status", std::move(status)}};
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
  return {{"pageRetire", pageRetireJson(model)},
          {"datastorePaths", std::move(datastorePaths)},
          {"failures", failuresJson(model)}};
}

}  // namespace platform
