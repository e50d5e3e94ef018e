#include "host/host.h"

#include <atomic>
#include <stdexcept>

#include "host/paths.h"
#include "linux/linuxHost.h"
#include "model/modelHost.h"

namespace platform {

namespace {

constexpr std::string_view kModelPrefix = "model:";

/// The host that a ScopedHost put in force, if any.
std::atomic<Host*>& hostInForce() {
  static std::atomic<Host*> host{nullptr};
  return host;
}

}  // namespace

Host& currentHost() {
  if (Host* const host = hostInForce().load(std::memory_order_acquire)) return *host;
  // Kept for the process's life: threads that outlast main() may still ask it.
  static Host* const own = makeHost(hostDescription()).release();
  return *own;
}

ScopedHost::ScopedHost(std::unique_ptr<Host> host)
    : mine_(std::move(host)), previous_(hostInForce().exchange(mine_.get(), std::memory_order_acq_rel)) {}

ScopedHost::~ScopedHost() {
  hostInForce().store(previous_, std::memory_order_release);
}

std::unique_ptr<Host> makeHost(const std::string& description) {
  if (description == "linux") return makeLinuxHost();
  if (description.starts_with(kModelPrefix) && description.size() > kModelPrefix.size()) {
    return std::make_unique<ModelHost>(description.substr(kModelPrefix.size()));
  }
  throw std::invalid_argument("KORVEL_HOST is \"" + description + "\"; it must be linux or model:FILE");
}

}  // namespace platform
