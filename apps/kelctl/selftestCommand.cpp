// kelctl selftest: the way of an observation from end to end, through a daemon of its own.
#include <fmt/format.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "commandLine.h"
#include "console.h"
#include "eventListener.h"
#include "failure.h"
#include "host/files.h"
#include "kel/localAddress.h"
#include "localConnection.h"
#include "msgfmt/eventRecord.h"
#include "selftestDaemon.h"
#include "selftestInstallation.h"
#include "selftestLines.h"
#include "selftestSequence.h"
#include "stopSignals.h"

namespace kelctl {

namespace {

using std::chrono::steady_clock;
using Moment = EventListener::Moment;

constexpr double kDefaultSeconds = 60;
/// How often something is looked at that cannot be waited for.
constexpr std::chrono::milliseconds kLook{10};
/// How long a daemon that was told to end may take, and the events that it has sent.
constexpr std::chrono::seconds kGrace{2};

/// What the daemon posts when it tests posting. Two more are too large and must be dropped.
constexpr const char* kEvents[] = {
    "orn.problem.keldtestcorrelator.test.0",  "orn.problem.keldtestcorrelator.test.1d",
    "orn.problem.keldtestcorrelator.test.1s", "orn.audit.keldtestcorrelator.test",
    "orn.clear.keldtestcorrelator.test",
};
constexpr std::string_view kPostingTested = "INFO: Vprob tests completed";
constexpr std::string_view kCompleted = "INFO: Tests completed.";

/// Sends the batches in order without ever waiting for their receiver.
class Sequence {
 public:
  [[nodiscard]] bool sent() const { return next_ == batches_.size(); }

  /// Sends what the daemon takes; before it listens, nothing.
  void go() {
    if (!fd_ && !connect()) return;
    while (!sent()) {
      const Batch& batch = batches_[next_];
      if (::send(fd_.get(), batch.data(), batch.size(), MSG_NOSIGNAL | MSG_DONTWAIT) >= 0) {
        ++next_;
      } else if (errno != EINTR) {
        if (errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOBUFS) return;
        // The daemon is gone, which shows elsewhere.
        next_ = batches_.size();
      }
    }
  }

 private:
  bool connect() {
    sockaddr_un address;
    const std::string path = KelEmit::contextSocketPath(0);
    if (const int status = platform::localAddress(path, &address); status != 0) {
      throw Failure(fmt::format("cannot reach {}: {}", path, platform::errnoText(status)));
    }
    platform::UniqueFd fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd) throw Failure("cannot make a socket: " + platform::errnoText(errno));
    if (::connect(fd.get(), platform::socketAddress(address), sizeof address) != 0) return false;
    fd_ = std::move(fd);
    return true;
  }

  std::vector<Batch> batches_ = selftestBatches();
  std::size_t next_ = 0;
  platform::UniqueFd fd_;
};

/// What came of it, and what is shown while it comes.
class Report {
 public:
  explicit Report(bool verbose) : verbose_(verbose) {}

  void take(const std::vector<SelftestLine>& lines) {
    for (const SelftestLine& line : lines) take(line);
  }

  void takeEvent(const std::string& bytes) {
    const auto decoded = platform::decodeEventRecord(bytes);
    const auto* record = std::get_if<platform::EventRecord>(&decoded);
    events_.push_back(record != nullptr ? record->name : "what is no event record");
  }

  /// Prints a line. Where nobody reads any more, the run goes on for its exit status.
  void print(const std::string& line) {
    try {
      if (unheard_) return;
      out_.write(line + "\n");
      out_.flush();
    } catch (const OutputClosed&) {
      unheard_ = true;
    }
  }

  /// The daemon has said that it is through with posting, so events may be on their way.
  [[nodiscard]] bool awaitsEvents() const { return postingTested_ && events_.size() < std::size(kEvents); }
  [[nodiscard]] bool completed() const { return completed_; }

  /// Why the run is no success though the daemon ended without a failure; empty where it is one.
  [[nodiscard]] std::string objection() const {
    if (!completed_) return "the daemon ended without having completed the self-test";
    if (failures_ != 0) return "the daemon reported failures, but none in its exit status";
    if (passed_ != kSelftestObservations) {
      return fmt::format("{} of {} observations passed", passed_, kSelftestObservations);
    }
    for (const char* name : kEvents) {
      if (std::count(events_.begin(), events_.end(), name) != 1) {
        return fmt::format("event {} did not arrive once at the event socket", name);
      }
    }
    for (const std::string& name : events_) {
      if (!isExpected(name)) return fmt::format("{} arrived at the event socket", printable(name));
    }
    return {};
  }

  [[nodiscard]] std::string counts() const {
    const auto arrived = std::count_if(std::begin(kEvents), std::end(kEvents), [this](const char* name) {
      return std::find(events_.begin(), events_.end(), name) != events_.end();
    });
    return fmt::format("{} of {} observations, {} of {} events", passed_, kSelftestObservations, arrived,
                       std::size(kEvents));
  }

  [[nodiscard]] const Output& out() const { return out_; }

 private:
  static bool isExpected(const std::string& name) {
    return std::find(std::begin(kEvents), std::end(kEvents), name) != std::end(kEvents);
  }

  static Colour colourOf(Verdict verdict) {
    switch (verdict) {
      case Verdict::passed:
        return Colour::green;
      case Verdict::failed:
        return Colour::red;
      case Verdict::warning:
        return Colour::yellow;
      case Verdict::information:
        break;
    }
    return Colour::none;
  }

  void take(const SelftestLine& line) {
    if (!line.continued && line.verdict == Verdict::failed) ++failures_;
    if (line.text.starts_with("PASS: [")) ++passed_;
    if (line.text.starts_with(kPostingTested)) postingTested_ = true;
    if (line.text.starts_with(kCompleted)) completed_ = true;
    if (!verbose_ && line.verdict == Verdict::information) return;
    print(out_.paint(colourOf(line.verdict), printable(line.text)));
  }

  bool verbose_;
  bool unheard_ = false;
  Output out_;
  std::size_t passed_ = 0;
  std::size_t failures_ = 0;
  bool postingTested_ = false;
  bool completed_ = false;
  std::vector<std::string> events_;
};

/// One run, in the environment of a private instance.
class Selftest {
 public:
  Selftest(std::string program, const StopSignals& stop, Report& report)
      : program_(std::move(program)), stop_(stop), report_(report) {}

  /// Returns the daemon's exit status, or 1 with a complaint where there is no such thing. Throws Failure.
  int run(std::chrono::duration<double> limit) {
    const Moment due = steady_clock::now() + std::chrono::duration_cast<steady_clock::duration>(limit);
    const bool inTime = serve([this] { return hasEnded(); }, due);
    if (!inTime) endDaemon();
    report_.take(lines_.end());
    if (!inTime) {
      complain(fmt::format("the self-test has not ended within {} seconds; {} was ended", limit.count(), program_));
      return kFailed;
    }
    serve([this] { return !report_.awaitsEvents(); }, steady_clock::now() + kGrace);
    return judge(*child_.ending());
  }

 private:
  [[nodiscard]] bool hasEnded() { return child_.ending() && child_.output() < 0; }

  /// Sends, and takes output and events, until `over()` or `due`; false then. Throws Failure where a
  /// signal stops it.
  template <typename Over>
  bool serve(Over over, Moment due) {
    while (!over()) {
      const Moment now = steady_clock::now();
      if (now >= due) return false;
      sequence_.go();
      // The end of a process whose output has ended before, and a socket that has still to appear, are
      // looked for.
      const bool looking = !sequence_.sent() || child_.output() < 0;
      std::string record;
      const auto step = listener_.next(record, looking ? std::min(due, now + kLook) : due,
                                       {{stop_.fd(), POLLIN, 0}, {child_.output(), POLLIN, 0}});
      if (StopSignals::stopped()) throw Failure("the self-test was stopped by a signal");
      if (step == EventListener::Step::record || step == EventListener::Step::refused) report_.takeEvent(record);
      std::string output;
      child_.read(output);
      report_.take(lines_.add(output));
    }
    return true;
  }

  /// In order at first, so that it writes out what it has said.
  void endDaemon() {
    if (!child_.ending()) {
      child_.terminate();
      if (serve([this] { return hasEnded(); }, steady_clock::now() + kGrace)) return;
    }
    // What it started holds on to its output.
    child_.killAll();
    serve([this] { return hasEnded(); }, steady_clock::now() + kGrace);
  }

  int judge(const ChildProgram::Ending& ending) {
    if (!ending.exited) {
      complain(fmt::format("{} was ended by signal {} ({})", program_, ending.status, ::strsignal(ending.status)));
      return kFailed;
    }
    if (ending.status != 0) {
      if (!report_.completed()) {
        complain(
            fmt::format("{} ended with exit status {} before the self-test was complete", program_, ending.status));
      }
      return ending.status;
    }
    const std::string objection = report_.objection();
    if (objection.empty()) return kDone;
    complain(objection);
    return kFailed;
  }

  std::string program_;
  const StopSignals& stop_;
  Report& report_;
  EventListener listener_{runPath("hagd-vprob.sock")};
  ChildProgram child_{program_};
  Sequence sequence_;
  SelftestLines lines_;
};

/// The self-test proper: its exit status.
int runPrivately(const std::optional<std::string>& daemon, double seconds, const StopSignals& stop, Report& report) {
  try {
    const std::string program = daemon ? *daemon : findSelftestDaemon();
    const TemporaryDirectory directory;
    const PrivateInstance instance(directory.path());
    return Selftest(program, stop, report).run(std::chrono::duration<double>(seconds));
  } catch (const Failure& failure) {
    if (StopSignals::stopped()) throw;
    complain(failure.what());
    return kFailed;
  }
}

}  // namespace

int runSelftest(const Words& words) {
  std::optional<std::string> daemon;
  std::optional<double> timeout;
  bool verbose = false;
  bool installation = false;
  CommandLine line("selftest",
                   "Checks the way of an observation from end to end through a private daemon, then says whether the "
                   "installed one is reachable.");
  line.addText("--daemon", "PROGRAM", daemon,
               "the daemon with the test agents, by default the keld-selftest of this program");
  line.addSeconds("--timeout", timeout, fmt::format("give up after S seconds, by default {}", kDefaultSeconds));
  line.addFlag("--verbose", verbose, "show all that the daemon says");
  line.addFlag("--installation", installation, "exit with 1 also where the installation is not all reachable");
  line.setFooter("The exit status is the daemon's, its number of failures.");
  if (!line.parse(words)) return kDone;

  const StopSignals stop;
  Report report(verbose);
  const int status = runPrivately(daemon, timeout.value_or(kDefaultSeconds), stop, report);
  const std::string verdict = status == kDone ? "passed" : fmt::format("failed with exit status {}", status);
  report.print(report.out().paint(status == kDone ? Colour::green : Colour::red,
                                  fmt::format("self-test: {} ({})", verdict, report.counts())));
  const Installation seen = lookAtInstallation();
  report.print(seen.line);
  return status == kDone && installation && !seen.whole ? kFailed : status;
}

}  // namespace kelctl
