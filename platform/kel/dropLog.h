// How often a sender's dropped batches are mentioned in the log.
#pragma once

#include <sys/types.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>

namespace platform {

/// A process that sends batches, as its credentials name it.
struct BatchSender {
  pid_t process = 0;
  uid_t user = static_cast<uid_t>(-1);

  bool operator==(const BatchSender&) const = default;
};

/// Grants each sender one line a minute. It remembers a bounded number of senders; those for whom
/// there is no room share one line a minute. Every method may be called from any thread.
class DropLog {
 public:
  static constexpr std::chrono::seconds kPause{60};
  static constexpr std::size_t kSenders = 64;

  /// To be called for each dropped batch at `now`, a time that never runs back. Nothing where the
  /// drop is not to be mentioned, else how many drops went unmentioned since the last line.
  std::optional<std::uint64_t> claim(const BatchSender& sender, std::chrono::seconds now);

 private:
  struct Entry {
    BatchSender sender;
    std::optional<std::chrono::seconds> mentioned;
    std::uint64_t unmentioned = 0;

    [[nodiscard]] bool mayBeMentioned(std::chrono::seconds now) const {
      return !mentioned || now - *mentioned >= kPause;
    }
  };
  Entry& entryOf(const BatchSender& sender, std::chrono::seconds now);

  std::mutex mutex_;
  std::array<Entry, kSenders> entries_;
  Entry others_;
};

/// The process-wide one, which all contexts share.
DropLog& dropLog();

}  // namespace platform
