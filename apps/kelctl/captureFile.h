// The file, or the files, that a capture is written to.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/uniqueFd.h"

namespace kelctl {

struct CaptureFileOptions {
  std::string path;  ///< "-" for standard output
  bool force = false;
  bool append = false;
  std::optional<std::uint64_t> rotateBytes{};
  std::uint64_t keep = 8;  ///< older files, PATH.1 the newest of them
};

/// Whole lines into a file that holds whole lines at any time, but for the last one where the process is
/// killed. One thread. Everything throws Failure, or OutputClosed where a pipe's reader has gone.
class CaptureFile {
 public:
  /// Makes the file (mode 0600), or opens the one that is there as the options say, and adds the first line,
  /// which `header` makes for each file. What an earlier capture has left of a line at its end is cut off.
  CaptureFile(CaptureFileOptions options, std::function<std::string()> header);

  /// Adds a line, which has its line feed; to a new file where this one has reached its size.
  void add(std::string_view line);
  /// Adds a line to this file whatever its size.
  void addHere(std::string_view line);
  /// Writes what was added. Where that fails, what is not a whole line is cut off before it throws.
  void flush();

  /// Standard output's descriptor where that is the file, else -1.
  [[nodiscard]] int outputFd() const;

 private:
  void openFile();
  void openStandardOutput();
  /// Checks and keeps the descriptor of an open file.
  void adopt(platform::UniqueFd fd);
  /// Cuts the file behind its last whole line.
  void cutTornLine();
  void rotate();
  [[nodiscard]] std::string older(std::uint64_t number) const;
  [[noreturn]] void fail(int error, std::size_t written);

  CaptureFileOptions options_;
  std::function<std::string()> header_;
  platform::UniqueFd fd_;
  bool regular_ = false;
  std::uint64_t size_ = 0;         ///< of the file, without what is to be written
  std::uint64_t headerBytes_ = 0;  ///< where the lines behind the header begin
  std::string buffer_;
  std::vector<std::size_t> ends_;  ///< of the lines in the buffer
};

}  // namespace kelctl
