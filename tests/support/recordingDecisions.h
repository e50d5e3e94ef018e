// A listener that keeps what correlators decided.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "keldCorrelator.h"
#include "keldDecision.h"

namespace support {

struct ToldDecision {
  keld::DecisionKind kind = keld::DecisionKind::counts;
  std::string name;
  std::string subject;
  std::string text;  // with its values
  std::int64_t seconds = 0;

  bool operator==(const ToldDecision&) const = default;
};
std::ostream& operator<<(std::ostream& out, const ToldDecision& told);

/// What is expected of a decision; `seconds` is how long what it begins lasts.
ToldDecision counts(std::string name, std::string subject, std::string text, std::int64_t seconds = 0);
ToldDecision waits(std::string name, std::string subject, std::string text, std::int64_t seconds = 0);
ToldDecision holds(std::string name, std::string subject, std::string text, std::int64_t seconds = 0);
ToldDecision concludes(std::string name, std::string subject, std::string text, std::int64_t seconds = 0);
ToldDecision acts(std::string name, std::string subject, std::string text, std::int64_t seconds = 0);
ToldDecision forgets(std::string name, std::string subject, std::string text, std::int64_t seconds = 0);

/// Keeps decisions in order. Used by one thread.
class RecordingDecisions final : public keld::DecisionListener {
 public:
  void decided(const keld::Decision& decision, std::string_view subject,
               std::span<const keld::DecisionValue> values) override;

  /// What was decided since the last call.
  std::vector<ToldDecision> take();

 private:
  std::vector<ToldDecision> told_;
};

/// The names of all decisions that a correlator lists.
std::set<std::string> listedDecisions(const keld::CorrelatorInfo& info);

}  // namespace support
