#include "recordingDecisions.h"

#include <ostream>
#include <utility>

namespace support {

using keld::DecisionKind;

std::ostream& operator<<(std::ostream& out, const ToldDecision& told) {
  static constexpr const char* kKinds[] = {"counts", "waits", "holds", "concludes", "acts", "forgets"};
  return out << kKinds[static_cast<int>(told.kind)] << ' ' << told.name << " | " << told.subject << ": " << told.text
             << " | " << told.seconds << " s";
}

ToldDecision counts(std::string name, std::string subject, std::string text, std::int64_t seconds) {
  return {DecisionKind::counts, std::move(name), std::move(subject), std::move(text), seconds};
}
ToldDecision waits(std::string name, std::string subject, std::string text, std::int64_t seconds) {
  return {DecisionKind::waits, std::move(name), std::move(subject), std::move(text), seconds};
}
ToldDecision holds(std::string name, std::string subject, std::string text, std::int64_t seconds) {
  return {DecisionKind::holds, std::move(name), std::move(subject), std::move(text), seconds};
}
ToldDecision concludes(std::string name, std::string subject, std::string text, std::int64_t seconds) {
  return {DecisionKind::concludes, std::move(name), std::move(subject), std::move(text), seconds};
}
ToldDecision acts(std::string name, std::string subject, std::string text, std::int64_t seconds) {
  return {DecisionKind::acts, std::move(name), std::move(subject), std::move(text), seconds};
}
ToldDecision forgets(std::string name, std::string subject, std::string text, std::int64_t seconds) {
  return {DecisionKind::forgets, std::move(name), std::move(subject), std::move(text), seconds};
}

void RecordingDecisions::decided(const keld::Decision& decision, std::string_view subject,
                                 std::span<const keld::DecisionValue> values) {
  const std::int64_t seconds = decision.seconds >= 0
                                   ? decision.seconds
                                   : std::get<std::int64_t>(values[static_cast<std::size_t>(-decision.seconds - 1)]);
  told_.push_back(
      {decision.kind, std::string(decision.name), std::string(subject), keld::decisionText(decision, values), seconds});
}

std::vector<ToldDecision> RecordingDecisions::take() {
  return std::exchange(told_, {});
}

std::set<std::string> listedDecisions(const keld::CorrelatorInfo& info) {
  std::set<std::string> names;
  for (const keld::Decision* decision : info.decisions) names.emplace(decision->name);
  return names;
}

}  // namespace support
