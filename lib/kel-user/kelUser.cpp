#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>

#include "host/paths.h"
#include "kel-user.h"
#include "kel/contextPath.h"
#include "observations.h"
#include "userConnection.h"

namespace kelUser {

namespace {

/// What one process does with a handle.
struct Use {
  Use(pid_t user, const std::string& path) : process(user), connection(path) {}

  const pid_t process;
  UserConnection connection;
  /// The parent's, after a fork. It is kept, but never freed: threads that exist in the parent only may
  /// have been inside, and destroying a condition waits for who waits at it.
  Use* inherited = nullptr;
};

std::string socketPath() {
  const char* const chosen = ::secure_getenv(platform::kRunDirectoryVariable);
  const bool isSet = chosen != nullptr && *chosen != '\0';
  return platform::contextPath(isSet ? chosen : platform::kDefaultRunDirectory,
                               platform::contextName(KELLIB_ASYNC_CONTEXTS));
}

/// A service's thread that is cancelled ends behind the call, with nothing left half done.
class NoCancellation {
 public:
  NoCancellation() { ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
  NoCancellation(const NoCancellation&) = delete;
  NoCancellation& operator=(const NoCancellation&) = delete;
  ~NoCancellation() { ::pthread_setcancelstate(before_, nullptr); }

 private:
  int before_ = PTHREAD_CANCEL_ENABLE;
};

/// The border: no exception passes it.
template <typename Call>
int guarded(const Call& call) noexcept {
  const NoCancellation whole;
  try {
    return call();
  } catch (const std::bad_alloc&) {
    return ENOMEM;
  } catch (...) {
    return EIO;
  }
}

}  // namespace
}  // namespace kelUser

struct kel_user {
  kel_user(int limit, std::string socketPath)
      : limitMilliseconds(limit), path(std::move(socketPath)), use(new kelUser::Use(::getpid(), path)) {}
  kel_user(const kel_user&) = delete;
  kel_user& operator=(const kel_user&) = delete;
  ~kel_user() {
    kelUser::Use* const last = use.load();
    if (last->process == ::getpid()) {
      delete last;
    } else {
      last->connection.abandon();
    }
  }

  const int limitMilliseconds;
  const std::string path;
  std::atomic<kelUser::Use*> use;
};

namespace kelUser {
namespace {

/// This process's use of the handle; in the child of a fork, made here.
Use& useOf(kel_user& handle) {
  Use* use = handle.use.load();
  const pid_t process = ::getpid();
  if (use->process == process) return *use;
  auto own = std::make_unique<Use>(process, handle.path);
  own->inherited = use;
  // Where another thread was faster, its use is everybody's.
  if (!handle.use.compare_exchange_strong(use, own.get())) return *use;
  use->connection.abandon();
  return *own.release();
}

int emitBatch(kel_user& handle, std::span<const kel_user_observation> observations, int limitMilliseconds) {
  const Time due = std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMilliseconds);
  UserConnection& connection = useOf(handle).connection;
  try {
    std::vector<char> batch;
    if (const int status = writeBatch(observations, &batch); status != 0) return status;
    return connection.send(batch, observations.size(), due);
  } catch (const std::bad_alloc&) {
    connection.drop(observations.size());
    return ENOMEM;
  }
}

}  // namespace
}  // namespace kelUser

int kel_user_open(int limit_ms, kel_user** handle) {
  if (limit_ms < 0 || handle == nullptr) return EINVAL;
  return kelUser::guarded([&] {
    *handle = std::make_unique<kel_user>(limit_ms, kelUser::socketPath()).release();
    return 0;
  });
}

int kel_user_emit(kel_user* handle, const char* id, const char* message, const kel_user_arg* args, size_t arg_count) {
  const kel_user_observation observation{id, message, args, arg_count, nullptr};
  return kel_user_emit_batch(handle, &observation, 1, -1);
}

int kel_user_emit_batch(kel_user* handle, const kel_user_observation* observations, size_t count, int limit_ms) {
  if (handle == nullptr || observations == nullptr) return EINVAL;
  return kelUser::guarded([&] {
    return kelUser::emitBatch(*handle, {observations, count}, limit_ms < 0 ? handle->limitMilliseconds : limit_ms);
  });
}

int kel_user_counts(kel_user* handle, kel_user_counters* counters) {
  if (handle == nullptr || counters == nullptr) return EINVAL;
  return kelUser::guarded([&] {
    *counters = kelUser::useOf(*handle).connection.counts();
    return 0;
  });
}

void kel_user_close(kel_user* handle) {
  const kelUser::NoCancellation whole;
  delete handle;
}
