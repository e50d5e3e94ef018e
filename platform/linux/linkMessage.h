// What the kernel says about network devices, read out of netlink datagrams; rtnetlink(7), netlink(7).
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace platform {

/// One RTM_NEWLINK or RTM_DELLINK message: a network device as it is, or as it was when it went away.
struct LinkMessage {
  bool removed = false;        ///< RTM_DELLINK
  std::uint8_t family = 0;     ///< AF_UNSPEC, or the protocol family that the message is for
  std::uint16_t type = 0;      ///< ARPHRD_*
  std::int32_t index = 0;      ///< unique while the device exists; a rename keeps it
  std::uint32_t flags = 0;     ///< IFF_*
  std::string name;            ///< shorter than IFNAMSIZ; empty where the message does not say
  std::int32_t master = 0;     ///< index of the device that it is a port of; 0: none
  std::string kind;            ///< such as "bridge", "bond", "tun"; empty for hardware
  std::string slaveKind;       ///< kind of the device that it is a port of
  std::uint8_t operstate = 0;  ///< IF_OPER_*; 0: the driver does not say
  std::optional<bool> carrier;
  std::optional<std::uint32_t> carrierUpCount;    ///< times that carrier came; wraps
  std::optional<std::uint32_t> carrierDownCount;  ///< times that carrier went; wraps
  bool partial = false;  ///< tells about one property only (wireless events); the rest is absent
};

/// What a netlink datagram holds, as far as links are concerned.
struct LinkDatagram {
  std::vector<LinkMessage> links;  ///< in the datagram's order
  std::optional<int> end;          ///< errno value that ends a dump (0: whole) or answers a request
  bool interrupted = false;        ///< NLM_F_DUMP_INTR: the dump is not of one moment
  bool overrun = false;            ///< NLMSG_OVERRUN: the kernel dropped messages
  bool malformed = false;          ///< something was no well-formed message and was left out
};

/// Reads the messages of a datagram. Anything may be in it: what does not fit its own lengths is left out.
/// Messages of other types are passed over.
LinkDatagram parseLinkDatagram(std::span<const char> datagram);

}  // namespace platform
