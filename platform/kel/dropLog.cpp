#include "kel/dropLog.h"

#include <utility>

namespace platform {

DropLog::Entry& DropLog::entryOf(const BatchSender& sender, std::chrono::seconds now) {
  Entry* vacant = nullptr;
  for (Entry& entry : entries_) {
    if (entry.mentioned && entry.sender == sender) return entry;
    if (vacant == nullptr && entry.mayBeMentioned(now)) vacant = &entry;
  }
  if (vacant == nullptr) return others_;
  *vacant = Entry{sender, std::nullopt, 0};
  return *vacant;
}

std::optional<std::uint64_t> DropLog::claim(const BatchSender& sender, std::chrono::seconds now) {
  const std::lock_guard lock(mutex_);
  Entry& entry = entryOf(sender, now);
  if (!entry.mayBeMentioned(now)) {
    ++entry.unmentioned;
    return std::nullopt;
  }
  entry.mentioned = now;
  return std::exchange(entry.unmentioned, 0);
}

DropLog& dropLog() {
  // Kept for the process's life, so that readers which outlast main() find it.
  static auto* const log = new DropLog;
  return *log;
}

}  // namespace platform
