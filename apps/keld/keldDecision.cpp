#include "keldDecision.h"

namespace keld {

namespace {

std::string shown(const DecisionValue& value) {
  if (const auto* const number = std::get_if<std::int64_t>(&value)) return std::to_string(*number);
  return std::string(std::get<std::string_view>(value));
}

}  // namespace

std::string decisionText(const Decision& decision, std::span<const DecisionValue> values) {
  constexpr std::string_view kPlaceholder = "{}";
  std::string text;
  std::string_view rest = decision.text;
  for (const DecisionValue& value : values) {
    const std::size_t at = rest.find(kPlaceholder);
    if (at == std::string_view::npos) break;
    text.append(rest.substr(0, at)).append(shown(value));
    rest.remove_prefix(at + kPlaceholder.size());
  }
  return text.append(rest);
}

}  // namespace keld
