// Kernel control: advanced options, system-information nodes, virtual machines and swap as objects.
//
// Each object belongs to one thread; the calls behind it may be made from any. Failures are thrown
// as HostCtl::Lib::HostCtlException.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/hostctl.h"
#include "platform/vsi.h"

namespace QkCtl::Adv {

/// An integer option of the kernel, named by the path of its group and its own name.
class AdvancedIntegerOptionImpl {
 public:
  AdvancedIntegerOptionImpl(std::vector<std::string> groupPath, std::string name);
  /// The value now. Throws where the option cannot be read.
  [[nodiscard]] std::int64_t GetValue() const;

 private:
  std::vector<std::string> groupPath_;
  std::string name_;
};

}  // namespace QkCtl::Adv

namespace QkCtl::Util {

/// One access to a system-information node: name the instance, then Get or Set.
class Sysinfo {
 public:
  explicit Sysinfo(VSI_NodeID node);
  Sysinfo(const Sysinfo&) = delete;
  Sysinfo& operator=(const Sysinfo&) = delete;
  ~Sysinfo() = default;

  /// Adds a text element to the instance's name.
  void AddInstancePath(const std::string& element);
  /// Names the instance by number.
  void SetInstance(std::int64_t instance);
  /// Adds an integer or a text to what Set will write, or Get is asked with.
  void AddInput(std::int64_t value);
  void AddInput(const std::string& value);
  /// Writes the inputs to the node. Throws where the kernel refuses.
  void Set();
  /// Reads the node's value, exactly `size` bytes, into `out`. Throws on failure.
  void Get(void* out, std::size_t size);

 private:
  struct ListDeleter {
    void operator()(VSI_ParamList* list) const noexcept { VSI_ParamListDestroy(list); }
  };
  using List = std::unique_ptr<VSI_ParamList, ListDeleter>;

  VSI_NodeID node_;
  List instance_;
  List input_;
};

}  // namespace QkCtl::Util

namespace QkCtl::Resource {

/// A virtual machine that ran when it was looked up.
class VirtualMachine {
 public:
  explicit VirtualMachine(std::int64_t worldId) : worldId_(worldId) {}
  /// The name that operators know it by.
  [[nodiscard]] std::string GetDisplayName() const;
  /// Ends it at once; `flags` is 0.
  void Kill(int flags) const;

 private:
  std::int64_t worldId_;
};

class ResourceInfoImpl {
 public:
  /// The virtual machine of that world. Throws where there is none.
  [[nodiscard]] std::unique_ptr<VirtualMachine> GetVirtualMachineByWorldId(std::int32_t worldId) const;
};

}  // namespace QkCtl::Resource

namespace QkCtl::System {

class SwapInfoImpl {
 public:
  /// Places system swap anew; both arguments are 0. Waits until that is done or has failed.
  void ReconfigureSysSwap(int flags, int options) const;
};

}  // namespace QkCtl::System
