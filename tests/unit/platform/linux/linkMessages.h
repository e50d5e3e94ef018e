// Link messages as the kernel sends them, byte for byte, for devices that a test needs; rtnetlink(7),
// linux/if_link.h.
#pragma once

#include <net/if_arp.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "linux/linkMessage.h"

namespace linktest {

/// IFF_* as linux/if.h has them; net/if.h lacks the last.
inline constexpr std::uint32_t kAdminUp = 0x1;
inline constexpr std::uint32_t kLowerUp = 0x10000;

/// What one message says of a device; the defaults are a NIC whose link is up.
struct Device {
  std::int32_t index = 0;
  std::string name{};
  bool carrier = true;
  bool adminUp = true;
  std::int32_t master = 0;
  std::string kind{};
  std::string slaveKind{};
  std::uint32_t ups = 1;    ///< IFLA_CARRIER_UP_COUNT
  std::uint32_t downs = 1;  ///< IFLA_CARRIER_DOWN_COUNT
  std::uint16_t type = ARPHRD_ETHER;
  std::uint8_t family = 0;
  bool wireless = false;  ///< a wireless event: no property but the name
};

/// RTM_NEWLINK and RTM_DELLINK of a device.
std::vector<char> newLink(const Device& device);
std::vector<char> delLink(const Device& device);
/// One part of a dump, and its end (NLMSG_DONE); `interrupted` sets NLM_F_DUMP_INTR.
std::vector<char> dumpPart(const std::vector<Device>& devices, bool interrupted = false);
std::vector<char> dumpEnd(int status = 0);
/// NLMSG_ERROR with a positive errno value, or 0 for an acknowledgement.
std::vector<char> acknowledgement(int status);
/// NLMSG_OVERRUN.
std::vector<char> overrun();

/// One attribute, padded.
std::vector<char> attribute(std::uint16_t type, const std::vector<char>& payload);
/// A message of any type, padded.
std::vector<char> message(std::uint16_t type, std::uint16_t flags, const std::vector<char>& payload);

std::vector<char> operator+(std::vector<char> left, const std::vector<char>& right);

/// The parsed message of a device.
platform::LinkMessage parsed(const Device& device);
platform::LinkMessage parsedRemoval(const Device& device);

}  // namespace linktest
