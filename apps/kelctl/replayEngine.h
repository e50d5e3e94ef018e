// The daemon on the time of a capture: its correlators, timers, posting and retry queue, a host that is held
// in memory, and whoever watches what comes of it.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "capture.h"
#include "keldCorrelator.h"
#include "keldDecision.h"
#include "replayTime.h"

namespace kelctl {

/// What happens next, by itself or because the capture says so.
struct ReplayStep {
  enum class What { start, observation, timer, facts, clock, agent, restart, end };

  What what = What::start;
  WallTime time;                      ///< of the host's clock, before a step of the clock
  std::uint64_t line = 0;             ///< of the capture; 0 for what happens by itself
  const TraceEntry* entry = nullptr;  ///< the observation
  std::string text;                   ///< what else there is to say
  std::optional<WallTime> to;         ///< what a clock was set to
};

/// Watches a replay. All is called by the thread that replays; what is given is valid during the call.
class ReplayWatcher : public keld::DecisionListener {
 public:
  /// A step begins; what follows is of it.
  virtual void begins(const ReplayStep& /*step*/) {}
  /// A correlator takes the step's observation. `handler`: it has one for this identifier.
  virtual void taken(const keld::CorrelatorInfo& /*by*/, bool /*handler*/) {}
  void decided(const keld::Decision& /*decision*/, std::string_view /*subject*/,
               std::span<const keld::DecisionValue> /*values*/) override {}
  /// An event is posted: its record, as the management agent gets it, and its line of the trace.
  virtual void posted(std::string_view /*record*/, std::string_view /*line*/) {}
  /// An action would have been done: one JSON object.
  virtual void acted(const std::string& /*action*/) {}
  /// The daemon logs a line.
  virtual void logged(const char* /*text*/) {}
  /// The daemon would have ended itself.
  virtual void stopped(const std::string& /*why*/) {}
};

/// Puts options before those among a host's facts. What stands there and is no object stays, to be refused.
void setOptions(Json& facts, const Json& options);

/// One replay. Used by one thread; only one exists at a time in a process, since it puts its host and its
/// log in the place of the process's.
class ReplayEngine {
 public:
  /// `overrides` are options by name that go before all others. Everything outlives the engine.
  ReplayEngine(ReplayWatcher& watcher, Json overrides);
  ReplayEngine(const ReplayEngine&) = delete;
  ReplayEngine& operator=(const ReplayEngine&) = delete;
  ~ReplayEngine();

  /// Says how the host is. Returns why it is no host, or nothing.
  std::string setFacts(const Json& facts);
  /// Changes the host by a merge patch. Returns as setFacts, and changes nothing then.
  std::string changeFacts(const Json& patch);

  /// Runs an item of a capture, timers before it first; the first one starts the daemon. A header is not
  /// taken. Returns why it could not be run, or nothing.
  std::string take(const CaptureItem& item);
  /// Lets time pass.
  void advanceTo(WallTime time);

  [[nodiscard]] WallTime now() const { return clock_.wall(); }
  [[nodiscard]] bool started() const { return started_; }

 private:
  class Daemon;
  class Host;
  class Log;

  void start();
  void step(const ReplayStep& step);
  std::string observe(const CaptureItem& item, const TraceEntry& entry);
  template <typename Work>
  void guarded(const Work& work);

  ReplayWatcher& watcher_;
  Json overrides_;
  Json facts_ = Json::object();
  ReplayClock clock_;
  std::unique_ptr<Host> host_;
  std::unique_ptr<Log> log_;
  std::unique_ptr<Daemon> daemon_;  // none once the daemon has ended itself while it started
  bool agentAway_ = false;
  bool started_ = false;
};

}  // namespace kelctl
