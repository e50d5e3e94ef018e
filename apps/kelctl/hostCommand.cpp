// kelctl host: what the platform sees of this host, and what an action would do to it.
#include <fmt/format.h>

#include <limits>
#include <optional>

#include "commandLine.h"
#include "console.h"
#include "failure.h"
#include "host/describe.h"
#include "host/files.h"
#include "hostText.h"
#include "numbers.h"

namespace kelctl {

namespace {

using platform::Action;

/// What the daemon asks for when it retires a page.
constexpr const char* kRetireMode = "NiceRetire";
constexpr std::uint64_t kLargestId = std::numeric_limits<std::int64_t>::max();

std::optional<std::int64_t> parseId(const std::string& text) {
  const auto id = parseUnsigned(text, kLargestId);
  return id ? std::optional(static_cast<std::int64_t>(*id)) : std::nullopt;
}

std::optional<Action> nicDown(const std::string& text) {
  return text.empty() ? std::nullopt : std::optional<Action>(platform::NicDown{text});
}

std::optional<Action> cpuOffline(const std::string& text) {
  const auto cpu = parseId(text);
  return cpu ? std::optional<Action>(platform::CpuOffline{*cpu}) : std::nullopt;
}

std::optional<Action> pageRetire(const std::string& text) {
  const auto page = parseUnsigned(text);
  return page ? std::optional<Action>(platform::PageRetire{*page, 1, kRetireMode}) : std::nullopt;
}

std::optional<Action> vmKill(const std::string& text) {
  const auto worldId = parseId(text);
  return worldId ? std::optional<Action>(platform::VmKill{*worldId}) : std::nullopt;
}

struct ActionWord {
  const char* name;  ///< with the colon before its argument
  std::optional<Action> (*parse)(const std::string& argument);
};

constexpr ActionWord kActionWords[] = {
    {"nic.down:", nicDown},
    {"cpu.offline:", cpuOffline},
    {"page.retire:", pageRetire},
    {"vm.kill:", vmKill},
};
constexpr const char* kSwapReconfigure = "swap.reconfigure";

Action parseAction(const std::string& word) {
  if (word == kSwapReconfigure) return platform::SwapReconfigure{};
  for (const ActionWord& action : kActionWords) {
    if (!word.starts_with(action.name)) continue;
    if (const auto parsed = action.parse(word.substr(std::string(action.name).size()))) return *parsed;
  }
  throw UsageError(
      fmt::format("host: '{}' is no action; write nic.down:NAME, cpu.offline:N, page.retire:PAGE, vm.kill:ID or {}",
                  printable(word), kSwapReconfigure));
}

void print(const std::string& text) {
  Output out;
  out.write(text);
  out.flush();
}

void dryRun(const std::string& word) {
  const Action action = parseAction(word);
  const auto plan = platform::currentHost().plan(action);
  if (!plan.ok()) {
    throw Failure(fmt::format("{} would fail: {}", printable(word), printable(platform::reasonOf(plan.outcome))));
  }
  print(printable(plan.value) + "\n");
}

}  // namespace

int runHost(const Words& words) {
  bool json = false;
  std::optional<std::string> action;
  CommandLine line("host", "Shows what the platform sees of this host, or of the one that KORVEL_HOST names.");
  line.addFlag("--json", json, "print one JSON object");
  line.addText("--dry-run", "ACTION", action,
               "print instead what an action would do now, or why it would fail; nothing is done");
  line.exclude("--dry-run", "--json");
  line.setFooter("Actions: nic.down:NAME, cpu.offline:N, page.retire:PAGE, vm.kill:ID, swap.reconfigure");
  if (!line.parse(words)) return kDone;
  if (action) {
    dryRun(*action);
    return kDone;
  }
  const Json host = platform::describeHost();
  print(json ? host.dump(2, ' ', false, Json::error_handler_t::replace) + "\n" : hostText(host));
  return kDone;
}

}  // namespace kelctl
