#include "keldFramework.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>

#include "keldArguments.h"
#include "keldLog.h"
#include "platform/str.h"

namespace keld {

namespace {

constexpr std::size_t kMaxExtraDescriptors = 4;
/// A wake-up writes four bytes; a few that came together are drained at once.
constexpr std::size_t kWakeupDrainBytes = 10;

struct KelFree {
  void operator()(Kel* observation) const noexcept { Kel_Free(observation); }
};
using OwnedKel = std::unique_ptr<Kel, KelFree>;

std::string agentName(const char* nameWord) {
  char* formatted = Str_Asprintf(nullptr, "%sCorrelator", nameWord);
  std::string name = formatted != nullptr ? formatted : nameWord;
  std::free(formatted);
  return name;
}

/// One correlator on its agent: its stream and where its observations go.
class Correlation {
 public:
  Correlation(AgentScope& agent, const Handler& fallback, const HandlerTable& handlers)
      : agent_(agent), fallback_(fallback), handlers_(handlers) {}

  void dispatch(Kel* observation) const {
    const OwnedKel owned(observation);
    dispatchObservation(fallback_, handlers_, observation);
  }

  /// Reads once from the stream. False where the stream has failed.
  bool readStream() const {
    Kel* observation = nullptr;
    bool complete = false;
    if (agent_.agent().stream->read(&observation, &complete) != 0) {
      Log("Failed to get Kel\n");
      return false;
    }
    if (complete) dispatch(observation);
    return true;
  }

 private:
  AgentScope& agent_;
  const Handler& fallback_;
  const HandlerTable& handlers_;
};

/// Reads `extra`'s wake-up so that it does not poll readable again.
void drainWakeup(int extra) {
  std::array<char, kWakeupDrainBytes> drained{};
  while (read(extra, drained.data(), drained.size()) < 0 && errno == EINTR) {
  }
}

}  // namespace

void ignoreObservation(const Kel* observation) {
  const char* id = nullptr;
  Kel_GetID(observation, &id);
}

void reportUnknownObservation(const Kel* observation) {
  if (const char* const id = identifierOf(observation)) Log("No correlator for %s \n", id);
}

void dispatchObservation(const Handler& fallback, const HandlerTable& handlers, const Kel* observation) {
  const char* id = nullptr;
  Kel_GetID(observation, &id);
  try {
    const auto found = id != nullptr ? handlers.find(std::string_view(id)) : handlers.end();
    if (found == handlers.end()) {
      fallback(observation);
      return;
    }
    logObservation(observation);
    found->second(observation);
  } catch (const std::exception&) {
    return;  // the observation is dropped, the correlator goes on
  }
}

void runCorrelator(AgentContext& context, const char* nameWord, std::span<const char* const> groups,
                   std::span<const char* const> identifiers, const Handler& fallback, const HandlerTable& handlers) {
  AgentScope agent(context.streams);
  if (agent.initialise(agentName(nameWord), groups, identifiers) != 0) return;
  context.start.settle();
  const Correlation correlation(agent, fallback, handlers);
  Kel* observation = nullptr;
  while (agent.waitNext(&observation) == 0) correlation.dispatch(observation);
}

void runCorrelator(AgentContext& context, const char* nameWord, const char* group, const Handler& fallback,
                   const HandlerTable& handlers) {
  runCorrelator(context, nameWord, std::span(&group, 1), {}, fallback, handlers);
}

void runCorrelatorWithWakeup(AgentContext& context, const char* nameWord, const char* group, const Handler& fallback,
                             const HandlerTable& handlers, const std::function<void()>& wake,
                             std::span<const int> extra) {
  AgentScope agent(context.streams);
  if (agent.initialise(agentName(nameWord), std::span(&group, 1), {}) != 0) return;
  context.start.settle();
  const Correlation correlation(agent, fallback, handlers);
  std::array<pollfd, 1 + kMaxExtraDescriptors> set{};
  unsigned count = 0;
  set[count++] = {agent.agent().readFd, POLLIN, 0};
  for (const int fd : extra.first(std::min(extra.size(), kMaxExtraDescriptors))) set[count++] = {fd, POLLIN, 0};
  while (true) {
    if (pollCancellable(set.data(), count) < 0) {
      if (errno == EINTR) continue;
      Log("Failed to poll - %s\n", std::strerror(errno));
      return;
    }
    if ((set[0].revents & POLLIN) != 0 && !correlation.readStream()) return;
    for (unsigned n = 1; n < count; ++n) {
      if ((set[n].revents & POLLIN) == 0) continue;
      drainWakeup(extra[0]);
      wake();
    }
  }
}

}  // namespace keld
