// Why events were, or were not, posted: the steps of a replay in plain words.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "replayStory.h"

namespace kelctl {

/// Which steps are explained; all where nothing is asked for.
struct ExplainWish {
  std::optional<std::uint64_t> line;      ///< of the capture
  std::vector<std::string> observations;  ///< globs over identifiers
  std::vector<std::string> events;        ///< globs over the names of events
  std::vector<std::string> subjects;      ///< globs over what decisions are about: a NIC, a path
  std::optional<WallTime> from, until;

  [[nodiscard]] bool any() const { return line || !observations.empty() || !events.empty() || !subjects.empty(); }
};

/// A step for reading, several lines.
std::string explainStep(const StoryStep& step);

/// Picks steps out of a story as it goes on: those that were asked for, what was put on record for them before,
/// and what settled later what they put on record.
class Explainer {
 public:
  using Write = std::function<void(const StoryStep&)>;

  Explainer(ExplainWish wish, Write write) : wish_(std::move(wish)), write_(std::move(write)) {}
  void take(StoryStep&& step);
  [[nodiscard]] std::uint64_t explained() const { return explained_; }

 private:
  /// A correlator and what its decision is about.
  using Matter = std::pair<std::string, std::string>;
  /// Steps that wait on record are remembered up to so many in all.
  static constexpr std::size_t kMostRemembered = 65'536;

  [[nodiscard]] bool wanted(const StoryStep& step) const;
  [[nodiscard]] bool followed(const StoryStep& step) const;
  void write(const StoryStep& step);
  void remember(const StoryStep& step, bool told);
  void settle(const StoryStep& step, bool told);

  ExplainWish wish_;
  Write write_;
  std::map<Matter, std::vector<StoryStep>> onRecord_;
  std::size_t remembered_ = 0;
  std::set<Matter> following_;
  std::uint64_t explained_ = 0;
};

}  // namespace kelctl
