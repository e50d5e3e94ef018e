#include "linkMessages.h"

#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <cstring>
#include <stdexcept>

namespace linktest {

namespace {

using Bytes = std::vector<char>;

template <typename T>
Bytes bytesOf(const T& value) {
  Bytes bytes(sizeof value);
  std::memcpy(bytes.data(), &value, sizeof value);
  return bytes;
}

Bytes textBytes(const std::string& text) {
  return {text.c_str(), text.c_str() + text.size() + 1};
}

void pad(Bytes& bytes) {
  bytes.resize((bytes.size() + 3) / 4 * 4);
}

Bytes payloadOf(const Device& device) {
  ifinfomsg header{};
  header.ifi_family = device.family;
  header.ifi_type = device.type;
  header.ifi_index = device.index;
  header.ifi_flags = (device.adminUp ? kAdminUp : 0) | (device.adminUp && device.carrier ? kLowerUp : 0);
  Bytes payload = bytesOf(header) + attribute(IFLA_IFNAME, textBytes(device.name));
  if (device.wireless) return payload + attribute(IFLA_WIRELESS, Bytes(16));
  payload = payload + attribute(IFLA_OPERSTATE, {static_cast<char>(device.carrier ? 6 : 2)}) +
            attribute(IFLA_CARRIER, {static_cast<char>(device.carrier ? 1 : 0)}) +
            attribute(IFLA_CARRIER_UP_COUNT, bytesOf(device.ups)) +
            attribute(IFLA_CARRIER_DOWN_COUNT, bytesOf(device.downs));
  if (device.master != 0) payload = payload + attribute(IFLA_MASTER, bytesOf(device.master));
  Bytes info;
  if (!device.kind.empty()) info = info + attribute(IFLA_INFO_KIND, textBytes(device.kind));
  if (!device.slaveKind.empty()) info = info + attribute(IFLA_INFO_SLAVE_KIND, textBytes(device.slaveKind));
  if (!info.empty()) payload = payload + attribute(IFLA_LINKINFO, info);
  return payload;
}

platform::LinkMessage only(const Bytes& datagram) {
  const auto parsed = platform::parseLinkDatagram(datagram);
  if (parsed.links.size() != 1) throw std::logic_error("not one link message");
  return parsed.links.front();
}

}  // namespace

Bytes operator+(Bytes left, const Bytes& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

Bytes attribute(std::uint16_t type, const Bytes& payload) {
  nlattr header{};
  header.nla_len = static_cast<std::uint16_t>(sizeof header + payload.size());
  header.nla_type = type;
  Bytes bytes = bytesOf(header) + payload;
  pad(bytes);
  return bytes;
}

Bytes message(std::uint16_t type, std::uint16_t flags, const Bytes& payload) {
  nlmsghdr header{};
  header.nlmsg_len = static_cast<std::uint32_t>(sizeof header + payload.size());
  header.nlmsg_type = type;
  header.nlmsg_flags = flags;
  Bytes bytes = bytesOf(header) + payload;
  pad(bytes);
  return bytes;
}

Bytes newLink(const Device& device) {
  return message(RTM_NEWLINK, 0, payloadOf(device));
}
Bytes delLink(const Device& device) {
  return message(RTM_DELLINK, 0, payloadOf(device));
}

Bytes dumpPart(const std::vector<Device>& devices, bool interrupted) {
  const auto flags = static_cast<std::uint16_t>(NLM_F_MULTI | (interrupted ? NLM_F_DUMP_INTR : 0));
  Bytes bytes;
  for (const Device& device : devices) bytes = bytes + message(RTM_NEWLINK, flags, payloadOf(device));
  return bytes;
}

Bytes dumpEnd(int status) {
  return message(NLMSG_DONE, NLM_F_MULTI, bytesOf(-status));
}

Bytes acknowledgement(int status) {
  nlmsgerr error{};
  error.error = -status;
  return message(NLMSG_ERROR, 0, bytesOf(error));
}

Bytes overrun() {
  return message(NLMSG_OVERRUN, 0, {});
}

platform::LinkMessage parsed(const Device& device) {
  return only(newLink(device));
}
platform::LinkMessage parsedRemoval(const Device& device) {
  return only(delLink(device));
}

}  // namespace linktest
