// A run directory of a test's own, a stand-in for the daemon in it, and a handle.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/uniqueFd.h"
#include "kel-user.h"

/// Waits for what only a failure does not bring, so long.
inline constexpr int kDeadlineMilliseconds = 20000;
/// The limit of handles where it plays no part.
inline constexpr int kAmpleMilliseconds = 10000;

using Batch = std::vector<char>;

/// What the daemon has of one client.
class Connection {
 public:
  explicit Connection(int fd) : fd_(fd) {}
  /// The next batch, waited for; empty where the client has gone.
  [[nodiscard]] Batch next() const;
  /// The identifiers of its records.
  [[nodiscard]] std::vector<std::string> nextIds() const;
  [[nodiscard]] pid_t peer() const;
  void close() { fd_.reset(); }

 private:
  platform::UniqueFd fd_;
};

/// The user-level context's socket.
class Listener {
 public:
  explicit Listener(const std::string& path, int backlog = 16);
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  ~Listener();

  /// The next client, waited for.
  [[nodiscard]] Connection accept() const;
  /// True where a client waits now.
  [[nodiscard]] bool hasClient() const;

 private:
  std::string path_;
  platform::UniqueFd fd_;
};

struct CloseHandle {
  void operator()(kel_user* handle) const { kel_user_close(handle); }
};
using Handle = std::unique_ptr<kel_user, CloseHandle>;

class KelUserTest : public testing::Test {
 protected:
  KelUserTest();
  ~KelUserTest() override;

  static Handle open(int limitMilliseconds = kAmpleMilliseconds);
  static int emit(const Handle& handle, const std::string& id = "kel.user.a");
  /// Emits until that works; for a handle that pauses between attempts. False where it never does.
  static bool eventuallyEmits(const Handle& handle, const std::string& id);
  static kel_user_counters counts(const Handle& handle);

  [[nodiscard]] std::string socketPath() const { return directory_ + "/kel/user.sock"; }
  /// A handle that has emitted one observation, and the daemon's end of it, which has read that.
  struct Connected {
    Handle handle;
    Connection connection;
  };
  static Connected connect(const Listener& listener, int limitMilliseconds = kAmpleMilliseconds);

  std::string directory_;
};
