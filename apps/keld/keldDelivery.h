// Delivery of event records to the management agent's socket, and the queue of those to be retried.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "keldDecision.h"
#include "keldTimer.h"

namespace keld {

// What became of an event that could not be sent at once; the subject is the event.
inline constexpr Decides<std::int64_t> kEventQueued{DecisionKind::waits, "posting.queued",
                                                    "could not be sent, to be tried again within {} s", -1};
inline constexpr Decides<std::int64_t> kEventResent{DecisionKind::concludes, "posting.resent",
                                                    "sent from the retry queue; failures before: {}"};
inline constexpr Decides<std::int64_t, std::int64_t> kEventWaiting{
    DecisionKind::waits, "posting.waiting", "still not sent; failures so far: {}, to be tried again in {} s", -2};
inline constexpr Decides<std::int64_t> kEventLost{DecisionKind::forgets, "posting.lost",
                                                  "given up, and lost; failures: {}"};

/// Sends event records, one connection each. From any thread; one object for the process.
class Delivery {
 public:
  static constexpr std::uint32_t kRetrySeconds = 180;
  static constexpr std::int32_t kMaxFailures = 4;
  static constexpr int kSendTimeoutSeconds = 5;

  Delivery(std::string socketPath, Timers& timers, DecisionListener* decisions = nullptr)
      : socketPath_(std::move(socketPath)), timers_(timers), decisions_(decisions) {}
  Delivery(const Delivery&) = delete;
  Delivery& operator=(const Delivery&) = delete;
  virtual ~Delivery() = default;

  /// Creates the retry timer; called once, before any record is queued.
  void createRetryTimer();

  /// One attempt. Returns 0 when every byte was sent, -1 otherwise. Logs nothing. Waits at most
  /// kSendTimeoutSeconds, and not at all while the receiver is known to be stalled.
  virtual int VProb_SendNow(const void* record, std::size_t length);
  /// Queues a copy of the record and sees to it that the retry timer is armed.
  void VProb_Enqueue(const void* record, std::size_t length);
  /// Tries every queued record once, the oldest first; the retry timer's callback.
  void VProb_FlushQueue();

 private:
  struct Entry {
    std::int32_t failures = 0;
    std::vector<char> data;
  };

  std::string socketPath_;
  Timers& timers_;
  DecisionListener* decisions_;
  int retryTimer_ = kNoTimer;
  std::atomic<bool> armed_{false};
  // The last connection timed out: until one succeeds, attempts do not wait, so that a receiver
  // that accepts nothing costs its five seconds once and not once per event.
  std::atomic<bool> stalled_{false};
  std::mutex mutex_;         // held across a whole flush
  std::deque<Entry> queue_;  // guarded by mutex_; oldest first
};

}  // namespace keld
