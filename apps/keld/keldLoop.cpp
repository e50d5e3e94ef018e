#include "keldLoop.h"

#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "keldLog.h"
#include "keldOptions.h"
#include "platform/runfile.h"
#include "platform/vsi.h"

namespace keld {

namespace {

constexpr int kOutOfMemory = 12;
constexpr unsigned kPassesBetweenSignals = 64;
constexpr std::size_t kKernelBuildShown = 20;
constexpr const char* kDefaultRunDirectory = "/var/run/korvel";

// Set by the signal handler, read by the main loop.
std::atomic<bool> stopRequested{false};
static_assert(std::atomic<bool>::is_always_lock_free);

constexpr int kHandledSignals[] = {SIGTERM, SIGINT, SIGPIPE};

void handleSignal(int signal) {
  if (signal != SIGPIPE) stopRequested.store(true);
}

/// A socket's path: the run directory is another one for trials and tests only.
std::string runPath(const char* name) {
  const char* directory = std::getenv("KORVEL_RUN_DIR");
  return std::string(directory != nullptr && *directory != '\0' ? directory : kDefaultRunDirectory) + '/' + name;
}

int listenForTraceClients(const std::string& path) {
  const int fd = TraceServer::Trace_Listen(path.c_str());
  if (fd >= 0) RunFile_ShareSocket(path.c_str());
  return fd;
}

/// Blocks the handled signals in this thread, and so in all that it will start, but for the mask
/// with which it waits: none is lost between a test of the flag and the wait.
int installSignalHandlers(sigset_t* waitMask) {
  sigset_t handled;
  sigemptyset(&handled);
  for (const int signal : kHandledSignals) sigaddset(&handled, signal);
  if (const int error = pthread_sigmask(SIG_BLOCK, &handled, waitMask); error != 0) return error;
  for (const int signal : kHandledSignals) sigdelset(waitMask, signal);
  struct sigaction action {};
  action.sa_handler = handleSignal;
  sigemptyset(&action.sa_mask);
  for (const int signal : kHandledSignals) {
    if (sigaction(signal, &action, nullptr) != 0 && errno != 0) return errno;
  }
  return 0;
}

/// Lets a signal in that came while input was ready: ppoll then returns without delivering it.
void deliverPendingSignals(const sigset_t& waitMask) {
  sigset_t pending;
  if (sigpending(&pending) != 0) return;
  for (const int signal : kHandledSignals) {
    if (sigismember(&pending, signal) != 1) continue;
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, &waitMask, &blocked);
    pthread_sigmask(SIG_SETMASK, &blocked, nullptr);
    return;
  }
}

void checkBuild() {
  char kernelBuild[kKernelBuildShown + 1] = {};
  const char* ownBuildDate = "";
  if (VSI_CheckSig(kernelBuild, sizeof kernelBuild, &ownBuildDate) == 0) return;
  kernelBuild[kKernelBuildShown] = '\0';
  Panic("md5 signature mismatch with running qkernel built on %s (my build date: %s)\n", kernelBuild, ownBuildDate);
}

/// Switches the kernel's asynchronous observations on. Returns 0 or an errno value.
int enableAsyncObservations() {
  VSI_ParamList* option = VSI_ParamListCreate();
  VSI_ParamList* value = VSI_ParamListCreate();
  QK_ReturnStatus status = option != nullptr && value != nullptr ? QK_OK : QK_NO_MEMORY;
  if (status == QK_OK) status = VSI_ParamListAddString(option, "Misc");
  if (status == QK_OK) status = VSI_ParamListAddString(option, "KelAsyncEnable");
  if (status == QK_OK) status = VSI_ParamListAddInt(value, 1);
  if (status == QK_OK) status = VSI_Set(VSI_NODE_config_intOpts, option, value);
  VSI_ParamListDestroy(option);
  VSI_ParamListDestroy(value);
  return QK_ReturnStatusToErrno(status);
}

}  // namespace

void ObservationBuffer::Free::operator()(char* bytes) const noexcept {
  std::free(bytes);
}

bool ObservationBuffer::allocate() {
  bytes_.reset(static_cast<char*>(std::malloc(kInitialBytes)));
  capacity_ = bytes_ ? kInitialBytes : 0;
  return bytes_ != nullptr;
}

bool ObservationBuffer::grow() {
  if (capacity_ >= kMaxBytes) return false;
  const std::size_t wanted = capacity_ * 3 > kMaxBytes * 2 - 1 ? kMaxBytes : capacity_ * 3 / 2;
  char* grown = static_cast<char*>(std::realloc(bytes_.get(), wanted));
  if (grown == nullptr) return false;
  static_cast<void>(bytes_.release());
  bytes_.reset(grown);
  capacity_ = wanted;
  return true;
}

Daemon::Daemon(AgentStarter start, bool withTestAgents)
    : start_(start),
      withTestAgents_(withTestAgents),
      timers_(systemClock()),
      trace_(systemClock()),
      delivery_(runPath("hagd-vprob.sock"), timers_),
      vprob_(systemClock(), trace_, delivery_),
      aside_(systemClock()),
      services_{systemClock(), vprob_, timers_, &aside_},
      streams_(trace_),
      agents_(streams_, services_) {
  std::uint32_t number = 0;
  for (Context& context : contexts_) context.number = number++;
}

int Daemon::run(int argc, char** argv) {
  if (argc > 1 && parseOptions(argc, argv, &enableAsync_) == OptionsResult::exitWithUsage) return 0;
  int status = installSignalHandlers(&waitMask_);
  if (status == 0) status = startUp();
  if (status == 0) status = loop();
  shutDown(status);
  return status;
}

int Daemon::startUp() {
  if (const int error = timers_.start(); error != 0) return error;
  checkBuild();
  vprob_.VProb_Init();
  if (enableAsync_) {
    if (const int error = enableAsyncObservations(); error != 0) return error;
  }
  if (!poll_.allocateFixed()) return 1;
  if (const int error = openContexts(); error != 0) return error;
  poll_.watch(PollSet::kTraceSlot, listenForTraceClients(runPath("keld-trace.sock")));
  if (const int error = streams_.initialise(); error != 0) return error;
  start_(agents_, withTestAgents_);
  if (!buffer_.allocate()) {
    Log("Error allocating space for kel buffer. Out of memory\n");
    return kOutOfMemory;
  }
  poll_.allocateConnections();
  return 0;
}

int Daemon::openContexts() {
  for (Context& context : contexts_) {
    const int status = context.number < PollSet::kKernelContexts
                           ? KelLib_AsyncContextOpen(context.number, &context.handle)
                           : KelLib_UserContextOpen(context.number, &context.handle);
    if (status != 0) return status;
    int fd = -1;
    if (const int error = KelLib_HandleToFd(context.handle, &fd); error != 0) return error;
    poll_.watch(context.number, fd);
  }
  return 0;
}

int Daemon::loop() {
  unsigned passes = 0;
  std::chrono::seconds lookedForSignals{};
  while (true) {
    if (stopRequested.load()) {
      Log("Exiting due to signal.\n");
      return 0;
    }
    if (ppoll(poll_.slots(), poll_.count(), nullptr, &waitMask_) < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    // A loop that always finds input would never take a signal in. Passes may be slow.
    const std::chrono::seconds now = systemClock().monotonic();
    if (++passes % kPassesBetweenSignals == 0 || now != lookedForSignals) {
      lookedForSignals = now;
      deliverPendingSignals(waitMask_);
    }
    if (const int status = walk(); status != 0) return status;
  }
}

int Daemon::walk() {
  for (std::size_t slot = 0; slot < poll_.count(); ++slot) {
    if (const int status = serveSlot(&slot); status != 0) return status;
  }
  return 0;
}

// Serves what one slot shows. Steps `*slot` back where another connection has moved into it, and
// returns a positive status where the loop must end.
int Daemon::serveSlot(std::size_t* slot) {
  const short seen = poll_[*slot].revents;
  const bool connection = *slot >= PollSet::kFixedSlots || (*slot == PollSet::kUserSlot && !poll_.takesConnections());
  int status = 0;
  if ((seen & POLLIN) == 0) {
    if (*slot >= PollSet::kFixedSlots && (seen & (POLLERR | POLLHUP | POLLNVAL)) != 0) {
      closeConnection(slot);
      return 0;
    }
  } else if (*slot < PollSet::kKernelContexts) {
    status = serveKernelContext(*slot);
  } else if (connection) {
    serveConnection(slot);
    return 0;
  } else if (*slot == PollSet::kUserSlot) {
    acceptUser();
  } else {
    trace_.Trace_Accept(poll_[*slot].fd);
  }
  poll_.clear(*slot);
  return status;
}

int Daemon::serveKernelContext(std::size_t slot) {
  KelLib_Handle handle = contexts_[slot].handle;
  int fd = -1;
  KelLib_HandleToFd(handle, &fd);
  const int status = readContext(fd);
  if (status == KELLIB_ERR_BUFFER_TOO_SMALL) {
    if (KelLib_Reset(handle) != 0) {
      const char* name = nullptr;
      KelLib_HandleToName(handle, &name);
    }
    return 0;
  }
  return status > 0 ? status : 0;
}

void Daemon::acceptUser() {
  int fd = -1;
  if (KelLib_UserContextNewCnx(contexts_[PollSet::kUserSlot].handle, &fd) != 0) return;
  if (!poll_.addConnection(fd)) KelLib_UserContextCloseCnx(fd);
}

void Daemon::serveConnection(std::size_t* slot) {
  const int status = readContext(poll_[*slot].fd);
  if (status != 0 && (poll_[*slot].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0 && *slot >= PollSet::kFixedSlots) {
    closeConnection(slot);
  } else {
    poll_.clear(*slot);
  }
}

void Daemon::closeConnection(std::size_t* slot) {
  if (KelLib_UserContextCloseCnx(poll_[*slot].fd) < 0) return;
  if (poll_.removeConnection(*slot)) --*slot;
}

int Daemon::readContext(int fd) {
  std::size_t length = 0;
  int status = KelLib_ReadFromFd(fd, buffer_.data(), buffer_.capacity(), &length);
  while (status == KELLIB_ERR_BUFFER_TOO_SMALL) {
    if (!buffer_.grow()) return status;
    status = KelLib_ReadFromFd(fd, buffer_.data(), buffer_.capacity(), &length);
  }
  if (status != 0) return status;
  if (length == 0 || length >= ObservationBuffer::kMaxBytes) return -1;
  return streams_.fanOut(buffer_.data(), length);
}

void Daemon::shutDown(int status) {
  poll_.releaseConnections();
  agents_.stopAll();
  aside_.finish();
  for (const Context& context : contexts_) {
    if (context.handle == nullptr) continue;
    if (const int error = KelLib_Close(context.handle); error != 0) {
      Log("Error closing handle %p: %d\n", static_cast<void*>(context.handle), error);
    }
  }
  Log("Exiting. rc:%d\n", status);
}

void runDaemon(int argc, char** argv, AgentStarter start, bool withTestAgents) {
  auto* daemon = new Daemon(start, withTestAgents);
  const int status = daemon->run(argc, argv);
  // Without destructors: the timer thread and trace clients may be using anything of the process.
  std::fflush(nullptr);
  _exit(status);
}

}  // namespace keld
