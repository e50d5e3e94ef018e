#include "platform/kellib.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <cerrno>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "host/guarded.h"
#include "host/host.h"
#include "host/uniqueFd.h"
#include "kel/batch.h"
#include "kel/batchSocket.h"
#include "kel/contextSocket.h"
#include "kel/counters.h"

using platform::BatchSocket;
using platform::Channel;
using platform::CounterCells;
using platform::UniqueFd;

namespace {

/// A channel of the host, held to the same promise as a socket: sound batches only.
class HostChannel final : public Channel {
 public:
  HostChannel(std::unique_ptr<Channel> channel, std::shared_ptr<CounterCells> counters)
      : channel_(std::move(channel)), counters_(std::move(counters)) {}

  [[nodiscard]] int fd() const override { return channel_->fd(); }
  [[nodiscard]] const char* name() const override { return channel_->name(); }

  int read(void* buffer, std::size_t capacity, std::size_t* length) override {
    *length = 0;
    const int status = channel_->read(buffer, capacity, length);
    if (status != 0 || *length == 0) return status;
    const bool sound = *length < capacity && platform::checkBatch(buffer, *length, platform::Emitter::privileged) ==
                                                 platform::BatchVerdict::sound;
    (sound ? counters_->delivered : counters_->malformed).fetch_add(1, std::memory_order_relaxed);
    if (!sound) *length = 0;
    return 0;
  }

  int reset() override {
    const int status = channel_->reset();
    if (status == 0) counters_->oversized.fetch_add(1, std::memory_order_relaxed);
    return status;
  }

 private:
  std::unique_ptr<Channel> channel_;
  std::shared_ptr<CounterCells> counters_;
};

/// The user-level context itself, on which clients only arrive.
class Listener final : public Channel {
 public:
  /// `fd` stays the caller's.
  explicit Listener(int fd) : fd_(fd) { keepSpare(); }
  [[nodiscard]] int fd() const override { return fd_; }
  [[nodiscard]] const char* name() const override { return "user"; }

  /// Returns 0 with the connection of the client that waits first, or an errno value.
  int accept(UniqueFd* connection) {
    int status = tryAccept(connection);
    if (status == EMFILE || status == ENFILE) {
      // A client that stays in the queue keeps the listener readable, and its reader busy with nothing,
      // until a descriptor is free. The spare one is for turning it away.
      spare_.reset();
      UniqueFd turnedAway;
      static_cast<void>(tryAccept(&turnedAway));
      turnedAway.reset();
      keepSpare();
    }
    return status;
  }

  /// A caller that reads instead of accepting has no room for clients: one is turned away, so that
  /// the descriptor does not stay readable.
  int read(void* /*buffer*/, std::size_t /*capacity*/, std::size_t* length) override {
    *length = 0;
    UniqueFd turnedAway;
    const int status = accept(&turnedAway);
    return status == EAGAIN ? 0 : status;
  }

  int reset() override { return EINVAL; }

 private:
  int tryAccept(UniqueFd* connection) const {
    do {
      connection->reset(::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    } while (!*connection && errno == EINTR);
    return *connection ? 0 : errno;
  }

  void keepSpare() { spare_.reset(::open("/dev/null", O_RDONLY | O_CLOEXEC)); }

  int fd_;
  UniqueFd spare_;
};

}  // namespace

/// An open context. The source reads what the socket or the host's channel brings.
struct KelLib_Context {
  std::uint32_t number = 0;
  std::string name;
  std::shared_ptr<CounterCells> counters = std::make_shared<CounterCells>();
  platform::ContextSocket socket;
  std::unique_ptr<Channel> source;
  Listener* listener = nullptr;  ///< the source of the user-level context
};

namespace {

struct Connection {
  Connection(UniqueFd accepted, const KelLib_Context& user)
      : fd(std::move(accepted)), reader(fd.get(), BatchSocket::Kind::connection, user.name, user.counters) {}

  UniqueFd fd;
  BatchSocket reader;
};

/// Which reader belongs to a descriptor. Look-ups allocate nothing.
class Registry {
 public:
  void add(Channel* source) {
    const std::lock_guard lock(mutex_);
    entries_[source->fd()] = {source, nullptr};
  }

  void add(std::unique_ptr<Connection> connection) {
    const std::lock_guard lock(mutex_);
    Entry& entry = entries_[connection->fd.get()];
    entry = {&connection->reader, std::move(connection)};
  }

  void remove(const Channel* source) {
    const std::lock_guard lock(mutex_);
    entries_.erase(source->fd());
  }

  /// Gives up a connection; nullptr where `fd` is none.
  std::unique_ptr<Connection> removeConnection(int fd) {
    const std::lock_guard lock(mutex_);
    const auto found = entries_.find(fd);
    if (found == entries_.end() || found->second.connection == nullptr) return nullptr;
    std::unique_ptr<Connection> connection = std::move(found->second.connection);
    entries_.erase(found);
    return connection;
  }

  Channel* find(int fd) {
    const std::lock_guard lock(mutex_);
    const auto found = entries_.find(fd);
    return found == entries_.end() ? nullptr : found->second.source;
  }

 private:
  struct Entry {
    Channel* source = nullptr;
    std::unique_ptr<Connection> connection;  ///< owns the source of a connection
  };
  std::mutex mutex_;
  std::unordered_map<int, Entry> entries_;
};

Registry& registry() {
  // Kept for the process's life: contexts may be closed by threads that outlast main().
  static auto* const kept = new Registry;
  return *kept;
}

template <typename Operation>
int guarded(const Operation& operation) {
  return platform::guarded<int>("observation library", {ENOMEM, EINVAL}, operation);
}

int statusOf(const platform::Outcome& failure) {
  return failure.status > 0 ? failure.status : EIO;
}

/// Has the host's channel feed the context, or, where the host has none, its injection socket.
int openSource(KelLib_Context& context) {
  auto channel = platform::currentHost().openChannel(context.number);
  if (!channel.ok()) return statusOf(channel.outcome);
  if (channel.value) {
    context.source = std::make_unique<HostChannel>(std::move(channel.value), context.counters);
    return 0;
  }
  if (const int status = context.socket.open(context.name, SOCK_DGRAM); status != 0) return status;
  context.source =
      std::make_unique<BatchSocket>(context.socket.fd(), BatchSocket::Kind::injection, context.name, context.counters);
  return 0;
}

/// The host may refuse this context as it may refuse the others, but no channel feeds it.
int openListener(KelLib_Context& context) {
  const auto channel = platform::currentHost().openChannel(context.number);
  if (!channel.ok()) return statusOf(channel.outcome);
  if (const int status = context.socket.open(context.name, SOCK_SEQPACKET); status != 0) return status;
  auto listener = std::make_unique<Listener>(context.socket.fd());
  context.listener = listener.get();
  context.source = std::move(listener);
  return 0;
}

int openContext(std::uint32_t number, int (*open)(KelLib_Context&), KelLib_Handle* handle) {
  return guarded([&] {
    auto context = std::make_unique<KelLib_Context>();
    context->number = number;
    context->name = platform::contextName(number);
    if (const int status = open(*context); status != 0) return status;
    registry().add(context->source.get());
    *handle = context.release();
    return 0;
  });
}

}  // namespace

namespace platform {

ContextCounters contextCounters(KelLib_Handle handle) {
  return handle->counters->snapshot();
}

}  // namespace platform

int KelLib_AsyncContextOpen(std::uint32_t number, KelLib_Handle* handle) {
  if (handle == nullptr || number >= KELLIB_ASYNC_CONTEXTS) return EINVAL;
  return openContext(number, openSource, handle);
}

int KelLib_UserContextOpen(std::uint32_t number, KelLib_Handle* handle) {
  if (handle == nullptr || number != KELLIB_ASYNC_CONTEXTS) return EINVAL;
  return openContext(number, openListener, handle);
}

int KelLib_HandleToFd(KelLib_Handle handle, int* fd) {
  if (handle == nullptr) return EINVAL;
  *fd = handle->source->fd();
  return 0;
}

int KelLib_HandleToName(KelLib_Handle handle, const char** name) {
  if (handle == nullptr) return EINVAL;
  *name = handle->name.c_str();
  return 0;
}

int KelLib_ReadFromFd(int fd, void* buffer, std::size_t capacity, std::size_t* length) {
  *length = 0;
  Channel* source = registry().find(fd);
  if (source == nullptr) return EBADF;
  return guarded([&] { return source->read(buffer, capacity, length); });
}

int KelLib_Reset(KelLib_Handle handle) {
  if (handle == nullptr) return EINVAL;
  return guarded([&] { return handle->source->reset(); });
}

int KelLib_UserContextNewCnx(KelLib_Handle user, int* fd) {
  if (user == nullptr || user->listener == nullptr) return EINVAL;
  return guarded([&] {
    UniqueFd accepted;
    if (const int status = user->listener->accept(&accepted); status != 0) return status;
    if (const int status = platform::askForCredentials(accepted.get()); status != 0) return status;
    const int connected = accepted.get();
    registry().add(std::make_unique<Connection>(std::move(accepted), *user));
    *fd = connected;
    return 0;
  });
}

int KelLib_UserContextCloseCnx(int fd) {
  return registry().removeConnection(fd) != nullptr ? 0 : -EBADF;
}

int KelLib_Close(KelLib_Handle handle) {
  if (handle == nullptr) return EINVAL;
  const std::unique_ptr<KelLib_Context> context(handle);
  registry().remove(context->source.get());
  return 0;
}
