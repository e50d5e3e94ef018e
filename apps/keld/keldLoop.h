// The daemon: start-up, the main loop that reads every context and fans the records out, shutdown.
#pragma once

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "keldAgent.h"
#include "keldDelivery.h"
#include "keldFramework.h"
#include "keldPollSet.h"
#include "keldStream.h"
#include "keldTimer.h"
#include "keldTrace.h"
#include "keldVprob.h"
#include "platform/kellib.h"

namespace keld {

/// Starts the agents of a daemon; the test flag adds the test agents. Returns 0.
using AgentStarter = int (*)(AgentRegistry& agents, bool withTestAgents);

/// One buffer for all contexts: it grows, never shrinks, and is capped. Main thread only.
class ObservationBuffer {
 public:
  static constexpr std::size_t kInitialBytes = 8192;
  static constexpr std::size_t kMaxBytes = 131072;

  /// False when memory is exhausted.
  [[nodiscard]] bool allocate();
  /// Grows by half, up to kMaxBytes. False where it is there already, or memory is exhausted; the
  /// buffer then stays as it is.
  [[nodiscard]] bool grow();
  [[nodiscard]] char* data() { return bytes_.get(); }
  [[nodiscard]] std::size_t capacity() const { return capacity_; }

 private:
  struct Free {
    void operator()(char* bytes) const noexcept;
  };
  std::unique_ptr<char, Free> bytes_;
  std::size_t capacity_ = 0;
};

/// The process's daemon. It is never destroyed: the timer thread and trace clients use it until the
/// process ends.
class Daemon {
 public:
  /// `start` starts the agents, given the test flag.
  Daemon(AgentStarter start, bool withTestAgents);

  /// Runs from start-up to shutdown and returns the status to exit with.
  int run(int argc, char** argv);

 private:
  struct Context {
    std::uint32_t number = 0;
    KelLib_Handle handle = nullptr;
  };

  int startUp();
  int openContexts();
  int loop();
  int walk();
  int serveSlot(std::size_t* slot);
  int serveKernelContext(std::size_t slot);
  void acceptUser();
  void serveConnection(std::size_t* slot);
  void closeConnection(std::size_t* slot);
  int readContext(int fd);
  void shutDown(int status);

  AgentStarter start_;
  bool withTestAgents_;
  bool enableAsync_ = false;
  sigset_t waitMask_{};  // the signals blocked while the main thread waits

  TimerService timers_;
  TraceServer trace_;
  Delivery delivery_;
  VProb vprob_;
  AsideThread aside_;
  Services services_;
  StreamList streams_;
  AgentRegistry agents_;

  // The main thread's own.
  Context contexts_[PollSet::kKernelContexts + 1];
  PollSet poll_;
  ObservationBuffer buffer_;
};

/// The main of a daemon program; never returns to its caller.
[[noreturn]] void runDaemon(int argc, char** argv, AgentStarter start, bool withTestAgents);

}  // namespace keld
