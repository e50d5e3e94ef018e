// kelctl events: stands in for the management agent.
#include <fmt/format.h>
#include <unistd.h>

#include <limits>

#include "commandLine.h"
#include "console.h"
#include "eventListener.h"
#include "eventTexts.h"
#include "failure.h"
#include "localConnection.h"
#include "stopSignals.h"

namespace kelctl {

namespace {

Colour colourOf(platform::EventKind kind) {
  switch (kind) {
    case platform::EventKind::problem:
      return Colour::red;
    case platform::EventKind::audit:
      return Colour::yellow;
    case platform::EventKind::clear:
      break;
  }
  return Colour::green;
}

/// Prints events as they come.
class EventPrinter {
 public:
  explicit EventPrinter(bool json) : json_(json) {}

  /// Takes what one connection brought. True where it was an event.
  bool print(const std::string& bytes) {
    // A probe of whether anybody listens brings nothing.
    if (bytes.empty()) return false;
    const auto decoded = platform::decodeEventRecord(bytes);
    if (const auto* error = std::get_if<platform::EventRecordError>(&decoded)) {
      complain(fmt::format("no event record: {}, ignoring", error->reason));
      return false;
    }
    const auto& record = std::get<platform::EventRecord>(decoded);
    const std::string text = texts_.textOf(record);
    if (json_) {
      out_.write(eventJson(record, text) + "\n");
    } else {
      const Colour colour = colourOf(record.kind);
      out_.write(fmt::format("{} {} {} {}\n", out_.paint(Colour::dim, utcTime(record.timestamp)),
                             out_.paint(colour, fmt::format("{:<7}", platform::eventKindName(record.kind))),
                             out_.paint(colour, printable(record.name)), printable(text)));
    }
    out_.flush();
    return true;
  }

 private:
  bool json_;
  Output out_;
  EventTexts texts_{catalog()};
};

constexpr std::uint64_t kEndless = std::numeric_limits<std::uint64_t>::max();

/// Prints events until there were `count`. False where time, a signal or a closed output ended it before.
bool serve(bool json, std::uint64_t count, std::optional<EventListener::Moment> due) {
  const StopSignals stop;
  EventListener listener(runPath("hagd-vprob.sock"));
  EventPrinter printer(json);
  const std::vector<pollfd> watched{pollfd{stop.fd(), POLLIN, 0}, pollfd{STDOUT_FILENO, 0, 0}};
  std::string bytes;
  for (std::uint64_t printed = 0; printed < count;) {
    switch (listener.next(bytes, due, watched)) {
      case EventListener::Step::record:
        if (printer.print(bytes)) ++printed;
        break;
      case EventListener::Step::refused:
        complain("a connection brought too much or took too long, ignoring");
        break;
      case EventListener::Step::expired:
      case EventListener::Step::stopped:
        return false;
    }
  }
  return true;
}

}  // namespace

int runEvents(const Words& words) {
  bool json = false;
  std::optional<std::uint64_t> count;
  std::optional<double> timeout;
  CommandLine line("events", "Stands in for the management agent: owns the event socket and prints each event.");
  line.addFlag("--json", json, "print one JSON object per line");
  line.addCount("--count", count, 1, "end after N events");
  line.addSeconds("--timeout", timeout, "end after S seconds, with exit status 1 where --count is not reached");
  if (!line.parse(words)) return kDone;

  using std::chrono::steady_clock;
  std::optional<steady_clock::time_point> due;
  if (timeout) {
    due = steady_clock::now() +
          std::chrono::duration_cast<steady_clock::duration>(std::chrono::duration<double>(*timeout));
  }
  try {
    return serve(json, count.value_or(kEndless), due) || !count ? kDone : kFailed;
  } catch (const OutputClosed&) {
    return count ? kFailed : kDone;
  }
}

}  // namespace kelctl
