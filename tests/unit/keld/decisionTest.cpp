#include "keldDecision.h"

#include <gtest/gtest.h>

#include <vector>

namespace keld {
namespace {

constexpr Decides<std::int64_t, std::int64_t> kHeld{DecisionKind::holds, "test.hold.held",
                                                    "held off: last posted {} s ago, limit {} s", 3600};
constexpr Decides<std::string_view> kState{DecisionKind::holds, "test.state", "previous state \"{}\""};
constexpr Decides<> kPlain{DecisionKind::forgets, "test.plain", "forgotten"};

class Recorder final : public DecisionListener {
 public:
  void decided(const Decision& decision, std::string_view subject, std::span<const DecisionValue> values) override {
    lines.push_back(std::string(decision.name) + "/" + std::string(subject) + "/" + decisionText(decision, values));
  }
  std::vector<std::string> lines;
};

TEST(DecisionTest, isToldWithItsSubjectAndItsNumbers) {
  Recorder recorder;
  kHeld.report(&recorder, "qnic0", 1205, 3600);
  kState.report(&recorder, "", "standby");
  kPlain.report(&recorder, "all");
  EXPECT_EQ(recorder.lines,
            (std::vector<std::string>{"test.hold.held/qnic0/held off: last posted 1205 s ago, limit 3600 s",
                                      "test.state//previous state \"standby\"", "test.plain/all/forgotten"}));
}

TEST(DecisionTest, goesNowhereWhereNobodyListens) {
  kHeld.report(nullptr, "qnic0", 1205, 3600);
}

TEST(DecisionTest, aValueIsShownAsItIsWhateverBracesItHolds) {
  const DecisionValue values[] = {std::string_view("{}")};
  EXPECT_EQ(decisionText(kState, values), "previous state \"{}\"");
}

}  // namespace
}  // namespace keld
