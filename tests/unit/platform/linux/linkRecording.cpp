#include "linkRecording.h"

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace linktest {

namespace {
constexpr std::size_t kHeaderBytes = 5;
}

std::vector<Frame> readRecording(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  const std::vector<char> all{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  if (all.empty()) throw std::runtime_error("no recording " + path);
  std::vector<Frame> frames;
  for (std::size_t at = 0; at < all.size();) {
    if (all.size() - at < kHeaderBytes) throw std::runtime_error("torn recording " + path);
    std::size_t length = 0;
    for (std::size_t byte = 0; byte < 4; ++byte) {
      length |= static_cast<std::size_t>(static_cast<std::uint8_t>(all[at + 1 + byte])) << (8 * byte);
    }
    if (all.size() - at - kHeaderBytes < length) throw std::runtime_error("torn recording " + path);
    const char* const bytes = all.data() + at + kHeaderBytes;
    frames.push_back({all[at], {bytes, bytes + length}});
    at += kHeaderBytes + length;
  }
  return frames;
}

void writeRecording(const std::string& path, const std::vector<Frame>& frames) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  for (const Frame& frame : frames) {
    file.put(frame.kind);
    for (unsigned byte = 0; byte < 4; ++byte) file.put(static_cast<char>(frame.bytes.size() >> (8 * byte) & 0xffU));
    file.write(frame.bytes.data(), static_cast<std::streamsize>(frame.bytes.size()));
  }
  file.flush();
  if (!file) throw std::runtime_error("cannot write " + path);
}

}  // namespace linktest
