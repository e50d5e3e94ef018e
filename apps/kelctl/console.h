// Standard output and standard error as the tool uses them.
#pragma once

#include <string>
#include <string_view>

namespace kelctl {

enum class Colour { none, dim, red, green, yellow, blue, magenta, cyan, bold };

/// Standard output, buffered until flush(). Used by one thread; SIGPIPE must be ignored.
class Output {
 public:
  Output();
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;
  /// Writes nothing: what was not flushed belonged to something that failed.
  ~Output() = default;

  /// Appends, and flushes once there is much. Throws as flush() does.
  void write(std::string_view text);
  /// Writes out what is there. Throws OutputClosed where nobody reads any more, Failure where it
  /// cannot be written.
  void flush();

  /// True on a terminal that shows colours, unless NO_COLOR is set.
  [[nodiscard]] bool colours() const { return colours_; }
  [[nodiscard]] bool terminal() const { return terminal_; }
  /// `text` between the escapes of its colour, or as it is where there are no colours.
  [[nodiscard]] std::string paint(Colour colour, std::string_view text) const;

 private:
  bool terminal_ = false;
  bool colours_ = false;
  std::string buffer_;
};

/// Writes "kelctl: TEXT" as one line to standard error.
void complain(std::string_view text);

/// Text from outside as one line that no terminal takes for commands: control characters are shown
/// as \n, \t or \xNN.
std::string printable(std::string_view text);

}  // namespace kelctl
