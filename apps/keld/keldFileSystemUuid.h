// The UUID of a cluster file system as observations carry it: its fields one by one, the last six the
// node address of the host that made it.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>

namespace keld {

/// How the fields are read and written; a macro, so that it can stand inside a longer format.
#define KELD_UUID_FORMAT "%08x-%08x-%04hx-%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx"

/// 35 characters and the NUL.
using UuidText = std::array<char, 36>;

struct FileSystemUuid {
  std::uint32_t first = 0;
  std::uint32_t second = 0;
  std::uint16_t third = 0;
  std::array<std::uint8_t, 6> node{};

  /// Lower-case digits, with leading zeros.
  [[nodiscard]] UuidText text() const {
    UuidText text{};
    std::snprintf(text.data(), text.size(), KELD_UUID_FORMAT, first, second, third, node[0], node[1], node[2], node[3],
                  node[4], node[5]);
    return text;
  }
};

}  // namespace keld
