// The connection of one process to the user-level context.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "host/uniqueFd.h"
#include "kel-user.h"
#include "turn.h"

namespace kelUser {

using Time = std::chrono::steady_clock::time_point;

/// Connects when there is something to send, and anew after the connection broke. Methods may be called
/// from any thread.
class UserConnection {
 public:
  explicit UserConnection(std::string socketPath) : path_(std::move(socketPath)) {}
  UserConnection(const UserConnection&) = delete;
  UserConnection& operator=(const UserConnection&) = delete;
  ~UserConnection() { abandon(); }

  /// Sends one batch of `observations` records within the time until `due`, whole or not at all, and
  /// counts them. Returns 0 or the errno value that kel_user_emit_batch() returns.
  int send(const std::vector<char>& batch, std::uint64_t observations, Time due);
  /// Counts what never came to be sent.
  void drop(std::uint64_t observations) { dropped_.fetch_add(observations, std::memory_order_relaxed); }
  [[nodiscard]] kel_user_counters counts() const;

  /// Lets go of the connection, and of nothing else that has its descriptor's number by now. In the child
  /// of a fork the parent's connection stays as it is; no thread of the parent exists here, whatever it
  /// held.
  void abandon();

 private:
  enum class Fate { taken, waiting, turnedAway };

  int sendInTurn(const std::vector<char>& batch, std::uint64_t observations, Time due);
  int sendConnected(const std::vector<char>& batch, std::uint64_t observations, Time due);
  int connect(Time due);
  /// Has connecting fail with `failure` for a while. Returns it.
  int pause(int failure);
  void disconnect(int status);
  /// Counts the connection, once: the daemon reads from it.
  void noteServed();
  [[nodiscard]] bool isDrained() const;
  [[nodiscard]] Fate awaitReader(Time due) const;
  [[nodiscard]] bool ownsDescriptor() const;

  const std::string path_;
  Turn turn_;
  // Its thread's, whose turn it is.
  platform::UniqueFd fd_;
  ino_t inode_ = 0;           ///< of fd_, which tells it from what took its number
  bool hasSent_ = false;      ///< on this connection
  bool isServed_ = false;     ///< it was read from
  bool wasServed_ = false;    ///< so was one before, or this one
  std::uint64_t unread_ = 0;  ///< observations sent on this connection, as far as not known to be read
  Time retryAt_;              ///< connecting fails with failure_ until then
  int failure_ = 0;

  std::atomic<std::uint64_t> sent_{0};
  std::atomic<std::uint64_t> dropped_{0};
  std::atomic<std::uint64_t> lost_{0};
  std::atomic<std::uint64_t> reconnects_{0};
};

}  // namespace kelUser
