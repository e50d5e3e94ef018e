#include "linux/processors.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <set>
#include <string_view>

#include "host/files.h"
#include "host/keyValueLines.h"
#include "linux/actionTrail.h"
#include "linux/kernelFiles.h"

namespace platform {

namespace {

/// The first processor's part of cpuinfo is shorter by far.
constexpr std::size_t kInformationBytes = std::size_t{64} * 1024;
constexpr std::size_t kListBytes = std::size_t{256} * 1024;

/// A number of the topology: -1 where the firmware does not tell it, nothing where the file does not.
std::optional<std::int64_t> readTopology(const std::string& path) {
  const auto word = readWord(path);
  if (!word) return std::nullopt;
  if (*word == "-1") return -1;
  const auto number = parseNumber(*word);
  if (!number || *number > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) return std::nullopt;
  return static_cast<std::int64_t>(*number);
}

}  // namespace

std::optional<std::vector<std::uint32_t>> parseProcessorList(const std::string& text) {
  std::set<std::uint32_t> numbers;
  std::string_view rest = trimBlanks(std::string_view(text).substr(0, text.find('\n')));
  while (!rest.empty()) {
    const std::size_t comma = rest.find(',');
    const std::string_view range = rest.substr(0, comma);
    const std::size_t hyphen = range.find('-');
    const auto first = parseNumber(range.substr(0, hyphen));
    const auto last = hyphen == std::string_view::npos ? first : parseNumber(range.substr(hyphen + 1));
    if (!first || !last || *first > *last || *last >= kProcessors) return std::nullopt;
    for (std::uint64_t n = *first; n <= *last; ++n) numbers.insert(static_cast<std::uint32_t>(n));
    rest.remove_prefix(comma == std::string_view::npos ? rest.size() : comma + 1);
  }
  return std::vector<std::uint32_t>(numbers.begin(), numbers.end());
}

std::string Processors::file(std::uint32_t cpu, const char* name) const {
  return directory_ + "/cpu" + std::to_string(cpu) + "/" + name;
}

std::optional<std::vector<std::uint32_t>> Processors::list(const char* name) const {
  const Answer<std::string> text = readStart(directory_ + "/" + name, kListBytes);
  return text.ok() ? parseProcessorList(text.value) : std::nullopt;
}

Answer<std::string> Processors::vendor() const {
  const Answer<std::string> start = readStart(information_, kInformationBytes);
  if (!start.ok()) return {notAvailable(information_ + ": " + reasonOf(start.outcome)), {}};
  std::string_view text = start.value;
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    const std::size_t colon = line.find(':');
    if (colon != std::string_view::npos && trimBlanks(line.substr(0, colon)) == "vendor_id") {
      const std::string_view vendor = trimBlanks(line.substr(colon + 1));
      if (!vendor.empty()) return {{}, shownName(vendor)};
    }
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  }
  return {{ENOENT, "not available: this machine's processors name no vendor"}, {}};
}

std::optional<Processors::Core> Processors::coreOf(std::uint32_t cpu) const {
  const auto package = readTopology(file(cpu, "topology/physical_package_id"));
  const auto core = readTopology(file(cpu, "topology/core_id"));
  if (!package || !core) return std::nullopt;
  // Processors of cores that nobody knows are not taken for threads of one.
  const std::int64_t ownCore = -1 - std::int64_t{cpu};
  return Core{*package, readTopology(file(cpu, "topology/die_id")).value_or(0), *core < 0 ? ownCore : *core};
}

Answer<CpuCounts> Processors::counts() const {
  const auto present = list("present");
  if (!present || present->empty()) {
    return {notAvailable(directory_ + " does not list the processors"), {}};
  }
  std::set<Core> cores;
  const std::lock_guard lock(mutex_);
  for (const std::uint32_t cpu : *present) {
    if (const auto core = coreOf(cpu)) cores_[cpu] = *core;
    const auto known = cores_.find(cpu);
    if (known != cores_.end()) cores.insert(known->second);
  }
  if (cores.empty()) return {notAvailable(directory_ + " does not tell the processors' cores"), {}};
  return {{}, {static_cast<std::uint32_t>(cores.size()), static_cast<std::uint32_t>(present->size())}};
}

Answer<bool> Processors::offlineEnabled() const {
  const auto present = list("present");
  if (!present) return {notAvailable(directory_ + " does not list the processors"), {}};
  return {{}, std::any_of(present->begin(), present->end(), [&](std::uint32_t cpu) {
            return exists(file(cpu, "online"));
          })};
}

Answer<std::string> Processors::offlineFile(std::int64_t cpu) const {
  const std::string name = "processor " + std::to_string(cpu);
  const auto none = Outcome{ENODEV, "no " + name};
  if (cpu < 0 || cpu >= kProcessors) return {none, {}};
  const auto number = static_cast<std::uint32_t>(cpu);
  if (!exists(file(number, ""))) return {none, {}};
  std::string path = file(number, "online");
  const auto state = readWord(path);
  if (!state) return {notAvailable(name + " cannot be taken offline: it has no file " + path), {}};
  if (*state == "0") return {{EALREADY, name + " is already offline"}, {}};
  const auto online = list("online");
  if (!online) return {notAvailable(directory_ + " does not list the processors that are online"), {}};
  if (online->size() < 2) return {{EBUSY, name + " is the last one online"}, {}};
  return {{}, std::move(path)};
}

Answer<std::string> Processors::planOffline(std::int64_t cpu) const {
  Answer<std::string> path = offlineFile(cpu);
  if (path.ok()) path.value = "write \"0\" to " + path.value;
  return path;
}

Outcome Processors::offline(std::int64_t cpu) {
  const std::lock_guard lock(offlining_);
  const Answer<std::string> path = offlineFile(cpu);
  if (!path.ok()) return path.outcome;
  (void)counts();  // what core it is of cannot be seen any more afterwards
  const std::string name = "processor " + std::to_string(cpu);
  const std::string text = name + " is taken offline because of its corrected errors";
  if (Outcome trail = recordAction("cpu.offline", text); !trail.ok()) return trail;
  const int status = writeKernelFile(path.value, "0");
  if (status != 0) return {status, name + " cannot be taken offline: " + errnoText(status)};
  return {};
}

}  // namespace platform
