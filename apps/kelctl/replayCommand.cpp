// kelctl replay: runs a capture through the daemon's own correlators.
#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <memory>

#include "commandLine.h"
#include "console.h"
#include "coverage.h"
#include "failure.h"
#include "host/files.h"
#include "numbers.h"
#include "replayDiff.h"
#include "replayOutput.h"
#include "replayPage.h"
#include "replayRun.h"
#include "replayStory.h"

namespace kelctl {

namespace {

struct ReplayOptions {
  bool text = false;
  bool json = false;
  bool diff = false;
  bool coverage = false;
  bool strict = false;
  std::vector<std::string> files;
  std::vector<std::string> globs;
  std::vector<std::string> options;
  std::vector<std::string> except;
  std::optional<std::string> host, until, from, speed, page;
};

void declare(CommandLine& line, ReplayOptions& options) {
  line.addWords("CAPTURE", options.files, "the capture, - for standard input; with --coverage files and directories");
  line.addFlag("--text", options.text, "print one line for each event and action, with its text");
  line.addFlag("--json", options.json, "print one JSON object per line");
  line.addFlag("--diff", options.diff, "compare with the capture's own events; exit status 1 where they differ");
  line.addText("--html", "FILE", options.page, "write a page with a time line of the replay");
  line.addFlag("--coverage", options.coverage,
               "list the rows, handlers and decisions that captures exercise; exit status 1 where some are not");
  line.addTexts("--except", "GLOB", options.except, "with --coverage, do without what matches GLOB; may be repeated");
  line.addText("--host", "model:FILE", options.host, "the host, in the place of what the capture says of it");
  line.addTexts("--option", "GROUP/NAME=VALUE", options.options, "an advanced option; may be repeated");
  line.addText("--from", "TIME", options.from, "print nothing before TIME, such as 2026-01-01T12:00:00Z");
  line.addText("--until", "TIME", options.until, "run nothing behind TIME");
  line.addTexts("--id", "GLOB", options.globs,
                "print only events and actions whose name matches GLOB; may be repeated");
  line.addText("--speed", "X", options.speed,
               "go X times as fast as it happened (1: as it happened), not as fast as can be");
  line.addFlag("--strict", options.strict, "end at the first line that cannot be read");
  for (const char* const form : {"--text", "--diff", "--html", "--coverage"}) line.exclude("--json", form);
  for (const char* const form : {"--diff", "--html", "--coverage"}) line.exclude("--text", form);
  line.exclude("--diff", "--html");
  line.exclude("--coverage", "--diff");
  line.exclude("--coverage", "--html");
  line.exclude("--html", "--id");
  for (const char* const other : {"--from", "--until", "--id", "--option", "--host", "--strict", "--speed"}) {
    line.exclude("--coverage", other);
  }
}

ReplayInput inputOf(const ReplayOptions& options) {
  if (options.files.size() != 1) throw UsageError("replay takes one capture; see 'kelctl replay --help'");
  ReplayInput input;
  input.file = options.files.front();
  input.host = options.host;
  for (const std::string& option : options.options) addOption(input.options, option);
  if (options.until) input.until = parseTime("--until", *options.until);
  if (options.speed) {
    input.speed = parseDouble(*options.speed);
    if (!input.speed || !(*input.speed > 0)) throw UsageError("--speed takes a number above 0");
  }
  input.strict = options.strict;
  input.progress = true;
  return input;
}

int printReplay(const ReplayOptions& options, const ReplayInput& input, std::optional<WallTime> from) {
  const ReplayForm form = options.json ? ReplayForm::json : options.text ? ReplayForm::text : ReplayForm::trace;
  Output out;
  ReplayLines lines(form, options.globs, from, [&](std::string_view line) {
    out.write(line);
    if (input.speed) out.flush();
  });
  replay(input, lines);
  out.flush();
  return kDone;
}

int printDiff(const ReplayOptions& options, const ReplayInput& input, std::optional<WallTime> from) {
  Output out;
  ReplayDiff diff(input.file == "-" ? "standard input" : input.file, options.globs, from, [&](std::string_view line) {
    const Colour colour = line.starts_with('-')   ? Colour::red
                          : line.starts_with('+') ? Colour::green
                          : line.starts_with('@') ? Colour::cyan
                                                  : Colour::none;
    out.write(colour == Colour::none ? std::string(line) : out.paint(colour, line.substr(0, line.size() - 1)) + "\n");
  });
  replay(input, diff, [&](const CaptureItem& item) { diff.see(item); });
  diff.finish();
  out.flush();
  return diff.differences() == 0 ? kDone : kFailed;
}

struct CloseFile {
  void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};

void writeFile(const std::string& path, const std::string& text) {
  const std::unique_ptr<std::FILE, CloseFile> file(std::fopen(path.c_str(), "wbe"));
  if (!file || std::fwrite(text.data(), 1, text.size(), file.get()) != text.size() || std::fflush(file.get()) != 0) {
    throw Failure(fmt::format("cannot write {}: {}", path, platform::errnoText(errno)));
  }
}

int writePage(const ReplayOptions& options, const ReplayInput& input, std::optional<WallTime> from) {
  constexpr std::size_t kMostSteps = 200'000;
  Json story{{"version", KELCTL_VERSION}, {"capture", input.file}, {"clock", "UTC"}};
  Json steps = Json::array();
  std::uint64_t observations = 0, events = 0, actions = 0, beyond = 0;
  StoryTeller teller([&](StoryStep&& step) {
    if (from && step.time < *from) return;
    if (steps.size() == kMostSteps) {
      ++beyond;
      return;
    }
    if (step.what == ReplayStep::What::observation) ++observations;
    for (const StoryTaken& taken : step.taken) {
      events += taken.events.size();
      actions += taken.actions.size();
    }
    steps.push_back(storyJson(step));
  });
  replay(input, teller, [&](const CaptureItem& item) {
    if (const auto* const header = std::get_if<CaptureHeader>(&item.what)) story["host"] = header->host;
  });
  teller.finish();
  if (beyond != 0) {
    complain(fmt::format("the page holds the first {} steps, {} more are left out; see --from and --until", kMostSteps,
                         beyond));
  }
  if (!steps.empty()) {
    story["from_us"] = steps.front()["time_us"];
    story["to_us"] = steps.back()["time_us"];
  }
  story["counts"] = {{"observations", observations}, {"events", events}, {"actions", actions}};
  story["steps"] = std::move(steps);
  std::string page;
  writeReplayPage(story, [&](std::string_view piece) { page.append(piece); });
  writeFile(*options.page, page);
  return kDone;
}

}  // namespace

int runReplay(const Words& words) {
  ReplayOptions options;
  CommandLine line("replay",
                   "Runs a capture through the daemon's correlators on the capture's own time, and prints what the "
                   "daemon would have said. Nothing is done to the host.");
  declare(line, options);
  if (!line.parse(words)) return kDone;
  if (!options.except.empty() && !options.coverage) throw UsageError("--except goes with --coverage only");
  if (options.page == "-") throw UsageError("--html takes the name of a file");
  if (options.coverage) return reportCoverage(options.files, options.except);
  const ReplayInput input = inputOf(options);
  const auto from = options.from ? std::optional(parseTime("--from", *options.from)) : std::nullopt;
  if (options.page) return writePage(options, input, from);
  if (options.diff) return printDiff(options, input, from);
  return printReplay(options, input, from);
}

}  // namespace kelctl
