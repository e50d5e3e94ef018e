// The main loop's poll descriptors: fixed slots for the contexts and the listeners, and behind them
// the user-level connections, kept without gaps. Used by the main thread only.
#pragma once

#include <poll.h>

#include <cstddef>
#include <memory>

namespace keld {

class PollSet {
 public:
  static constexpr std::size_t kKernelContexts = 24;
  static constexpr std::size_t kUserSlot = 24;
  static constexpr std::size_t kTraceSlot = 25;
  static constexpr std::size_t kFixedSlots = 26;
  static constexpr std::size_t kMaxConnections = 8;
  static constexpr std::size_t kAllSlots = kFixedSlots + kMaxConnections;

  /// Allocates the fixed slots, all free. False when memory is exhausted.
  [[nodiscard]] bool allocateFixed();
  /// Moves to an array with room for connections. Where it cannot be had the set goes on without.
  void allocateConnections();
  /// Releases the array with room for connections; the fixed one stays.
  void releaseConnections();

  [[nodiscard]] bool takesConnections() const { return all_ != nullptr; }
  [[nodiscard]] std::size_t count() const { return count_; }
  [[nodiscard]] pollfd* slots() { return all_ ? all_.get() : fixed_.get(); }
  pollfd& operator[](std::size_t slot) { return slots()[slot]; }

  /// Makes a slot ask for input on `fd`.
  void watch(std::size_t slot, int fd) { slots()[slot] = {fd, POLLIN, 0}; }
  /// Sets a slot's events back to readable and forgets what was seen.
  void clear(std::size_t slot) {
    slots()[slot].events = POLLIN;
    slots()[slot].revents = 0;
  }
  /// Adds a connection behind the others. False where all places are taken.
  bool addConnection(int fd);
  /// Takes connection `slot` out; the last connection moves into its place. True where one moved,
  /// which is then to be looked at in the same walk.
  bool removeConnection(std::size_t slot);

 private:
  std::unique_ptr<pollfd[]> fixed_;
  std::unique_ptr<pollfd[]> all_;
  std::size_t count_ = 0;
};

}  // namespace keld
