// A replay as a story: step by step what the host saw, which correlators took it, what they decided and said.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "eventTexts.h"
#include "replayEngine.h"

namespace kelctl {

struct StoryDecision {
  const keld::Decision* decision = nullptr;
  std::string subject;
  std::string text;
  std::int64_t seconds = 0;  ///< how long what it begins lasts; 0 where it begins nothing
};

struct StoryEvent {
  std::string kind;  ///< "problem", "audit", "clear", or an event's fate: "queued", "lost" …
  std::string event;
  std::string text;  ///< of a fate: " after 2 failures", say
};

/// What one correlator, or posting, made of a step.
struct StoryTaken {
  std::string correlator;
  std::vector<StoryDecision> decisions;
  std::vector<StoryEvent> events;
  std::vector<std::string> actions;  ///< JSON objects
  std::vector<std::string> notes;    ///< what else there is to say
};

struct StoryStep {
  ReplayStep::What what = ReplayStep::What::start;
  WallTime time;
  std::uint64_t line = 0;
  std::string id;
  std::vector<TraceArgument> arguments;
  std::string text;
  std::optional<WallTime> to;  ///< what a clock was set to
  std::vector<StoryTaken> taken;
};

/// "counts", "waits" …
const char* decisionKindName(keld::DecisionKind kind);
/// "observation", "timer" …
const char* stepName(ReplayStep::What what);
Json storyJson(const StoryStep& step);

/// Puts steps together. Timers that nobody had anything to say of are left out.
class StoryTeller final : public ReplayWatcher {
 public:
  using Take = std::function<void(StoryStep&&)>;

  explicit StoryTeller(Take take);
  void begins(const ReplayStep& step) override;
  void taken(const keld::CorrelatorInfo& by, bool handler) override;
  void decided(const keld::Decision& decision, std::string_view subject,
               std::span<const keld::DecisionValue> values) override;
  void posted(std::string_view record, std::string_view line) override;
  void acted(const std::string& action) override;
  void logged(const char* text) override;
  void stopped(const std::string& why) override;
  /// Ends the last step.
  void finish();

 private:
  StoryTaken& takenBy(const std::string& correlator);
  StoryTaken& current();
  void endTaken();

  Take take_;
  const EventTexts& texts_ = knownEventTexts();
  std::map<std::string_view, std::string> correlatorOfDecision_;
  std::map<std::string_view, std::string, std::less<>> correlatorOfEvent_;
  std::optional<StoryStep> step_;
  const keld::CorrelatorInfo* by_ = nullptr;  // has the observation in hand
  bool handler_ = false;
};

}  // namespace kelctl
