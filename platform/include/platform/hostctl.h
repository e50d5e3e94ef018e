// The host management library: the objects of a host that a correlator looks up by name.
//
// Look-ups are answered afresh each time and may be made from any thread. A failure is thrown as
// HostCtl::Lib::HostCtlException.
#pragma once

#include <stdexcept>
#include <string>

namespace HostCtl::Lib {

/// A failed query or action; `status()` is the platform's errno-style code.
class HostCtlException : public std::runtime_error {
 public:
  explicit HostCtlException(const std::string& text, int status = 5);
  [[nodiscard]] int status() const noexcept { return status_; }

 private:
  int status_;
};

}  // namespace HostCtl::Lib

namespace HostCtl::Network {

/// A named set of ports of one virtual switch.
class PortGroup {
 public:
  PortGroup(std::string name, std::string virtualSwitch);
  [[nodiscard]] const std::string& GetName() const noexcept { return name_; }
  [[nodiscard]] const std::string& GetVirtualSwitchName() const noexcept { return virtualSwitch_; }

 private:
  std::string name_;
  std::string virtualSwitch_;
};

class NetworkFactory {
 public:
  /// The port group of that name. Throws HostCtlException where there is none.
  static PortGroup GetPortGroupByName(const std::string& name);
};

}  // namespace HostCtl::Network
