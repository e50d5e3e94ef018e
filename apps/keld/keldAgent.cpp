#include "keldAgent.h"

#include <cxxabi.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <new>

#include "keldLog.h"
#include "platform/vthread.h"

namespace keld {

namespace {

/// The agent failed for want of memory, or a filter that is full.
constexpr int kInitialiseFailed = 1;

/// The low 32 bits of an entry function's address, as the log shows it.
unsigned entryWord(AgentEntry entry) {
  return static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(entry));
}

/// The C library's signal for cancellation (nptl(7)). Sent while cancellation was enabled, it may arrive
/// after it was disabled again and would then end the thread wherever it is.
constexpr int kCancellationSignal = 32;

/// A set of signals as the kernel takes it: a bit each, signal 1 the lowest.
using KernelSignals = std::uint64_t;

/// What the thread blocks besides the signal for cancellation, and whether it blocks that one.
thread_local KernelSignals ownSignals = 0;
thread_local bool cancellationHeldOff = false;

// By the bare system call, as the C library keeps its signals out of its own (nptl(7)).
void holdCancellationOff() {
  const KernelSignals signals = KernelSignals{1} << (kCancellationSignal - 1);
  cancellationHeldOff = syscall(SYS_rt_sigprocmask, SIG_BLOCK, &signals, &ownSignals, sizeof signals) == 0;
}

struct ThreadStart {
  AgentEntry entry;
  AgentContext context;
};

class SettleAtEnd {
 public:
  explicit SettleAtEnd(AgentStart& start) : start_(start) {}
  SettleAtEnd(const SettleAtEnd&) = delete;
  SettleAtEnd& operator=(const SettleAtEnd&) = delete;
  ~SettleAtEnd() { start_.settle(); }

 private:
  AgentStart& start_;
};

// A cancellation is no C++ object: what stands for it in the handler is a null reference by design of the
// runtime, and not to be reported.
__attribute__((no_sanitize("null"))) void runAgent(AgentEntry entry, AgentContext& context) {
  try {
    entry(context);
  } catch (const abi::__forced_unwind&) {
    throw;  // cancellation
  } catch (const std::exception& exception) {
    Log("Exception (%s) in agent function(%#x).\n", exception.what(), entryWord(entry));
  } catch (...) {
    Log("Unknown exception in agent function(%#x).\n", entryWord(entry));
  }
}

void* agentThread(void* argument) {
  // Cancellable only while it waits (pollCancellable), so that no lock dies with the thread.
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
  holdCancellationOff();
  const std::unique_ptr<ThreadStart> start(static_cast<ThreadStart*>(argument));
  const SettleAtEnd settle(start->context.start);
  if (pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr) != 0) {
    Log("Failed to set thread cancel type for agent function(%#x).\n", entryWord(start->entry));
  }
  runAgent(start->entry, start->context);
  return nullptr;
}

}  // namespace

// Kept free of objects with destructors: a thread that is cancelled at an arbitrary instruction can
// be unwound only out of frames that have nothing to clean up. The system call is the bare one, as the
// signal may come only while the kernel waits, and the thread sanitizer's own would be left in its middle.
__attribute__((noinline)) int pollCancellable(pollfd* set, unsigned count) {
  const KernelSignals* whileWaiting = cancellationHeldOff ? &ownSignals : nullptr;
  pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
  const auto ready = static_cast<int>(syscall(SYS_ppoll, set, count, nullptr, whileWaiting, sizeof(KernelSignals)));
  const int error = errno;
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
  errno = error;
  return ready;
}

int AgentScope::open(const std::string& name, std::span<const char* const> groups,
                     std::span<const char* const> identifiers) {
  agent_ = std::make_unique<Agent>();
  agent_->name[0] = name;
  for (const char* group : groups) {
    if (const int status = agent_->filter.addGroup(group); status != 0) return status;
  }
  for (const char* identifier : identifiers) {
    if (const int status = agent_->filter.addIdentifier(identifier); status != 0) return status;
  }
  if (const int status = streams_.open(name.c_str(), agent_->filter, &agent_->stream); status != 0) return status;
  if (agent_->descriptorCount < 1) return kInitialiseFailed;
  agent_->readFd = agent_->stream->readFd();
  return 0;
}

int AgentScope::initialise(const std::string& name, std::span<const char* const> groups,
                           std::span<const char* const> identifiers) {
  VThreadBase_SetName(name.c_str());
  int status = kInitialiseFailed;
  try {
    status = open(name, groups, identifiers);
  } catch (const std::bad_alloc&) {
    status = kInitialiseFailed;
  }
  if (status != 0) {
    cleanUp();
    Log("Failed to initialize agent %s (error code: %d) \n", name.c_str(), status);
  }
  return status;
}

void AgentScope::cleanUp() noexcept {
  if (!agent_) return;
  if (agent_->stream) streams_.close(std::move(agent_->stream));
  agent_.reset();
  Log("Done cleaning up agent.\n");
}

int AgentScope::waitNext(Kel** observation) {
  while (true) {
    pollfd readable{agent_->readFd, POLLIN, 0};
    if (pollCancellable(&readable, 1) < 0) {
      if (errno == EINTR) continue;
      Log("Failed to poll - %s\n", std::strerror(errno));
      return 2;
    }
    if ((readable.revents & POLLIN) == 0) {
      Log("Failed to poll, invalid revents - %hd\n", readable.revents);
      return 2;
    }
    bool complete = false;
    if (const int status = agent_->stream->read(observation, &complete); status != 0) {
      Log("Failed to get Kel\n");
      return status;
    }
    if (complete) return 0;
  }
}

void AgentRegistry::start(AgentEntry entry) {
  if (count_ >= kMaxAgents) {
    Log("Failed to start agent. Already reached max limit of %u agents.\n", kMaxAgents);
    return;
  }
  auto start = std::make_unique<ThreadStart>(ThreadStart{entry, {streams_, services_, starts_[count_]}});
  const int error = pthread_create(&threads_[count_], nullptr, agentThread, start.get());
  if (error != 0) {
    Log("Failed to create thread %p (id:%d err:%d %s)\n", reinterpret_cast<void*>(entry), static_cast<int>(count_),
        error, std::strerror(error));
    return;
  }
  static_cast<void>(start.release());
  starts_[count_++].wait();
}

void AgentRegistry::stopAll() {
  while (count_ != 0) {
    --count_;
    const int id = static_cast<int>(count_);
    if (const int error = pthread_cancel(threads_[count_]); error != 0) {
      Log("Failed to cancel thread id:%d, err:%d %s\n", id, error, std::strerror(error));
      continue;
    }
    if (const int error = pthread_join(threads_[count_], nullptr); error != 0) {
      Log("Failed to join thread id:%d, err:%d %s\n", id, error, std::strerror(error));
    }
  }
}

}  // namespace keld
