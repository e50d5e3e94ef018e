// The events that a capture holds beside those that its replay posts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "replayEngine.h"

namespace kelctl {

/// Compares as the replay goes on. Two events are the same where identifier and arguments are, and their
/// seconds differ by one at most: timers count in seconds, and the daemon handled an observation a moment after
/// it was traced.
class ReplayDiff final : public ReplayWatcher {
 public:
  using Write = std::function<void(std::string_view)>;
  static constexpr std::int64_t kTolerance = 1;  ///< seconds

  ReplayDiff(std::string name, std::vector<std::string> globs, std::optional<WallTime> from, Write write)
      : name_(std::move(name)), globs_(std::move(globs)), from_(from), write_(std::move(write)) {}

  /// Takes an item of the capture after it was run.
  void see(const CaptureItem& item);
  void posted(std::string_view record, std::string_view line) override;
  /// Ends the comparison.
  void finish();

  [[nodiscard]] std::uint64_t differences() const { return differences_; }

 private:
  enum class Side { both, captured, replayed };
  struct Event {
    std::int64_t second = 0;
    Side side = Side::captured;
    std::string what;  ///< identifier and arguments
    std::string line;  ///< as it is shown
  };
  static constexpr std::size_t kContext = 3;
  /// So many events wait for their like, at most.
  static constexpr std::size_t kMostWaiting = 65'536;

  void add(std::string_view line, Side side);
  void settle(std::int64_t before);
  void show(const Event& event);
  void put(char mark, const Event& event);

  std::string name_;
  std::vector<std::string> globs_;
  std::optional<WallTime> from_;
  Write write_;
  std::deque<Event> waiting_;  // in the order of their seconds, as far as the capture keeps it
  std::deque<Event> context_;  // what was the same, not shown
  std::size_t after_ = 0;      // lines of context that are still to be shown
  bool begun_ = false;
  bool skipped_ = false;
  std::int64_t now_ = 0;
  std::uint64_t differences_ = 0;
};

}  // namespace kelctl
