// Recorded netlink traffic: what the kernel answered to dumps and notified of, in order.
#pragma once

#include <string>
#include <vector>

namespace linktest {

/// One datagram. In a file: the letter, the length as four bytes (little-endian), the bytes.
struct Frame {
  static constexpr char kDump = 'd';
  static constexpr char kNotification = 'n';
  char kind = kNotification;
  std::vector<char> bytes;
};

/// The frames of a file; throws std::runtime_error where it is none.
std::vector<Frame> readRecording(const std::string& path);
void writeRecording(const std::string& path, const std::vector<Frame>& frames);

}  // namespace linktest
