#include "console.h"

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "failure.h"
#include "host/files.h"

namespace kelctl {

namespace {

constexpr std::size_t kBufferBytes = 65536;

const char* escapeOf(Colour colour) {
  switch (colour) {
    case Colour::dim:
      return "\x1b[2m";
    case Colour::red:
      return "\x1b[31m";
    case Colour::green:
      return "\x1b[32m";
    case Colour::yellow:
      return "\x1b[33m";
    case Colour::blue:
      return "\x1b[34m";
    case Colour::magenta:
      return "\x1b[35m";
    case Colour::cyan:
      return "\x1b[36m";
    case Colour::bold:
      return "\x1b[1m";
    case Colour::none:
      break;
  }
  return "";
}

bool isSet(const char* variable) {
  const char* value = std::getenv(variable);
  return value != nullptr && *value != '\0';
}

bool dumbTerminal() {
  const char* terminal = std::getenv("TERM");
  return terminal == nullptr || std::strcmp(terminal, "dumb") == 0;
}

/// Writes all of `text`. Returns 0 or an errno value.
int writeAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(fd, text.data(), text.size());
    if (written >= 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno == EAGAIN) {
      // Somebody else made what we share with them non-blocking.
      pollfd ready{fd, POLLOUT, 0};
      (void)::poll(&ready, 1, -1);
    } else if (errno != EINTR) {
      return errno;
    }
  }
  return 0;
}

}  // namespace

Output::Output()
    : terminal_(::isatty(STDOUT_FILENO) == 1), colours_(terminal_ && !isSet("NO_COLOR") && !dumbTerminal()) {}

void Output::write(std::string_view text) {
  buffer_ += text;
  if (buffer_.size() >= kBufferBytes) flush();
}

void Output::flush() {
  std::string text;
  text.swap(buffer_);
  const int status = writeAll(STDOUT_FILENO, text);
  if (status == EPIPE) throw OutputClosed();
  if (status != 0) throw Failure("cannot write to standard output: " + platform::errnoText(status));
}

std::string Output::paint(Colour colour, std::string_view text) const {
  if (!colours_ || colour == Colour::none) return std::string(text);
  return fmt::format("{}{}\x1b[0m", escapeOf(colour), text);
}

void complain(std::string_view text) {
  // There is nobody left to tell where this fails.
  (void)writeAll(STDERR_FILENO, "kelctl: " + printable(text) + '\n');
}

std::string printable(std::string_view text) {
  std::string shown;
  shown.reserve(text.size());
  for (const char c : text) {
    const auto code = static_cast<unsigned char>(c);
    if (c == '\n') {
      shown += "\\n";
    } else if (c == '\t') {
      shown += "\\t";
    } else if (code < ' ' || code == 0x7f) {
      shown += fmt::format("\\x{:02x}", code);
    } else {
      shown += c;
    }
  }
  return shown;
}

}  // namespace kelctl
