// Any bytes in place of what the kernel says about links: parsed, then taken in message by message and
// as a dump.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <vector>

#include "linux/linkMessage.h"
#include "linux/linkTable.h"

namespace {

void check(const std::vector<platform::LinkChange>& changes, const platform::LinkMessage* message) {
  if (message != nullptr && changes.size() > 2 * platform::kFlapsReported + 1) std::abort();
  for (const platform::LinkChange& change : changes) {
    if (change.nic.empty()) std::abort();
    for (const platform::UplinkTransition& transition : change.transitions) {
      if (transition.active < 0 || transition.active > transition.total) std::abort();
      if (transition.total == 0 || (change.up && transition.active == 0)) std::abort();
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const platform::LinkDatagram datagram =
      platform::parseLinkDatagram(std::span(reinterpret_cast<const char*>(data), size));
  platform::LinkPolicy policy;
  policy.excluded = {"peer*", "[a"};
  policy.portGroups = {{"Production", "br0"}, {"Backup", "br0"}, {"br1", "br0"}};
  platform::LinkTable table(policy);
  for (const platform::LinkMessage& message : datagram.links) check(table.apply(message), &message);
  if (table.size() > datagram.links.size()) std::abort();
  (void)table.portGroups();
  check(table.resync(datagram.links), nullptr);
  if (!table.resync(datagram.links).empty()) std::abort();
  return 0;
}
