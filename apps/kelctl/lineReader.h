// Lines of a file or pipe, of bounded length.
#pragma once

#include <cstddef>
#include <string>

#include "stopSignals.h"

namespace kelctl {

/// Reads a descriptor, which stays the caller's, line by line as the lines come.
class LineReader {
 public:
  /// Bytes of a line, more than any record that can be sent needs.
  static constexpr std::size_t kMaxLineBytes = std::size_t{1} << 20;

  enum class Step { line, tooLong, end, stopped };

  LineReader(int fd, const StopSignals& stop) : fd_(fd), stop_(stop) {}

  /// Stores the next line without its line feed; the last one needs none. `tooLong` stands for a
  /// line that was passed over, `stopped` for a signal. Throws Failure where reading fails.
  Step next(std::string& line);

 private:
  enum class Fill { some, end, stopped };
  Fill fill();

  int fd_;
  const StopSignals& stop_;
  std::string buffer_;
  std::size_t begin_ = 0;  // of the line
  bool skipping_ = false;  // the rest of a line that is too long
  bool ended_ = false;
};

}  // namespace kelctl
