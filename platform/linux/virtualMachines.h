// Virtual machines: the processes of QEMU.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/host.h"
#include "host/uniqueFd.h"
#include "linux/linuxRoots.h"

namespace platform {

/// Longest beginning of a command line that is read, and most virtual machines that are listed.
inline constexpr std::size_t kCommandLineBytes = std::size_t{1} << 20;
inline constexpr std::size_t kVirtualMachines = std::size_t{1} << 16;

/// Whether a process is a virtual machine, by its name (proc(5): comm) and its command line, whose
/// words end in NUL: qemu-system-*, qemu-kvm or kvm.
bool isVirtualMachine(std::string_view comm, std::string_view commandLine);

/// The name that a virtual machine's command line gives it: that of -name, else of -uuid, else nothing.
std::optional<std::string> virtualMachineName(std::string_view commandLine);

/// Holding processes and ending them, apart so that no recorded process number meets a real process.
class ProcessControl {
 public:
  ProcessControl() = default;
  ProcessControl(const ProcessControl&) = delete;
  ProcessControl& operator=(const ProcessControl&) = delete;
  virtual ~ProcessControl() = default;
  /// A descriptor that stands for the process, whatever its number comes to mean later.
  virtual Answer<UniqueFd> hold(pid_t process) = 0;
  /// Sends SIGKILL. Returns 0 or an errno value.
  virtual int kill(const UniqueFd& held) = 0;
};

/// That of the kernel: pidfd_open(2), pidfd_send_signal(2).
std::shared_ptr<ProcessControl> kernelProcesses();

/// Reads `proc` at each call. World id and group id are the number of the process. Any thread.
class VirtualMachines {
 public:
  /// Without `control` nothing can be killed.
  VirtualMachines(const LinuxRoots& roots, std::shared_ptr<ProcessControl> control)
      : proc_(roots.proc), control_(std::move(control)) {}

  [[nodiscard]] Answer<std::vector<VmIdentity>> all() const;
  /// ESRCH where the process is no virtual machine, or there is none.
  [[nodiscard]] Answer<VmIdentity> ofWorld(std::int64_t worldId) const;

  [[nodiscard]] Answer<std::string> planKill(std::int64_t worldId) const;
  Outcome kill(std::int64_t worldId) const;

 private:
  [[nodiscard]] std::optional<VmIdentity> identify(pid_t process) const;

  std::string proc_;
  std::shared_ptr<ProcessControl> control_;
};

}  // namespace platform
