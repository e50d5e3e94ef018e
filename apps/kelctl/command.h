// The sub-commands: one file each, and one table of them all.
#pragma once

#include <span>
#include <string>
#include <vector>

namespace kelctl {

using Words = std::vector<std::string>;

struct Command {
  const char* name;
  const char* summary;
  /// Takes the words behind the sub-command's name and returns the exit status. Throws Failure,
  /// UsageError and OutputClosed (failure.h).
  int (*run)(const Words& words);
};

int runEmit(const Words& words);
int runTrace(const Words& words);
int runCapture(const Words& words);
int runEvents(const Words& words);
int runOption(const Words& words);
int runHost(const Words& words);
int runCatalog(const Words& words);
int runSelftest(const Words& words);
int runStore(const Words& words);
int runBootReport(const Words& words);
int runReplay(const Words& words);
int runExplain(const Words& words);

/// All sub-commands in the order in which the help lists them.
std::span<const Command> commands();

/// Runs the tool with the words behind its own name and returns the exit status.
int runTool(const Words& words);

}  // namespace kelctl
