// kelctl trace: shows what the daemon's trace socket tells.
#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "commandLine.h"
#include "console.h"
#include "failure.h"
#include "glob.h"
#include "host/files.h"
#include "stopSignals.h"
#include "traceConnection.h"
#include "traceLine.h"

namespace kelctl {

namespace {

struct TraceOptions {
  bool follow = false;
  bool history = false;
  bool json = false;
  bool in = false;
  bool out = false;
  std::vector<std::string> globs;

  [[nodiscard]] bool filters() const { return in || out || !globs.empty(); }
  [[nodiscard]] bool wants(const TraceEntry& entry) const {
    const bool isIn = entry.direction == TraceDirection::in;
    return (isIn ? !out : !in) && matchesAny(globs, entry.id);
  }
};

Colour colourOf(const TraceEntry& entry) {
  if (entry.direction == TraceDirection::in) return Colour::cyan;
  if (entry.id.starts_with("orn.problem.")) return Colour::red;
  return entry.id.starts_with("orn.clear.") ? Colour::green : Colour::yellow;
}

/// Shows entries, history first.
class TraceView {
 public:
  TraceView(const TraceOptions& options, Output& out) : options_(options), out_(out) {}

  /// Takes one entry, or the empty line behind the history. False where nothing more is wanted.
  bool take(std::string_view line) {
    if (line.empty() && inHistory_) {
      inHistory_ = false;
      return options_.follow;
    }
    if (inHistory_ && options_.follow && !options_.history) return true;
    show(line);
    return true;
  }

  [[nodiscard]] bool inHistory() const { return inHistory_; }

 private:
  void show(std::string_view line) {
    const auto entry = parseTraceLine(line);
    if (!entry) {
      // Identifiers are not quoted: one with a comma or a line feed makes such a line.
      if (options_.json || options_.filters()) {
        complain(fmt::format("line not understood, skipped: {}", line.substr(0, kShownOfBadLine)));
      } else {
        put(line);
      }
    } else if (options_.wants(*entry)) {
      options_.json ? put(traceJson(*entry)) : showText(*entry, line);
    }
  }

  void showText(const TraceEntry& entry, std::string_view line) {
    if (!out_.colours()) return put(line);
    // Time, direction and time stamp have no commas.
    const std::size_t time = line.find(',') + 1;
    const std::size_t direction = line.find(',', time) + 1;
    const std::size_t id = line.find(',', direction) + 1;
    const Colour colour = colourOf(entry);
    out_.write(out_.paint(Colour::dim, line.substr(0, time)));
    out_.write(out_.paint(colour, line.substr(time, direction - time - 1)));
    out_.write(out_.paint(Colour::dim, line.substr(direction - 1, id - direction + 1)));
    out_.write(out_.paint(colour, printable(entry.id)));
    out_.write(printable(line.substr(id + entry.id.size())) + "\n");
  }

  void put(std::string_view line) {
    out_.write(out_.terminal() ? printable(line) : std::string(line));
    out_.write("\n");
  }

  static constexpr std::size_t kShownOfBadLine = 120;

  const TraceOptions& options_;
  Output& out_;
  bool inHistory_ = true;
};

/// Reads until the view has enough, a signal comes or nobody reads standard output any more.
int watch(int fd, TraceView& view, Output& out) {
  constexpr std::size_t kChunkBytes = 65536;
  const StopSignals stop;
  TraceSplitter splitter;
  bool wanted = true;
  const auto take = [&](std::string_view line) { return wanted = view.take(line); };
  while (wanted) {
    pollfd set[] = {{fd, POLLIN, 0}, {stop.fd(), POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
    if (::poll(set, 3, -1) < 0) {
      if (errno == EINTR) continue;
      throw Failure("cannot wait for the trace: " + platform::errnoText(errno));
    }
    if (set[1].revents != 0) break;
    if ((set[2].revents & POLLERR) != 0) throw OutputClosed();
    char chunk[kChunkBytes];
    const ssize_t got = ::recv(fd, chunk, sizeof chunk, MSG_DONTWAIT);
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (got <= 0) {
      out.flush();
      throw Failure(view.inHistory() ? "keld closed the trace before the end of the history"
                                     : "keld closed the trace; has it ended?");
    }
    splitter.feed(std::string_view(chunk, static_cast<std::size_t>(got)), take);
    out.flush();
  }
  out.flush();
  return kDone;
}

}  // namespace

int runTrace(const Words& words) {
  TraceOptions options;
  CommandLine line("trace", "Shows the observations that keld reads (IN) and the events that it posts (OUT).");
  line.addFlag("--follow", options.follow, "show what comes from now on, until interrupted, instead of the history");
  line.addFlag("--history", options.history, "show the history, with --follow before what comes");
  line.addFlag("--json", options.json, "print one JSON object per line");
  line.addFlag("--in", options.in, "show observations only");
  line.addFlag("--out", options.out, "show events only");
  line.exclude("--out", "--in");
  line.addTexts("--id", "GLOB", options.globs, "show only identifiers that match GLOB; may be repeated");
  if (!line.parse(words)) return kDone;
  Output out;
  const platform::UniqueFd fd = connectToTrace();
  TraceView view(options, out);
  return watch(fd.get(), view, out);
}

}  // namespace kelctl
