// Machine checks that were injected into virtual machines, by guest page, for the last minute.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "keldDecision.h"

namespace keld {

/// Keeps each injection for a minute and knows which pages have too many. What a call costs grows with
/// the pages that have, not with all that is kept. Moments are seconds of the host's clock. Used by one thread.
class InjectionLog {
 public:
  using World = std::int32_t;
  using Page = std::uint64_t;

  static constexpr std::int64_t kKeepSeconds = 60;
  /// An injection of one page that is at least this one, this long after the first, is one too many.
  static constexpr std::size_t kMinInjections = 50;
  static constexpr std::int64_t kMinSpreadSeconds = 2;

  /// A page that its guest keeps using, and how many injections made that plain.
  struct Repeated {
    World world;
    Page page;
    std::size_t injections;
  };

  InjectionLog() = default;
  /// Tells `decisions`, which outlives it and may be nullptr, of each virtual machine's injections.
  explicit InjectionLog(DecisionListener* decisions) : decisions_(decisions) {}

  /// Drops injections older than a minute, and virtual machines that have none left.
  void expire(std::int64_t now);
  void add(World world, Page page, std::int64_t now);
  /// By virtual machine and page; without virtual machines that were killed.
  [[nodiscard]] std::vector<Repeated> repeated();
  /// The virtual machine is not to be looked at again while it has injections.
  void setKilled(World world);
  [[nodiscard]] bool killed(World world) const;
  /// What decisions call a virtual machine.
  static std::string subject(World world) { return "VM " + std::to_string(world); }

 private:
  /// The injections of one page of one virtual machine.
  struct Run {
    std::list<std::int64_t> times;       // in the order in which they came
    std::multiset<std::int64_t> sorted;  // the same, to see how far apart they are
    std::size_t needed = 0;              // of a repeated run, once it was asked for: injectionsNeeded()
  };
  struct Machine {
    bool killed = false;
    std::map<Page, Run> runs;
  };
  struct Place {
    World world;
    Page page;
    std::list<std::int64_t>::iterator time;
  };

  static bool isRepeated(const Run& run);
  static std::size_t injectionsNeeded(const Run& run);
  void drop(const Place& place);
  void tellAdded(World world, Page page) const;
  void tellExpired(std::int64_t now) const;
  void tellForgotten(const std::map<World, std::size_t>& dropped) const;

  DecisionListener* decisions_ = nullptr;
  std::map<World, Machine> machines_;
  std::multimap<std::int64_t, Place> byTime_;
  std::set<std::pair<World, Page>> repeated_;  // every run that isRepeated()
};

// Of a virtual machine.
inline constexpr Decides<std::int64_t, std::string_view, std::int64_t, std::int64_t, std::int64_t> kInjectionCounted{
    DecisionKind::counts, "pageretire.injected.counted",
    "{} injections for page {} over {} s: killed from {} over {} s on", InjectionLog::kKeepSeconds};
inline constexpr Decides<std::int64_t, std::string_view> kInjectionOfKilled{
    DecisionKind::holds, "pageretire.injected.already-killed", "already killed: {} injections for page {}"};
inline constexpr Decides<std::int64_t, std::string_view, std::int64_t, std::int64_t> kInjectionExpired{
    DecisionKind::forgets, "pageretire.injected.expired",
    "{} injections for page {} are more than {} s old and forgotten, {} are left"};
inline constexpr Decides<std::int64_t> kKillForgotten{DecisionKind::forgets, "pageretire.injected.kill-forgotten",
                                                      "no injection of the last {} s is left: it may be killed again"};

}  // namespace keld
