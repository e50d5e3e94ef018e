#include "recordingPost.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <ostream>
#include <utility>

namespace support {

namespace {

std::string format(const char* messageTemplate, std::va_list args) {
  std::va_list again;
  va_copy(again, args);
  const int length = std::vsnprintf(nullptr, 0, messageTemplate, args);
  std::string text(static_cast<std::size_t>(length) + 1, '\0');
  std::vsnprintf(text.data(), text.size(), messageTemplate, again);
  va_end(again);
  text.pop_back();
  return text;
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const PostedEvent& event) {
  static constexpr const char* kKinds[] = {"problem", "audit", "clear"};
  return out << kKinds[static_cast<int>(event.kind)] << ' ' << event.name << ": " << event.text
             << (event.queueOnly ? " (queue only)" : "");
}

PostedEvent problem(std::string name, std::string text) {
  return {keld::VProbKind::problem, std::move(name), std::move(text), false};
}
PostedEvent audit(std::string name, std::string text) {
  return {keld::VProbKind::audit, std::move(name), std::move(text), false};
}
PostedEvent clear(std::string name, std::string text) {
  return {keld::VProbKind::clear, std::move(name), std::move(text), false};
}

std::vector<PostedEvent> RecordingPost::take() {
  return std::exchange(events_, {});
}

void RecordingPost::post(bool queueOnly, keld::VProbKind kind, const char* markedTemplate, std::va_list args) {
  const std::string marked(markedTemplate);
  const std::size_t end = marked.find(')');
  events_.push_back({kind, marked.substr(8, end - 8), format(markedTemplate + end + 1, args), queueOnly});
}

void RecordingPost::postUnmarked(const char* id, const char* messageTemplate, std::va_list args) {
  events_.push_back({keld::VProbKind::problem, std::string("orn.problem.") + id, format(messageTemplate, args), false});
}

void RecordingLog::line(const char* text) {
  const std::lock_guard lock(mutex_);
  lines_.emplace_back(text);
}

std::vector<std::string> RecordingLog::take() {
  const std::lock_guard lock(mutex_);
  return std::exchange(lines_, {});
}

bool RecordingLog::has(const std::string& text) {
  const std::lock_guard lock(mutex_);
  return std::ranges::find(lines_, text) != lines_.end();
}

}  // namespace support
