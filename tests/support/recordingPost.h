// A post that keeps what was posted, and a log sink that keeps what was logged.
#pragma once

#include <iosfwd>
#include <mutex>
#include <string>
#include <vector>

#include "keldLog.h"
#include "keldPost.h"

namespace support {

struct PostedEvent {
  keld::VProbKind kind = keld::VProbKind::problem;
  std::string name;  // full event identifier
  std::string text;  // the message with its arguments
  bool queueOnly = false;

  bool operator==(const PostedEvent&) const = default;
};
std::ostream& operator<<(std::ostream& out, const PostedEvent& event);

/// What is expected of a posted event.
PostedEvent problem(std::string name, std::string text);
PostedEvent audit(std::string name, std::string text);
PostedEvent clear(std::string name, std::string text);

/// Keeps events in order. Used by one thread.
class RecordingPost final : public keld::Post {
 public:
  /// What was posted since the last call.
  std::vector<PostedEvent> take();

 private:
  void post(bool queueOnly, keld::VProbKind kind, const char* markedTemplate, std::va_list args) override;
  void postUnmarked(const char* id, const char* messageTemplate, std::va_list args) override;

  std::vector<PostedEvent> events_;
};

/// Takes the place of the system log while it lives.
class RecordingLog final : public keld::LogSink {
 public:
  RecordingLog() : previous_(keld::setLogSink(this)) {}
  ~RecordingLog() override { keld::setLogSink(previous_); }
  void line(const char* text) override;
  /// Lines since the last call, without time stamps.
  std::vector<std::string> take();
  /// True once a line equal to `text` was logged; does not take it.
  bool has(const std::string& text);

 private:
  keld::LogSink* previous_;
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

}  // namespace support
