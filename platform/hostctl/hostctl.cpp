#include "platform/hostctl.h"

#include <exception>
#include <utility>

#include "host/files.h"
#include "host/host.h"

namespace HostCtl::Lib {

HostCtlException::HostCtlException(const std::string& text, int status) : std::runtime_error(text), status_(status) {}

}  // namespace HostCtl::Lib

namespace HostCtl::Network {

using Lib::HostCtlException;

PortGroup::PortGroup(std::string name, std::string virtualSwitch)
    : name_(std::move(name)), virtualSwitch_(std::move(virtualSwitch)) {}

PortGroup NetworkFactory::GetPortGroupByName(const std::string& name) {
  platform::Answer<platform::PortGroupFacts> facts;
  try {
    facts = platform::currentHost().portGroup(name);
  } catch (const std::exception& trouble) {
    throw HostCtlException("port group \"" + name + "\": " + trouble.what());
  }
  if (!facts.ok()) {
    throw HostCtlException("port group \"" + name + "\": " + platform::reasonOf(facts.outcome), facts.outcome.status);
  }
  return {std::move(facts.value.name), std::move(facts.value.virtualSwitch)};
}

}  // namespace HostCtl::Network
