// Network namespaces for tests: devices of their own that nothing else on the machine sees.
#pragma once

#include <string>

namespace support {

/// Puts the calling thread, and what it starts from then on, into a new and empty network namespace.
/// Without privileges it enters a user namespace as well, which a process of several threads cannot.
/// The end of the object brings a privileged thread back; an unprivileged one cannot go back and
/// stays.
class NetNamespace {
 public:
  NetNamespace();
  NetNamespace(const NetNamespace&) = delete;
  NetNamespace& operator=(const NetNamespace&) = delete;
  ~NetNamespace();

  /// Why a test cannot run on this machine: namespaces are refused or iproute2's `ip` is missing.
  /// Empty once the namespace is entered.
  [[nodiscard]] const std::string& refusal() const { return refusal_; }

 private:
  int before_ = -1;
  std::string refusal_;
};

struct CommandResult {
  int status = 0;      ///< exit status, 127 where the program cannot be run
  std::string output;  ///< both streams
};

/// Runs iproute2's `ip` with words separated by blanks, such as "link set veth0 up".
CommandResult runIp(const std::string& words);
/// The same; throws std::runtime_error with the program's words where it fails.
void ip(const std::string& words);

/// Whether a device of that name is administratively up. Throws where there is none.
bool isLinkAdminUp(const std::string& device);

/// Why no tap can be made here, such as for want of privileges; empty where one can.
std::string tapRefusal();

/// A tap device, which is there as long as the object and has the carrier that it is told to have.
class Tap {
 public:
  /// Throws std::runtime_error where the kernel refuses.
  explicit Tap(const std::string& name);
  Tap(const Tap&) = delete;
  Tap& operator=(const Tap&) = delete;
  ~Tap();

  void setCarrier(bool carrier) const;

 private:
  int fd_ = -1;
};

}  // namespace support
