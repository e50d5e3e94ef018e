#include "linux/virtualMachines.h"

#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>

#include "host/files.h"
#include "linux/actionTrail.h"
#include "linux/kernelFiles.h"

namespace platform {

namespace {

constexpr std::size_t kStatusBytes = 4096;

class KernelProcesses final : public ProcessControl {
 public:
  Answer<UniqueFd> hold(pid_t process) override {
    UniqueFd held(static_cast<int>(::syscall(SYS_pidfd_open, process, 0)));
    const int status = held ? 0 : errno;
    return {{status, {}}, std::move(held)};
  }
  int kill(const UniqueFd& held) override {
    return ::syscall(SYS_pidfd_send_signal, held.get(), SIGKILL, nullptr, 0) == 0 ? 0 : errno;
  }
};

/// Cuts the next word, and its NUL, off a command line.
std::string_view nextWord(std::string_view& commandLine) {
  const std::size_t end = commandLine.find('\0');
  const std::string_view word = commandLine.substr(0, end);
  commandLine.remove_prefix(end == std::string_view::npos ? commandLine.size() : end + 1);
  return word;
}

bool isEmulator(std::string_view program) {
  constexpr std::string_view kSystem = "qemu-system-";
  return (program.starts_with(kSystem) && program.size() > kSystem.size()) || program == "qemu-kvm" || program == "kvm";
}

/// Whether a process of that program has the name (comm) of the script that it runs.
bool isInterpreter(std::string_view program) {
  constexpr std::array<std::string_view, 7> kExact = {"sh", "bash", "dash", "ksh", "zsh", "busybox", "env"};
  return std::find(kExact.begin(), kExact.end(), program) != kExact.end() || program.starts_with("python") ||
         program.starts_with("perl");
}

/// Cuts a value off a list of options: up to a single comma, doubled ones standing for one.
std::string nextValue(std::string_view& options) {
  std::string value;
  while (!options.empty()) {
    const char c = options.front();
    options.remove_prefix(1);
    if (c == ',') {
      if (!options.starts_with(',')) break;
      options.remove_prefix(1);
    }
    value += c;
  }
  return value;
}

/// The guest's name in the value of -name: "guest=NAME", or a first value without a key.
std::string guestName(std::string_view options) {
  std::string name;
  for (bool first = true; !options.empty(); first = false) {
    const std::size_t end = options.find_first_of("=,");
    const bool keyed = end != std::string_view::npos && options[end] == '=';
    const std::string_view key = keyed ? options.substr(0, end) : first ? "guest" : "";
    if (keyed) options.remove_prefix(end + 1);
    std::string value = nextValue(options);
    if (key == "guest") name = std::move(value);
  }
  return name;
}

/// The process that a thread is of, where `proc` tells; a thread's number can be looked up, too.
std::optional<std::uint64_t> threadGroup(const std::string& directory) {
  constexpr std::string_view kGroup = "\nTgid:\t";
  const Answer<std::string> status = readStart(directory + "/status", kStatusBytes);
  const std::size_t at = status.value.find(kGroup);
  if (at == std::string::npos) return std::nullopt;
  const std::string_view rest = std::string_view(status.value).substr(at + kGroup.size());
  return parseNumber(rest.substr(0, rest.find('\n')));
}

Outcome noVm(std::int64_t worldId) {
  return {ESRCH, "process " + std::to_string(worldId) + " is no virtual machine"};
}

std::string described(const VmIdentity& vm) {
  return "process " + std::to_string(vm.worldId) + ", VM " + vm.name;
}

}  // namespace

bool isVirtualMachine(std::string_view comm, std::string_view commandLine) {
  std::string_view program = nextWord(commandLine);
  // Threads of the kernel and processes that have ended have no command line.
  if (program.empty()) return false;
  program.remove_prefix(program.rfind('/') + 1);
  return isEmulator(program) || (isEmulator(comm) && !isInterpreter(program));
}

std::optional<std::string> virtualMachineName(std::string_view commandLine) {
  std::string name;
  std::string uuid;
  (void)nextWord(commandLine);
  while (!commandLine.empty()) {
    std::string_view word = nextWord(commandLine);
    if (word.starts_with("--")) word.remove_prefix(1);
    if (word == "-name") {
      name = guestName(nextWord(commandLine));
    } else if (word == "-uuid") {
      uuid = nextWord(commandLine);
    }
  }
  if (name.empty()) name = std::move(uuid);
  if (name.empty()) return std::nullopt;
  return shownName(name);
}

std::shared_ptr<ProcessControl> kernelProcesses() {
  return std::make_shared<KernelProcesses>();
}

std::optional<VmIdentity> VirtualMachines::identify(pid_t process) const {
  const std::string directory = proc_ + "/" + std::to_string(process);
  const auto comm = readWord(directory + "/comm");
  if (!comm) return std::nullopt;
  const Answer<std::string> commandLine = readStart(directory + "/cmdline", kCommandLineBytes);
  if (!commandLine.ok() || !isVirtualMachine(*comm, commandLine.value)) return std::nullopt;
  const auto number = static_cast<std::uint64_t>(process);
  if (threadGroup(directory).value_or(number) != number) return std::nullopt;
  auto name = virtualMachineName(commandLine.value);
  return VmIdentity{process, process, name ? std::move(*name) : "pid " + std::to_string(process)};
}

Answer<std::vector<VmIdentity>> VirtualMachines::all() const {
  Answer<std::vector<VmIdentity>> vms;
  const int status = forEachName(proc_, [&](const char* name) {
    const auto process = parseNumber(name);
    if (!process || *process == 0 || *process > std::numeric_limits<pid_t>::max()) return true;
    if (auto vm = identify(static_cast<pid_t>(*process))) vms.value.push_back(std::move(*vm));
    return vms.value.size() < kVirtualMachines;
  });
  if (status != 0) return {notAvailable(proc_ + ": " + errnoText(status)), {}};
  std::sort(vms.value.begin(), vms.value.end(),
            [](const auto& left, const auto& right) { return left.worldId < right.worldId; });
  return vms;
}

Answer<VmIdentity> VirtualMachines::ofWorld(std::int64_t worldId) const {
  if (!exists(proc_)) return {notAvailable(proc_ + " is missing"), {}};
  if (worldId <= 0 || worldId > std::numeric_limits<pid_t>::max()) return {noVm(worldId), {}};
  auto vm = identify(static_cast<pid_t>(worldId));
  if (!vm) return {noVm(worldId), {}};
  return {{}, std::move(*vm)};
}

Answer<std::string> VirtualMachines::planKill(std::int64_t worldId) const {
  const Answer<VmIdentity> vm = ofWorld(worldId);
  if (!vm.ok()) return {vm.outcome, {}};
  return {{}, "send SIGKILL to " + described(vm.value)};
}

Outcome VirtualMachines::kill(std::int64_t worldId) const {
  const Answer<VmIdentity> meant = ofWorld(worldId);
  if (!meant.ok()) return meant.outcome;
  if (control_ == nullptr) return notAvailable(proc_ + " is not this machine's");
  const Answer<UniqueFd> held = control_->hold(static_cast<pid_t>(worldId));
  if (held.outcome.status == ESRCH || held.outcome.status == EINVAL) return noVm(worldId);
  if (held.outcome.status == ENOSYS) return notAvailable("this kernel cannot hold a process: it has no pidfd_open");
  if (!held.ok()) return {held.outcome.status, described(meant.value) + " cannot be held: " + reasonOf(held.outcome)};
  // Between the look and the hold the number may have passed to another process; from here it cannot.
  const Answer<VmIdentity> vm = ofWorld(worldId);
  if (!vm.ok()) return vm.outcome;
  if (vm.value.name != meant.value.name) return noVm(worldId);
  if (Outcome trail = recordAction("vm.kill", described(vm.value) + ", is killed"); !trail.ok()) return trail;
  const int status = control_->kill(held.value);
  if (status != 0) return {status, described(vm.value) + ", cannot be killed: " + errnoText(status)};
  return {};
}

}  // namespace platform
