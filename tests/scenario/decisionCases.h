// Tables of steps and of what a correlator decides in them, and the check that they leave no decision out.
#pragma once

#include <gtest/gtest.h>

#include <ostream>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "correlatorHarness.h"

namespace scenario {

using Told = std::vector<support::ToldDecision>;

/// A Scene has a member `scenario` and what its steps need.
template <typename Scene>
struct DecisionCase {
  const char* name;  // the behaviour, as a test's name says it
  void (*steps)(Scene& scene);
  Told told;  // by the steps, from the last time that they took what was told
};

template <typename Scene>
std::ostream& operator<<(std::ostream& out, const DecisionCase<Scene>& decisionCase) {
  return out << decisionCase.name;
}

/// For INSTANTIATE_TEST_SUITE_P.
inline constexpr auto kCaseName = [](const auto& info) { return std::string(info.param.name); };

/// The steps are decided as the case says, by these decisions and no more.
template <typename Scene>
void expectTold(const DecisionCase<Scene>& decisionCase) {
  Scene scene;
  decisionCase.steps(scene);
  EXPECT_EQ(scene.scenario.decisions.take(), decisionCase.told);
}

/// Every decision that the correlator lists is in one of the cases, and the other way round; each is
/// listed once, by a name that begins with `group`.
template <typename Scene>
void expectAllInCases(const keld::CorrelatorInfo& info, std::string_view group,
                      const std::vector<DecisionCase<Scene>>& cases) {
  std::set<std::string> told;
  for (const DecisionCase<Scene>& decisionCase : cases) {
    for (const support::ToldDecision& decision : decisionCase.told) told.insert(decision.name);
  }
  const std::set<std::string> listed = support::listedDecisions(info);
  EXPECT_EQ(told, listed);
  EXPECT_EQ(listed.size(), info.decisions.size());
  for (const std::string& name : listed) EXPECT_TRUE(name.starts_with(std::string(group) + '.')) << name;
}

}  // namespace scenario
