// Machine checks that were injected into virtual machines, by guest page, for the last minute.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <set>
#include <utility>
#include <vector>

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

  /// Drops injections older than a minute, and virtual machines that have none left.
  void expire(std::int64_t now);
  void add(World world, Page page, std::int64_t now);
  /// By virtual machine and page; without virtual machines that were killed.
  [[nodiscard]] std::vector<Repeated> repeated();
  /// The virtual machine is not to be looked at again while it has injections.
  void setKilled(World world);
  [[nodiscard]] bool killed(World world) const;

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

  std::map<World, Machine> machines_;
  std::multimap<std::int64_t, Place> byTime_;
  std::set<std::pair<World, Page>> repeated_;  // every run that isRepeated()
};

}  // namespace keld
