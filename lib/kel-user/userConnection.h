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

  /// Sends one batch of `observations` records within the time until `due`, whole or not at all, and
  /// counts them. Returns 0 or the errno value that kel_user_emit_batch() returns.
  int send(const std::vector<char>& batch, std::uint64_t observations, Time due);
  /// Counts what never came to be sent.
  void drop(std::uint64_t observations) { dropped_.fetch_add(observations, std::memory_order_relaxed); }
  [[nodiscard]] kel_user_counters counts() const;

  /// In the child of a fork: lets go of the parent's connection, which stays as it is. No thread of the
  /// parent exists here, whatever it held.
  void abandon();

 private:
  enum class Fate { taken, waiting, turnedAway };

  int sendInTurn(const std::vector<char>& batch, std::uint64_t observations, Time due);
  int sendConnected(const std::vector<char>& batch, std::uint64_t observations, bool isNew, Time due);
  int connect(Time due);
  /// Has connecting fail with `failure` for a while. Returns it.
  int pause(int failure);
  void disconnect(int status);
  [[nodiscard]] bool isDrained() const;
  [[nodiscard]] Fate awaitReader(Time due) const;
  [[nodiscard]] bool ownsDescriptor() const;

  const std::string path_;
  Turn turn_;
  // Its thread's, whose turn it is.
  platform::UniqueFd fd_;
  ino_t inode_ = 0;  ///< of fd_, which tells it from what took its number
  bool wasConnected_ = false;
  std::uint64_t unread_ = 0;  ///< observations sent on this connection, as far as not known to be read
  Time retryAt_;              ///< connecting fails with failure_ until then
  int failure_ = 0;

  std::atomic<std::uint64_t> sent_{0};
  std::atomic<std::uint64_t> dropped_{0};
  std::atomic<std::uint64_t> lost_{0};
  std::atomic<std::uint64_t> reconnects_{0};
};

}  // namespace kelUser
