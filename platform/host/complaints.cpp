#include "host/complaints.h"

#include <cstddef>
#include <map>
#include <mutex>
#include <set>

#include "host/platformLog.h"
#include "platform/clock.h"

namespace platform {

namespace {

/// Texts and subjects that are remembered; when more turn up, all are forgotten.
constexpr std::size_t kComplaintsRemembered = 1024;
/// How much of each counts: foreign files decide how long they are.
constexpr std::size_t kComplaintBytes = 1024;

struct Complaints {
  std::mutex mutex;
  std::set<std::string> once;
  std::map<std::string, std::chrono::seconds> sparse;
};

// Kept for the process's life, so that threads which outlast main() may still complain.
Complaints& complaints() {
  static auto* const kept = new Complaints;
  return *kept;
}

}  // namespace

void logOnce(const std::string& text) {
  Complaints& known = complaints();
  {
    const std::lock_guard lock(known.mutex);
    if (known.once.size() >= kComplaintsRemembered) known.once.clear();
    if (!known.once.insert(text.substr(0, kComplaintBytes)).second) return;
  }
  platformLog("%s", text.c_str());
}

void logSparsely(const std::string& subject, const std::string& text) {
  Complaints& known = complaints();
  const std::chrono::seconds now = systemClock().monotonic();
  const std::string key = subject.substr(0, kComplaintBytes);
  {
    const std::lock_guard lock(known.mutex);
    const auto last = known.sparse.find(key);
    if (last != known.sparse.end() && now - last->second < kComplaintPause) return;
    if (known.sparse.size() >= kComplaintsRemembered) known.sparse.clear();
    known.sparse[key] = now;
  }
  platformLog("%s", text.c_str());
}

}  // namespace platform
