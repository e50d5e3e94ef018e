// Event posting: composing event records, the rate limit, and handing them on.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "keldDecision.h"
#include "keldDelivery.h"
#include "keldPost.h"
#include "keldTrace.h"
#include "platform/clock.h"

namespace keld {

/// At most 1000 posts in 60 seconds, the period anchored at its first post. From any thread.
class RateLimit {
 public:
  static constexpr std::int32_t kMaxPosts = 1000;
  static constexpr std::int64_t kPeriodSeconds = 60;

  /// Counts a post at second `now`; false where it is over the limit.
  bool allow(std::int64_t now);

 private:
  // Posting threads race for these; a miscount by one is accepted.
  std::atomic<std::int64_t> periodStart_{0};
  std::atomic<std::int32_t> periodCount_{0};
};

/// Dropped for the rate limit; the subject is the event.
inline constexpr Decides<std::int64_t, std::int64_t> kEventDropped{
    DecisionKind::holds, "posting.dropped",
    "dropped: more than {} events in the {} s that began with the first of them"};

/// The daemon's posting: one object for the process.
class VProb final : public Post {
 public:
  VProb(Clock& clock, EventTrace& trace, Delivery& delivery, DecisionListener* decisions = nullptr)
      : clock_(clock), trace_(trace), delivery_(delivery), decisions_(decisions) {}

  /// Creates the retry timer and reads the host's identity; called once, before any post.
  void VProb_Init();

 private:
  void post(bool queueOnly, VProbKind kind, const char* markedTemplate, std::va_list args) override;
  void postUnmarked(const char* id, const char* messageTemplate, std::va_list args) override;
  void compose(bool queueOnly, const char* prefix, const char* remainder, const char* messageTemplate,
               std::va_list args);

  Clock& clock_;
  EventTrace& trace_;
  Delivery& delivery_;
  DecisionListener* decisions_;
  RateLimit rateLimit_;
  std::array<char, 38> hostIdentity_{};  // written by VProb_Init only
};

}  // namespace keld
