// Corrected errors of physical memory pages in the current counting period, and the options that say
// when they are too many.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

#include "keldDecision.h"
#include "keldTimer.h"

namespace keld {

// Of a page.
inline constexpr Decides<std::int64_t, std::int64_t, std::int64_t> kPageCapped{
    DecisionKind::holds, "cpu.page.capped", "with {} more errors the count would pass {} and stays at {}"};
inline constexpr Decides<std::int64_t, std::int64_t> kPageBelow{
    DecisionKind::counts, "cpu.page.below", "{} corrected errors in this period, retirement is asked for above {}"};
inline constexpr Decides<std::int64_t, std::int64_t> kPageOver{
    DecisionKind::concludes, "cpu.page.over", "{} corrected errors in this period, retirement is asked for above {}"};
inline constexpr Decides<std::int64_t> kPageCleared{DecisionKind::forgets, "cpu.page.cleared",
                                                    "the period is over: {} corrected errors are forgotten"};
// Of an option.
inline constexpr Decides<std::int64_t, std::int64_t> kPageOptionChanged{DecisionKind::forgets, "cpu.option.changed",
                                                                        "is {} from now on, was {}"};
inline constexpr Decides<std::int64_t> kPageOptionUnreadable{DecisionKind::holds, "cpu.option.unreadable",
                                                             "cannot be read and stays {}"};

/// Counts by page number. Two timers of its own clear the counts at the end of each period (a period of
/// 0: never) and look at the options every minute; the object lives until neither its owner nor a timer needs it. The
/// timers run on their own thread, everything else is called by the owner's.
class PageErrors : public std::enable_shared_from_this<PageErrors> {
 public:
  static constexpr std::uint32_t kRefreshSeconds = 60;
  static constexpr std::uint32_t kDefaultThreshold = 2;
  static constexpr std::uint32_t kDefaultPeriodSeconds = 30;
  /// More than that a count does not hold.
  static constexpr std::int32_t kMaxCount = 255;

  /// `timers` outlives the object, and so does `decisions`, which is told by both threads.
  static std::shared_ptr<PageErrors> start(Timers& timers, DecisionListener* decisions = nullptr);

  /// Adds `errors` (of which the low 32 bits count) to the page's count. True where it is then above
  /// the threshold. A count that would pass its maximum stays where it was.
  bool add(std::uint64_t page, std::uint64_t errors);

 private:
  PageErrors(Timers& timers, DecisionListener* decisions) : timers_(timers), decisions_(decisions) {}
  void startTimers();
  void refreshOptions();
  void refreshThreshold();
  void refreshPeriod();
  void clear();

  Timers& timers_;
  DecisionListener* decisions_;
  int periodTimer_ = kNoTimer;  // set before a timer can fire
  std::atomic<std::uint32_t> threshold_{kDefaultThreshold};
  std::atomic<std::uint32_t> periodSeconds_{kDefaultPeriodSeconds};
  std::mutex mutex_;
  std::map<std::uint64_t, std::uint8_t> counts_;  // guarded by mutex_
};

}  // namespace keld
