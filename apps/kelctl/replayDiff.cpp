#include "replayDiff.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>

#include "console.h"
#include "eventTexts.h"
#include "glob.h"
#include "traceLine.h"

namespace kelctl {

namespace {

std::int64_t secondOf(WallTime time) {
  return std::chrono::floor<std::chrono::seconds>(time.time_since_epoch()).count();
}

/// The part of a line behind its rendering time, direction and time stamp: what must be the same.
std::string_view withoutTimes(std::string_view line) {
  for (int field = 0; field < 3; ++field) line.remove_prefix(std::min(line.find(',') + 1, line.size()));
  return line.substr(0, line.find_last_not_of('\n') + 1);
}

}  // namespace

void ReplayDiff::see(const CaptureItem& item) {
  if (std::holds_alternative<CaptureHeader>(item.what)) return;
  const auto* const entry = std::get_if<TraceEntry>(&item.what);
  if (entry != nullptr && entry->direction == TraceDirection::out) {
    // The replay does not go on with an event, only with what happens next.
    add(item.text, Side::captured);
    return;
  }
  now_ = secondOf(item.time);
  settle(now_ - kTolerance - 1);
}

void ReplayDiff::posted(std::string_view /*record*/, std::string_view line) {
  add(line, Side::replayed);
}

void ReplayDiff::add(std::string_view line, Side side) {
  const auto entry = parseTraceLine(line.substr(0, line.find_last_not_of('\n') + 1));
  if (!entry || !matchesAny(globs_, entry->id)) return;
  const auto second = static_cast<std::int64_t>(entry->renderedSeconds);
  if (from_ && second < secondOf(*from_)) return;
  const std::string_view what = withoutTimes(line);
  const auto twin = std::find_if(waiting_.begin(), waiting_.end(), [&](const Event& other) {
    return other.side != Side::both && other.side != side && std::abs(other.second - second) <= kTolerance &&
           other.what == what;
  });
  if (twin != waiting_.end()) {
    twin->side = Side::both;
    return;
  }
  const std::uint64_t microseconds = entry->renderedSeconds * 1'000'000 + entry->renderedNanoseconds / 1000;
  Event event{second, side, std::string(what), fmt::format("{} {}", utcTime(microseconds), printable(what))};
  // A timer's event is told where its replay comes to it, perhaps behind later ones of the capture.
  const auto place =
      std::find_if(waiting_.rbegin(), waiting_.rend(), [&](const Event& other) { return other.second <= second; });
  waiting_.insert(place.base(), std::move(event));
  if (waiting_.size() > kMostWaiting) {
    show(waiting_.front());
    waiting_.pop_front();
  }
}

/// Events of an earlier second will not find their like any more.
void ReplayDiff::settle(std::int64_t before) {
  while (!waiting_.empty() && (waiting_.front().second < before || waiting_.front().second > now_ + 2 * kTolerance)) {
    show(waiting_.front());
    waiting_.pop_front();
  }
}

void ReplayDiff::finish() {
  for (const Event& event : waiting_) show(event);
  waiting_.clear();
}

void ReplayDiff::put(char mark, const Event& event) {
  write_(fmt::format("{}{}\n", mark, event.line));
}

void ReplayDiff::show(const Event& event) {
  if (event.side == Side::both) {
    if (after_ > 0) {
      --after_;
      put(' ', event);
      return;
    }
    context_.push_back(event);
    if (context_.size() > kContext) {
      context_.pop_front();
      skipped_ = true;
    }
    return;
  }
  if (!begun_) write_(fmt::format("--- {} (captured)\n+++ {} (replayed)\n", name_, name_));
  if (!begun_ || skipped_) {
    write_(fmt::format("@@ {} @@\n", (context_.empty() ? event : context_.front()).line.substr(0, 27)));
  }
  begun_ = true;
  skipped_ = false;
  for (const Event& before : context_) put(' ', before);
  context_.clear();
  put(event.side == Side::captured ? '-' : '+', event);
  after_ = kContext;
  ++differences_;
}

}  // namespace kelctl
