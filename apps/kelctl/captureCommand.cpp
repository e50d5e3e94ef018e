// kelctl capture: records the trace for replay.
#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <utility>

#include "captureFile.h"
#include "captureRecorder.h"
#include "commandLine.h"
#include "console.h"
#include "eventTexts.h"
#include "failure.h"
#include "host/facts.h"
#include "host/files.h"
#include "localConnection.h"
#include "numbers.h"
#include "stopSignals.h"
#include "traceConnection.h"

namespace kelctl {

namespace {

using Json = nlohmann::json;
using std::chrono::steady_clock;

struct CaptureOptions {
  CaptureFileOptions file;
  bool history = false;
  bool facts = true;
  std::int64_t factsEvery = 0;  ///< nanoseconds
  std::optional<steady_clock::time_point> due{};
};

std::string hostName() {
  constexpr std::size_t kNameBytes = 256;
  std::array<char, kNameBytes> name{};
  return ::gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "";
}

std::string headerOf(const Json& facts) {
  constexpr std::int64_t kPerMicrosecond = 1000;
  Json header{{"host", hostName()},
              {"version", KELCTL_VERSION},
              {"started", utcTime(static_cast<std::uint64_t>(readClocks().real / kPerMicrosecond))}};
  header["options"] = facts.is_null() ? platform::optionsInForce() : facts.at("options");
  if (!facts.is_null()) header["facts"] = facts;
  return captureHeaderLine(header);
}

/// From the first connection to the end that was asked for.
class Capture {
 public:
  explicit Capture(const CaptureOptions& options)
      : options_(options),
        connection_(connectToTrace()),
        recorder_({readClocks, options.facts ? [] { return platform::hostFacts(); } : std::function<Json()>()},
                  options.history, options.factsEvery, [this](std::string_view line) { file_.add(line); }),
        file_(options.file, [this] { return headerOf(recorder_.facts()); }) {
    recorder_.connected();
  }

  void run() {
    while (wait()) {
      if (!connection_ && !comesBack()) break;
    }
    drain();
    if (connection_) leaveOut(recorder_.disconnected());
    recorder_.idle();
    file_.addHere(endLine(readClocks().real));
    file_.flush();
  }

 private:
  [[nodiscard]] bool expired() const { return options_.due && steady_clock::now() >= *options_.due; }

  /// Waits for something to happen and takes it. False where the capture is to end.
  bool wait() {
    std::array<pollfd, 4> set{{{connection_.get(), POLLIN, 0},
                               {stop_.fd(), POLLIN, 0},
                               {clockSet_.fd(), POLLIN, 0},
                               {file_.outputFd(), 0, 0}}};
    if (::poll(set.data(), set.size(), pollMilliseconds(options_.due)) < 0) {
      if (errno == EINTR) return true;
      throw Failure("cannot wait for the trace: " + platform::errnoText(errno));
    }
    if (set[1].revents != 0 || expired()) return false;
    if ((set[3].revents & POLLERR) != 0) throw OutputClosed();
    if (set[2].revents != 0) clockSet_.clear();
    if (set[0].revents != 0) {
      read();
    } else {
      recorder_.idle();
    }
    file_.flush();
    return true;
  }

  /// Takes what the connection holds. False where that is nothing.
  bool read() {
    constexpr std::size_t kChunkBytes = 65536;
    std::array<char, kChunkBytes> chunk;
    const ssize_t got = ::recv(connection_.get(), chunk.data(), chunk.size(), MSG_DONTWAIT);
    if (got < 0 && errno == EAGAIN) return false;
    if (got < 0 && errno == EINTR) return true;
    if (got > 0) {
      recorder_.take(std::string_view(chunk.data(), static_cast<std::size_t>(got)));
      noteBack();
    } else {
      leaveOut(recorder_.disconnected());
      connection_.reset();
    }
    return got > 0;
  }

  /// Takes what the daemon had sent when the end came.
  void drain() {
    const auto enough = steady_clock::now() + std::chrono::seconds(1);
    while (connection_ && steady_clock::now() < enough && read()) file_.flush();
  }

  /// Waits for a daemon that has gone. False where the capture is to end before it is back.
  bool comesBack() {
    if (!std::exchange(away_, true)) complain("keld closed the trace; waiting for it");
    do {
      // One that is ending, or has no descriptor left, still takes clients and closes them at once.
      if (!stop_.sleepUntil(options_.due ? std::min(attempt_, *options_.due) : attempt_) || expired()) return false;
      attempt_ = steady_clock::now() + std::chrono::seconds(1);
    } while (connectStream(tracePath(), &connection_) != 0);
    recorder_.idle();
    recorder_.connected();
    return true;
  }

  /// Says so once the daemon serves again.
  void noteBack() {
    if (!away_ || !recorder_.live()) return;
    away_ = false;
    complain("keld is back");
  }

  static void leaveOut(std::size_t bytes) {
    if (bytes > 0) complain(fmt::format("{} bytes of a line that did not end are left out", bytes));
  }

  const CaptureOptions& options_;
  platform::UniqueFd connection_;
  const StopSignals stop_;
  const ClockSetSignal clockSet_;
  CaptureRecorder recorder_;
  CaptureFile file_;
  bool away_ = false;
  steady_clock::time_point attempt_{};  ///< the next one, at the earliest
};

std::uint64_t parseRotation(const std::string& text) {
  const auto size = parseSize(text);
  if (!size || *size == 0)
    throw UsageError("capture: --rotate takes a size such as 64M, not '" + printable(text) + "'");
  return *size;
}

steady_clock::duration seconds(double count) {
  return std::chrono::duration_cast<steady_clock::duration>(std::chrono::duration<double>(count));
}

}  // namespace

int runCapture(const Words& words) {
  CaptureOptions options;
  std::optional<std::string> rotate;
  std::optional<std::uint64_t> keep;
  std::optional<double> duration;
  std::optional<double> factsEvery;
  bool noFacts = false;
  CommandLine line("capture", "Records what keld reads and posts, and what changes on the host, until interrupted.");
  line.addWord("FILE", options.file.path, "where to; '-' is standard output");
  line.addFlag("--history", options.history, "begin with the daemon's recent history");
  line.addFlag("--append", options.file.append, "add to a capture that is there");
  line.addFlag("--force", options.file.force, "replace a file that is there");
  line.addText("--rotate", "SIZE", rotate, "go on in a new file at SIZE (such as 64M); FILE.1 is the newest older one");
  line.addCount("--keep", keep, 1, "older files that are kept with --rotate (8)");
  line.addSeconds("--duration", duration, "end after S seconds");
  line.addSeconds("--facts-every", factsEvery, "seconds between two looks at the host (1); with lines only");
  line.addFlag("--no-facts", noFacts, "record nothing of the host but its options at the start");
  line.exclude("--append", "--force");
  line.exclude("--no-facts", "--facts-every");
  if (!line.parse(words)) return kDone;

  if (rotate) options.file.rotateBytes = parseRotation(*rotate);
  if (keep && !rotate) throw UsageError("capture: --keep goes with --rotate");
  options.file.keep = keep.value_or(options.file.keep);
  if (options.file.path == "-" && (rotate || options.file.append || options.file.force)) {
    throw UsageError("capture: standard output takes no --append, --force or --rotate");
  }
  options.facts = !noFacts;
  options.factsEvery = std::chrono::nanoseconds(seconds(factsEvery.value_or(1))).count();
  if (duration) options.due = steady_clock::now() + seconds(*duration);
  // A file that may grow no further is seen where it is written to.
  (void)std::signal(SIGXFSZ, SIG_IGN);
  Capture(options).run();
  return kDone;
}

}  // namespace kelctl
