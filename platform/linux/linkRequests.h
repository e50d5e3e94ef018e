// Requests to the kernel about links: listing them all, and taking one down; rtnetlink(7).
#pragma once

#include <chrono>
#include <cstdint>
#include <vector>

#include "linux/linkMessage.h"
#include "linux/netlinkSocket.h"

namespace platform {

/// How long the kernel may stay silent before a request counts as failed.
inline constexpr std::chrono::seconds kAnswerTimeout{5};
/// How often a listing that changes interrupted is begun anew.
inline constexpr int kDumpAttempts = 16;

/// All links of one moment. Fails with the kernel's errno value, ETIMEDOUT where it does not answer,
/// EBADMSG where the answer is not understood, or EINTR where changes interrupted every attempt.
Answer<std::vector<LinkMessage>> dumpLinks(Netlink& netlink);

/// Takes the link administratively down and waits for the kernel to say so. Returns 0 or an errno
/// value, ETIMEDOUT where it does not answer.
int takeLinkDown(Netlink& netlink, std::int32_t index);

}  // namespace platform
