// kelctl explain: why events were, or were not, posted.
#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>

#include "commandLine.h"
#include "console.h"
#include "explain.h"
#include "failure.h"
#include "host/facts.h"
#include "host/files.h"
#include "numbers.h"
#include "replayRun.h"
#include "stopSignals.h"
#include "traceConnection.h"

namespace kelctl {

namespace {

struct ExplainOptions {
  bool json = false;
  std::optional<std::string> file, host, from, until, line;
  std::vector<std::string> observations, events, subjects, options;
};

void declare(CommandLine& line, ExplainOptions& options) {
  line.addWord("CAPTURE", options.file,
               "the capture, - for standard input; without, the running daemon's recent history");
  line.addText("--line", "N", options.line, "explain the observation in line N of the capture");
  line.addTexts("--id", "GLOB", options.observations, "explain observations that match GLOB; may be repeated");
  line.addTexts("--event", "GLOB", options.events, "explain events that match GLOB; may be repeated");
  line.addTexts("--about", "GLOB", options.subjects,
                "explain what was decided about a NIC, path, page …; may be repeated");
  line.addText("--from", "TIME", options.from, "explain nothing before TIME, such as 2026-01-01T12:00:00Z");
  line.addText("--until", "TIME", options.until, "end at TIME");
  line.addText("--host", "model:FILE", options.host, "the host, in the place of what the capture says of it");
  line.addTexts("--option", "GROUP/NAME=VALUE", options.options, "an advanced option; may be repeated");
  line.addFlag("--json", options.json, "print one JSON object per line");
}

/// What the daemon remembers, as a capture of it.
std::string recentHistory() {
  constexpr std::size_t kChunkBytes = 65536;
  const platform::UniqueFd fd = connectToTrace();
  const StopSignals stop;
  const Json header{{"facts", Json(platform::hostFacts())}};
  std::string capture = "#keld-capture 1 " + jsonLine(header) + "\n";
  TraceSplitter splitter;
  bool inHistory = true;
  while (inHistory) {
    pollfd set[] = {{fd.get(), POLLIN, 0}, {stop.fd(), POLLIN, 0}};
    if (::poll(set, 2, -1) < 0) {
      if (errno == EINTR) continue;
      throw Failure("cannot wait for the trace: " + platform::errnoText(errno));
    }
    if (set[1].revents != 0) throw Failure("interrupted");
    char chunk[kChunkBytes];
    const ssize_t got = ::recv(fd.get(), chunk, sizeof chunk, MSG_DONTWAIT);
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (got <= 0) throw Failure("keld closed the trace before the end of the history");
    splitter.feed({chunk, static_cast<std::size_t>(got)}, [&](std::string_view line) {
      inHistory = inHistory && !line.empty();
      if (inHistory) capture.append(line.starts_with('#') ? "#bad " : "").append(line) += '\n';
      return inHistory;
    });
  }
  return capture;
}

ExplainWish wishOf(const ExplainOptions& options) {
  ExplainWish wish{std::nullopt, options.observations, options.events, options.subjects, {}, {}};
  if (options.line) {
    wish.line = parseUnsigned(*options.line);
    if (!wish.line || *wish.line == 0) throw UsageError("--line takes a number from 1 on");
  }
  if (options.from) wish.from = parseTime("--from", *options.from);
  if (options.until) wish.until = parseTime("--until", *options.until);
  return wish;
}

}  // namespace

int runExplain(const Words& words) {
  ExplainOptions options;
  CommandLine line("explain",
                   "Tells of observations and events which correlator took them, what its state said, what was decided "
                   "and by which number: also where nothing was posted.");
  declare(line, options);
  if (!line.parse(words)) return kDone;
  const ExplainWish wish = wishOf(options);
  ReplayInput input;
  input.file = options.file.value_or("the daemon's history");
  if (!options.file) input.content = recentHistory();
  input.host = options.host;
  input.until = wish.until;
  for (const std::string& option : options.options) addOption(input.options, option);
  Output out;
  Explainer explainer(wish, [&](const StoryStep& step) {
    out.write(options.json ? jsonLine(storyJson(step)) + "\n" : explainStep(step));
  });
  StoryTeller teller([&](StoryStep&& step) { explainer.take(std::move(step)); });
  bool sawObservation = false;
  replay(input, teller, [&](const CaptureItem& item) {
    sawObservation = sawObservation || std::holds_alternative<TraceEntry>(item.what);
  });
  teller.finish();
  out.flush();
  if (explainer.explained() == 0) {
    throw Failure(input.content && !sawObservation ? "the daemon remembers nothing yet"
                                                   : "nothing there that was asked for");
  }
  return kDone;
}

}  // namespace kelctl
