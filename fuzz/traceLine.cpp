// The trace as kelctl reads it: however the bytes arrive, the entries are the same, and each that
// is understood makes one line of JSON.
#include <cstdint>
#include <cstdlib>

#include <nlohmann/json.hpp>

#include "traceLine.h"

namespace {

std::vector<std::string> entriesOf(std::string_view bytes, std::size_t chunk) {
  kelctl::TraceSplitter splitter;
  std::vector<std::string> entries;
  for (std::size_t at = 0; at < bytes.size(); at += chunk) {
    splitter.feed(bytes.substr(at, chunk), [&entries](std::string_view entry) {
      entries.emplace_back(entry);
      return true;
    });
  }
  return entries;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  constexpr std::size_t kSmallChunk = 3;
  const std::vector<std::string> entries = entriesOf(bytes, size + 1);
  if (entries != entriesOf(bytes, kSmallChunk)) std::abort();
  for (const std::string& line : entries) {
    const auto entry = kelctl::parseTraceLine(line);
    if (!entry) continue;
    const std::string json = kelctl::traceJson(*entry);
    if (json.find('\n') != std::string::npos || !nlohmann::json::accept(json)) std::abort();
  }
  return 0;
}
