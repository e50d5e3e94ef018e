#include "platform/qkctl.h"

#include <utility>

#include "host/files.h"
#include "host/options.h"
#include "hostctl/answered.h"

namespace QkCtl {

namespace {

using HostCtl::Lib::HostCtlException;

const char* nodeName(VSI_NodeID node) {
  switch (node) {
    case VSI_NODE_config_intOpts:
      return "config_intOpts";
    case VSI_NODE_system_systemUuid:
      return "system_systemUuid";
    case VSI_NODE_net_pNics_linkFlapping:
      return "net_pNics_linkFlapping";
    case VSI_NODE_vm_vmmGroupInfo:
      return "vm_vmmGroupInfo";
    case VSI_NODE_hardware_cpu_cpuInfo:
      return "hardware_cpu_cpuInfo";
    case VSI_NODE_hardware_cpu_cpuList:
      return "hardware_cpu_cpuList";
    case VSI_NODE_sched_offline_enabled:
      return "sched_offline_enabled";
    case VSI_NODE_sched_pcpus_offline:
      return "sched_pcpus_offline";
    case VSI_NODE_system_pageRetire_threshold:
      return "system_pageRetire_threshold";
    case VSI_NODE_system_pageRetire_MPNStatus:
      return "system_pageRetire_MPNStatus";
    case VSI_NODE_system_pageRetire_retireMPNs:
      return "system_pageRetire_retireMPNs";
  }
  return "of unknown number";
}

void check(QK_ReturnStatus status, VSI_NodeID node, const char* step) {
  if (status == QK_OK) return;
  const int error = QK_ReturnStatusToErrno(status);
  throw HostCtlException(
      std::string("system information node ") + nodeName(node) + ": " + step + ": " + platform::errnoText(error),
      error);
}

}  // namespace

namespace Adv {

AdvancedIntegerOptionImpl::AdvancedIntegerOptionImpl(std::vector<std::string> groupPath, std::string name)
    : groupPath_(std::move(groupPath)), name_(std::move(name)) {}

std::int64_t AdvancedIntegerOptionImpl::GetValue() const {
  std::string path;
  for (const std::string& group : groupPath_) path += group + "/";
  path += name_;
  return platform::answered("option " + path, [&] { return platform::readOption(path); }).value;
}

}  // namespace Adv

namespace Util {

Sysinfo::Sysinfo(VSI_NodeID node) : node_(node), instance_(VSI_ParamListCreate()), input_(VSI_ParamListCreate()) {
  if (instance_ == nullptr || input_ == nullptr) check(QK_NO_MEMORY, node_, "parameters");
}

void Sysinfo::AddInstancePath(const std::string& element) {
  check(VSI_ParamListAddString(instance_.get(), element.c_str()), node_, "instance");
}

void Sysinfo::SetInstance(std::int64_t instance) {
  instance_.reset(VSI_ParamListCreate());
  check(instance_ == nullptr ? QK_NO_MEMORY : VSI_ParamListAddInt(instance_.get(), instance), node_, "instance");
}

void Sysinfo::AddInput(std::int64_t value) {
  check(VSI_ParamListAddInt(input_.get(), value), node_, "input");
}

void Sysinfo::AddInput(const std::string& value) {
  check(VSI_ParamListAddString(input_.get(), value.c_str()), node_, "input");
}

void Sysinfo::Set() {
  check(VSI_Set(node_, instance_.get(), input_.get()), node_, "set");
}

void Sysinfo::Get(void* out, std::size_t size) {
  check(VSI_GetWithInput(node_, instance_.get(), input_.get(), out, size), node_, "get");
}

}  // namespace Util

namespace Resource {

namespace {

std::string machine(std::int64_t worldId) {
  return "virtual machine " + std::to_string(worldId);
}

}  // namespace

std::string VirtualMachine::GetDisplayName() const {
  return platform::answered(machine(worldId_), [&] { return platform::currentHost().vmName(worldId_); });
}

void VirtualMachine::Kill(int /*flags*/) const {
  platform::done(machine(worldId_), [&] { return platform::currentHost().vmKill(worldId_); });
}

std::unique_ptr<VirtualMachine> ResourceInfoImpl::GetVirtualMachineByWorldId(std::int32_t worldId) const {
  const auto vm = platform::answered(machine(worldId), [&] { return platform::currentHost().vmByWorldId(worldId); });
  return std::make_unique<VirtualMachine>(vm.worldId);
}

}  // namespace Resource

namespace System {

void SwapInfoImpl::ReconfigureSysSwap(int /*flags*/, int /*options*/) const {
  const platform::Outcome outcome = platform::asked("swap", [] { return platform::currentHost().swapReconfigure(); });
  if (!outcome.ok()) throw HostCtlException(platform::reasonOf(outcome), outcome.status);
}

}  // namespace System

}  // namespace QkCtl
