#include "platform/qkctl.h"

#include <cerrno>
#include <exception>
#include <utility>

#include "host/files.h"
#include "host/options.h"

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
  platform::Answer<platform::OptionFacts> option;
  try {
    option = platform::readOption(path);
  } catch (const std::exception& trouble) {
    throw HostCtlException("option " + path + ": " + trouble.what());
  }
  if (!option.ok()) {
    throw HostCtlException("option " + path + ": " + platform::reasonOf(option.outcome), option.outcome.status);
  }
  return option.value.value;
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

void Sysinfo::Set() {
  check(VSI_Set(node_, instance_.get(), input_.get()), node_, "set");
}

void Sysinfo::Get(void* out, std::size_t size) {
  check(VSI_Get(node_, instance_.get(), out, size), node_, "get");
}

}  // namespace Util

}  // namespace QkCtl
