// What a capture is made of: the trace as it comes, and between its lines what happened to the host.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "captureLines.h"
#include "clockSteps.h"
#include "traceLine.h"

namespace kelctl {

/// Where the recorder learns of the host. Both are called by its own thread.
struct CaptureSources {
  std::function<ClockReadings()> clocks;
  std::function<nlohmann::json()> facts;  ///< none: facts are not recorded
};

/// Turns the bytes of trace connections into a capture's lines. One thread.
class CaptureRecorder {
 public:
  using Write = std::function<void(std::string_view line)>;

  /// `history`: whether the first connection's history belongs to the capture. Facts are read now, and again
  /// `factsEvery` nanoseconds after they were at the earliest.
  CaptureRecorder(CaptureSources sources, bool history, std::int64_t factsEvery, Write write);

  /// The facts that the lines so far lead to; null where none are recorded.
  [[nodiscard]] const nlohmann::json& facts() const { return facts_; }

  /// A connection was made; the daemon sends its history first.
  void connected();
  /// Whether the history of the connection has ended.
  [[nodiscard]] bool live() const { return mode_ == Mode::live; }
  /// Takes what came, and writes the lines that it completes.
  void take(std::string_view bytes);
  /// Everything that was sent has been taken.
  void idle();
  /// The connection has ended. Returns the bytes of a line that has not.
  std::size_t disconnected();

 private:
  struct Entry {
    std::string text;
    bool recovered = false;
  };
  enum class Mode { skipHistory, takeHistory, compareHistory, live };

  void collect(std::string_view entry, bool recovered);
  void endHistory();
  void writeBatch();
  void lookAtClock();
  void lookAtFacts(CaptureTime time);
  void backdateStep(CaptureTime time);
  void writeStep();
  void writeEntry(const Entry& entry);
  [[nodiscard]] CaptureTime firstTime() const;

  CaptureSources sources_;
  std::int64_t factsEvery_;
  Write write_;
  TraceSplitter splitter_;
  ClockSteps clock_;
  std::optional<ClockSetting> step_;  ///< not written yet
  nlohmann::json facts_;
  std::int64_t factsRead_ = 0;  ///< by the monotonic clock
  Mode mode_ = Mode::live;
  bool wantsHistory_;
  bool served_ = false;  ///< it is known what came last
  bool restarted_ = false;
  std::vector<Entry> batch_;
  std::string newest_;  ///< the last entry of the trace
  std::optional<CaptureTime> newestTime_;
};

}  // namespace kelctl
