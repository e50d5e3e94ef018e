#include "command.h"

#include <fmt/format.h>

#include "commandLine.h"
#include "console.h"
#include "failure.h"

namespace kelctl {

namespace {

constexpr Command kCommands[] = {
    {"emit", "send observations to the daemon", runEmit},
    {"trace", "show the observations read and the events posted", runTrace},
    {"capture", "record the trace, and what changes on the host", runCapture},
    {"events", "stand in for the management agent and print each event", runEvents},
    {"option", "list, get and set the kernel's advanced options", runOption},
    {"host", "show what the platform sees of this host", runHost},
    {"catalog", "list what the daemon translates, with events and texts", runCatalog},
    {"selftest", "check the way of an observation from end to end", runSelftest},
    {"store", "show and delete what the configuration store keeps", runStore},
    {"boot-report", "report once in a boot why the host went down before", runBootReport},
    {"replay", "run a capture again and print what the daemon would have said", runReplay},
    {"explain", "tell why events were, or were not, posted", runExplain},
};

std::string usage() {
  std::string text =
      "Operator's tool of the observation daemon keld.\n"
      "Usage: kelctl SUB-COMMAND [WORDS...]\n\n"
      "Sub-commands:\n";
  for (const Command& command : kCommands) text += fmt::format("  {:<12}{}\n", command.name, command.summary);
  text +=
      "\nOptions:\n"
      "  --help    print this, or with a sub-command, what that one takes\n"
      "  --version print the version\n"
      "\nExit status: 0 done, 1 failed, 2 wrong usage. The manual page is kelctl(1).\n";
  return text;
}

int print(const std::string& text) {
  Output out;
  out.write(text);
  out.flush();
  return kDone;
}

int dispatch(const Words& words) {
  if (words.empty()) throw UsageError("no sub-command given; see 'kelctl --help'");
  const std::string& name = words.front();
  if (name == "--help" || name == "-h") return print(usage());
  if (name == "--version") return print(fmt::format("kelctl {}\n", KELCTL_VERSION));
  for (const Command& command : kCommands) {
    if (name == command.name) return command.run(Words(words.begin() + 1, words.end()));
  }
  throw UsageError(
      fmt::format("unknown {} '{}'; see 'kelctl --help'", name.starts_with('-') ? "option" : "sub-command", name));
}

}  // namespace

std::span<const Command> commands() {
  return kCommands;
}

int runTool(const Words& words) {
  try {
    return dispatch(words);
  } catch (const UsageError& error) {
    complain(error.what());
    return kUsage;
  } catch (const OutputClosed&) {
    return kDone;
  } catch (const std::bad_alloc&) {
    complain("out of memory");
  } catch (const std::exception& error) {
    complain(error.what());
  }
  return kFailed;
}

}  // namespace kelctl
