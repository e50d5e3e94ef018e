// Waiting for the thing itself, with a deadline that only a failure reaches.
#pragma once

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <string>
#include <system_error>

namespace e2e {

inline constexpr std::chrono::seconds kDeadline{30};

/// The harness could not do its part, or what it waited for did not come; fails the test.
struct HarnessError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Throws a HarnessError that names the operation and the text of `errno`.
[[noreturn]] inline void throwErrno(const std::string& operation) {
  throw HarnessError(operation + ": " + std::system_category().message(errno));
}

/// A point of real time by which something has to have happened.
class Deadline {
 public:
  explicit Deadline(std::chrono::milliseconds after = kDeadline) : end_(std::chrono::steady_clock::now() + after) {}

  [[nodiscard]] bool passed() const { return std::chrono::steady_clock::now() >= end_; }
  [[nodiscard]] std::chrono::steady_clock::time_point end() const { return end_; }
  /// What poll(2) takes; 0 once it has passed.
  [[nodiscard]] int leftMs() const {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end_ - std::chrono::steady_clock::now());
    return static_cast<int>(std::max<std::chrono::milliseconds::rep>(0, left.count()));
  }

 private:
  std::chrono::steady_clock::time_point end_;
};

/// Asks again and again until `holds()` is true; for states that cannot be waited on. Returns false
/// once the deadline has passed.
template <typename Predicate>
bool eventually(Predicate holds, Deadline deadline = Deadline{}) {
  constexpr int kProbeMs = 5;
  while (!holds()) {
    if (deadline.passed()) return false;
    ::poll(nullptr, 0, kProbeMs);
  }
  return true;
}

}  // namespace e2e
