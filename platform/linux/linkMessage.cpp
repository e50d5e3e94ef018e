#include "linux/linkMessage.h"

#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string_view>

namespace platform {

namespace {

using Bytes = std::span<const char>;

/// Longest kind of device that is taken for one.
constexpr std::size_t kKindBytes = 64;

/// The value at the front of `bytes`, which may lie at any address.
template <typename T>
std::optional<T> load(Bytes bytes) {
  if (bytes.size() < sizeof(T)) return std::nullopt;
  T value;
  std::memcpy(&value, bytes.data(), sizeof value);
  return value;
}

/// Bytes from one message or attribute to the next; netlink aligns both to four.
std::size_t stride(std::size_t length, std::size_t available) {
  const std::size_t aligned = (length + 3) & ~std::size_t{3};
  return aligned < available ? aligned : available;
}

/// Calls take(type, payload) for each attribute. False where they do not fit their own lengths.
template <typename Take>
bool forEachAttribute(Bytes rest, Take take) {
  while (!rest.empty()) {
    const auto header = load<nlattr>(rest);
    if (!header || header->nla_len < sizeof(nlattr) || header->nla_len > rest.size()) return false;
    const Bytes payload = rest.first(header->nla_len).subspan(sizeof(nlattr));
    if (!take(static_cast<unsigned>(header->nla_type & NLA_TYPE_MASK), payload)) return false;
    rest = rest.subspan(stride(header->nla_len, rest.size()));
  }
  return true;
}

template <typename T, typename Target>
bool store(Bytes payload, Target& target) {
  const auto value = load<T>(payload);
  if (!value) return false;
  target = *value;
  return true;
}

/// A text of at most `limit` bytes; a NUL ends it, if there is one.
bool storeText(Bytes payload, std::size_t limit, std::string& target) {
  const std::string_view text(payload.data(), payload.size());
  const std::string_view content = text.substr(0, text.find('\0'));
  if (content.size() > limit) return false;
  target.assign(content);
  return true;
}

bool readLinkInfo(Bytes payload, LinkMessage& link) {
  return forEachAttribute(payload, [&](unsigned type, Bytes value) {
    switch (type) {
      case IFLA_INFO_KIND:
        return storeText(value, kKindBytes, link.kind);
      case IFLA_INFO_SLAVE_KIND:
        return storeText(value, kKindBytes, link.slaveKind);
      default:
        return true;
    }
  });
}

bool readAttribute(unsigned type, Bytes value, LinkMessage& link) {
  switch (type) {
    case IFLA_IFNAME:
      return storeText(value, IFNAMSIZ - 1, link.name);
    case IFLA_MASTER:
      return store<std::int32_t>(value, link.master);
    case IFLA_OPERSTATE:
      return store<std::uint8_t>(value, link.operstate);
    case IFLA_CARRIER_UP_COUNT:
      return store<std::uint32_t>(value, link.carrierUpCount);
    case IFLA_CARRIER_DOWN_COUNT:
      return store<std::uint32_t>(value, link.carrierDownCount);
    case IFLA_LINKINFO:
      return readLinkInfo(value, link);
    case IFLA_WIRELESS:
      link.partial = true;
      return true;
    case IFLA_CARRIER: {
      const auto carrier = load<std::uint8_t>(value);
      if (carrier) link.carrier = *carrier != 0;
      return carrier.has_value();
    }
    default:
      return true;
  }
}

std::optional<LinkMessage> readLink(bool removed, Bytes payload) {
  const auto header = load<ifinfomsg>(payload);
  if (!header || header->ifi_index <= 0) return std::nullopt;
  LinkMessage link;
  link.removed = removed;
  link.family = header->ifi_family;
  link.type = header->ifi_type;
  link.index = header->ifi_index;
  link.flags = header->ifi_flags;
  const Bytes attributes = payload.subspan(stride(sizeof(ifinfomsg), payload.size()));
  if (!forEachAttribute(attributes, [&](unsigned type, Bytes value) { return readAttribute(type, value, link); })) {
    return std::nullopt;
  }
  return link;
}

/// NLMSG_DONE and NLMSG_ERROR begin with 0 or a negative errno value.
std::optional<int> readStatus(Bytes payload) {
  const auto status = load<int>(payload);
  if (!status || *status > 0 || *status == INT_MIN) return std::nullopt;
  return -*status;
}

void readMessage(const nlmsghdr& header, Bytes payload, LinkDatagram& result) {
  if ((header.nlmsg_flags & NLM_F_DUMP_INTR) != 0) result.interrupted = true;
  switch (header.nlmsg_type) {
    case RTM_NEWLINK:
    case RTM_DELLINK: {
      auto link = readLink(header.nlmsg_type == RTM_DELLINK, payload);
      if (link) {
        result.links.push_back(std::move(*link));
      } else {
        result.malformed = true;
      }
      break;
    }
    case NLMSG_DONE:
      // The dump is whole even where an older kernel leaves the status out.
      result.end = payload.empty() ? 0 : readStatus(payload).value_or(EBADMSG);
      break;
    case NLMSG_ERROR:
      result.end = readStatus(payload).value_or(EBADMSG);
      break;
    case NLMSG_OVERRUN:
      result.overrun = true;
      break;
    default:
      break;
  }
}

}  // namespace

LinkDatagram parseLinkDatagram(std::span<const char> datagram) {
  LinkDatagram result;
  Bytes rest = datagram;
  while (!rest.empty()) {
    const auto header = load<nlmsghdr>(rest);
    if (!header || header->nlmsg_len < sizeof(nlmsghdr) || header->nlmsg_len > rest.size()) {
      result.malformed = true;
      break;
    }
    readMessage(*header, rest.first(header->nlmsg_len).subspan(sizeof(nlmsghdr)), result);
    rest = rest.subspan(stride(header->nlmsg_len, rest.size()));
  }
  return result;
}

}  // namespace platform
