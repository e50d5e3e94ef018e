// A capture (docs/formats/capture.md) out of bytes: what the trace said, and what was noted between. Pure, and
// fit for bytes from anywhere.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "json.h"
#include "platform/clock.h"
#include "traceLine.h"

namespace kelctl {

struct CaptureHeader {
  std::string host;
  std::string version;
  Json options = Json::object();
  Json facts = Json::object();
};
/// The host's facts are changed by a merge patch.
struct FactsChange {
  Json patch;
};
/// The host's clock was set.
struct ClockStep {
  WallTime to;
};
struct AgentChange {
  bool away = false;
};
struct DaemonRestart {};
struct CaptureEnd {};

struct CaptureItem {
  std::uint64_t line = 0;  ///< its number, from 1
  WallTime time;           ///< not of a header
  std::variant<CaptureHeader, TraceEntry, FactsChange, ClockStep, AgentChange, DaemonRestart, CaptureEnd> what;
  std::string_view text;  ///< the line itself, during the call
};

/// Moments that a capture may name: from 1970 to 2261.
inline constexpr std::uint64_t kLastCaptureSecond = 9'200'000'000;

/// Reads "SECONDS.NANOSECONDS"; nothing where it is none or lies beyond what a clock shows.
std::optional<WallTime> parseMoment(std::string_view text);

/// Parts bytes into items. Memory is bounded by the longest line.
class CaptureReader {
 public:
  /// Takes an item; false where no more is wanted.
  using Take = std::function<bool(const CaptureItem&)>;
  /// Takes a line that could not be read: its number and why, a phrase.
  using Refuse = std::function<void(std::uint64_t line, const std::string& reason)>;

  CaptureReader(Take take, Refuse refuse) : take_(std::move(take)), refuse_(std::move(refuse)) {}

  /// Takes more bytes. False once no more is wanted.
  bool feed(std::string_view bytes);
  /// No more bytes come: a quote that is open costs its own line alone.
  void finish();
  /// True where the last line had no end, and was left out.
  [[nodiscard]] bool cut() const { return splitter_.pending() != 0; }

 private:
  bool takeLine(std::string_view line);
  std::optional<CaptureItem> read(std::string_view line, std::string& reason) const;

  Take take_;
  Refuse refuse_;
  TraceSplitter splitter_;
  std::uint64_t line_ = 1;
  bool overlong_ = false;  // what comes is the rest of a line that was refused
  bool wanted_ = true;
};

}  // namespace kelctl
