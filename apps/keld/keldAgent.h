// Agents: threads of their own, each fed by one filtered observation stream.
#pragma once

#include <poll.h>
#include <pthread.h>

#include <array>
#include <cstdint>
#include <latch>
#include <memory>
#include <span>
#include <string>

#include "keldStream.h"

namespace keld {

struct Services;

/// Tells the starter that an agent has finished or failed its initialisation.
class AgentStart {
 public:
  /// Called by the agent's thread; further calls do nothing.
  void settle() {
    if (!settled_) {
      settled_ = true;
      latch_.count_down();
    }
  }
  /// Called by the starter.
  void wait() { latch_.wait(); }

 private:
  bool settled_ = false;  // the agent's thread's own
  std::latch latch_{1};
};

/// What an agent's entry function is given; everything outlives the agent.
struct AgentContext {
  StreamList& streams;
  Services& services;
  AgentStart& start;
};

/// The body of an agent's thread; returns when the agent stops.
using AgentEntry = void (*)(AgentContext& context);

/// An initialised agent: its name and its stream. Used by its own thread.
struct Agent {
  StreamFilter filter;
  std::unique_ptr<ObservationStream> stream;
  std::array<std::string, 1> name;
  std::uint32_t descriptorCount = 1;
  int readFd = -1;
};

/// Ends an agent where its scope ends, however that comes about: exception and cancellation too.
class AgentScope {
 public:
  explicit AgentScope(StreamList& streams) : streams_(streams) {}
  AgentScope(const AgentScope&) = delete;
  AgentScope& operator=(const AgentScope&) = delete;
  ~AgentScope() { cleanUp(); }

  /// Names the thread, makes the filter ("kel.GROUP" each, and the exact identifiers) and opens the
  /// stream. Returns 0, or a code that was logged; the agent is then cleaned up.
  int initialise(const std::string& name, std::span<const char* const> groups,
                 std::span<const char* const> identifiers);
  /// Waits for the next observation, which becomes the caller's. Returns 0 or an error code.
  int waitNext(Kel** observation);
  /// Closes the stream and releases the agent; does nothing the second time.
  void cleanUp() noexcept;

  [[nodiscard]] Agent& agent() { return *agent_; }

 private:
  int open(const std::string& name, std::span<const char* const> groups, std::span<const char* const> identifiers);

  StreamList& streams_;
  std::unique_ptr<Agent> agent_;
};

/// Polls with no time limit; the only place where an agent's thread can be cancelled. Returns as
/// poll(2) does.
int pollCancellable(pollfd* set, unsigned count);

/// The threads of all agents. Owned and used by the main thread.
class AgentRegistry {
 public:
  static constexpr std::uint32_t kMaxAgents = 32;

  AgentRegistry(StreamList& streams, Services& services) : streams_(streams), services_(services) {}

  /// Starts one agent and waits until it has finished or failed its initialisation. Failures are
  /// logged.
  void start(AgentEntry entry);
  /// Cancels and joins all agents, the last started first.
  void stopAll();
  [[nodiscard]] std::uint32_t count() const { return count_; }

 private:
  StreamList& streams_;
  Services& services_;
  std::array<pthread_t, kMaxAgents> threads_{};
  std::array<AgentStart, kMaxAgents> starts_;
  std::uint32_t count_ = 0;
};

}  // namespace keld
