#include "linux/linkRequests.h"

#include <linux/if.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <iterator>
#include <memory>
#include <optional>

namespace platform {

namespace {

/// A request about a link; the attribute asks for answers without traffic statistics.
struct LinkRequest {
  nlmsghdr header;
  ifinfomsg link;
  nlattr extraHeader;
  std::uint32_t extra;
};
static_assert(sizeof(LinkRequest) == 40, "the layout on the wire has no gaps");

LinkRequest makeRequest(unsigned flags, std::uint16_t type) {
  LinkRequest request{};
  request.header.nlmsg_len = sizeof request;
  request.header.nlmsg_type = type;
  request.header.nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | flags);
  request.header.nlmsg_seq = 1;
  request.link.ifi_family = AF_UNSPEC;
  request.extraHeader.nla_len = sizeof(nlattr) + sizeof(std::uint32_t);
  request.extraHeader.nla_type = IFLA_EXT_MASK;
  request.extra = RTEXT_FILTER_SKIP_STATS;
  return request;
}

/// Sends one request and hands each datagram of the answer to `take` until the answer ends. Every
/// request has a socket of its own, so nothing else can be taken for its answer.
template <typename Take>
int exchange(Netlink& netlink, const LinkRequest& request, Take take) {
  auto socket = netlink.openRequests();
  if (!socket.ok()) return socket.outcome.status;
  char bytes[sizeof request];
  std::memcpy(bytes, &request, sizeof request);
  if (const int status = socket.value->send(bytes); status != 0) return status;
  const auto buffer = std::make_unique<char[]>(kNetlinkDatagramBytes);
  while (true) {
    std::size_t length = 0;
    const int status = socket.value->receive({buffer.get(), kNetlinkDatagramBytes}, &length, kAnswerTimeout);
    if (status != 0) return status == EAGAIN ? ETIMEDOUT : status;
    LinkDatagram datagram = parseLinkDatagram({buffer.get(), length});
    if (datagram.malformed) return EBADMSG;
    if (datagram.overrun) return ENOBUFS;
    const std::optional<int> end = datagram.end;
    take(datagram);
    if (end) return *end;
  }
}

}  // namespace

Answer<std::vector<LinkMessage>> dumpLinks(Netlink& netlink) {
  const LinkRequest request = makeRequest(NLM_F_DUMP, RTM_GETLINK);
  for (int attempt = 0; attempt < kDumpAttempts; ++attempt) {
    std::vector<LinkMessage> links;
    bool interrupted = false;
    const int status = exchange(netlink, request, [&](LinkDatagram& datagram) {
      interrupted |= datagram.interrupted;
      std::move(datagram.links.begin(), datagram.links.end(), std::back_inserter(links));
    });
    if (status != 0) return {{status, {}}, {}};
    if (!interrupted) return {{}, std::move(links)};
  }
  return {{EINTR, {}}, {}};
}

int takeLinkDown(Netlink& netlink, std::int32_t index) {
  LinkRequest request = makeRequest(NLM_F_ACK, RTM_NEWLINK);
  request.link.ifi_index = index;
  request.link.ifi_change = IFF_UP;
  return exchange(netlink, request, [](LinkDatagram&) {});
}

}  // namespace platform
