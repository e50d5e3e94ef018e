// The trace, as the daemon's trace socket gives it: entries out of bytes, and an entry's parts.
// docs/formats/trace-line.md has the format. Pure, and fit for bytes from anywhere.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace kelctl {

enum class TraceDirection { in, out };

/// An argument whose value the trace does not show ("???").
struct TraceUnknown {
  bool operator==(const TraceUnknown&) const = default;
};
/// Integers that fit are signed, larger ones unsigned. A null string reads "(null)", like that text.
using TraceArgument = std::variant<std::string, std::int64_t, std::uint64_t, TraceUnknown>;

struct TraceEntry {
  std::uint64_t renderedSeconds = 0;  ///< since the epoch
  std::uint32_t renderedNanoseconds = 0;
  TraceDirection direction = TraceDirection::in;
  std::uint64_t timestamp = 0;  ///< microseconds since the epoch
  std::string id;
  std::vector<TraceArgument> arguments;
};

/// Reads one entry without its final line feed; nothing where it is none.
std::optional<TraceEntry> parseTraceLine(std::string_view line);

/// The entry as one JSON object in one line: rendered_at, direction, time_us, id, args. Bytes that
/// are no UTF-8 are shown as U+FFFD, an unknown argument is null.
std::string traceJson(const TraceEntry& entry);

/// Parts a stream of bytes into entries. A line feed between an argument's quotes belongs to the
/// entry; quotes that are still open after kMaxEntryBytes are taken for none, so that nothing
/// a sender puts into an identifier can swallow what follows. An entry that begins with '#' (a
/// capture's own, docs/formats/capture.md) ends at its first line feed.
class TraceSplitter {
 public:
  static constexpr std::size_t kMaxEntryBytes = std::size_t{1} << 20;
  /// Longest entry that begins with '#'; a longer one is cut.
  static constexpr std::size_t kMaxDirectiveBytes = std::size_t{16} << 20;

  /// Takes more bytes, and calls `take` with each entry that they complete, without its line feed.
  /// An empty one is the mark between history and what follows it. Where `take` returns false,
  /// the rest is kept for the next call.
  void feed(std::string_view bytes, const std::function<bool(std::string_view)>& take);
  /// No more bytes come: quotes that are open are taken for none, too. What has no line feed stays pending.
  void finish(const std::function<bool(std::string_view)>& take);

  /// Inside `take`: whether the entry ended between quotes, or was cut.
  [[nodiscard]] bool recovered() const { return recovered_; }
  /// Inside `take`: whether the entry was cut, and what comes next is the rest of its line.
  [[nodiscard]] bool cut() const { return cut_; }

  /// Bytes of an entry that has not ended.
  [[nodiscard]] std::size_t pending() const { return pending_.size(); }

 private:
  void beginEntry(std::size_t at);
  void parts(const std::function<bool(std::string_view)>& take);
  [[nodiscard]] std::size_t findEnd();
  [[nodiscard]] std::size_t findDirectiveEnd();

  // Places in pending_; npos where there is none.
  std::string pending_;
  std::size_t begin_ = 0;                     // of the entry
  std::size_t scanned_ = 0;                   // what has not been looked at
  std::size_t firstEnd_ = std::string::npos;  // of the first line feed between quotes
  std::size_t closedAt_ = std::string::npos;  // of the last closing quote
  std::uint64_t commas_ = 0;                  // outside quotes
  bool quoted_ = false;
  bool fieldBegins_ = true;
  bool recovered_ = false;
  bool cut_ = false;
  bool ended_ = false;
};

}  // namespace kelctl
