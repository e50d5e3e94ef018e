// How a sub-command ends where it cannot go on. main() turns each into one line on standard error
// and an exit status.
#pragma once

#include <stdexcept>
#include <string>

namespace kelctl {

inline constexpr int kDone = 0;
inline constexpr int kFailed = 1;
inline constexpr int kUsage = 2;

/// Something went wrong; exit status 1. The text is one line without the tool's name.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The words of the command line are wrong; exit status 2.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Whoever read standard output has gone; the tool ends without a word.
class OutputClosed : public std::exception {
 public:
  [[nodiscard]] const char* what() const noexcept override { return "standard output is closed"; }
};

}  // namespace kelctl
