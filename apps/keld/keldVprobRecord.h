// The event record as it is sent: little-endian, one per connection. docs/formats/event-record.md
// has a worked example.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace keld::record {

inline constexpr std::size_t kTimestamp = 0;       ///< 8 bytes, microseconds
inline constexpr std::size_t kKernelWord = 8;      ///< 8 bytes
inline constexpr std::size_t kHostIdentity = 16;   ///< 38 bytes
inline constexpr std::size_t kTotalLength = 56;    ///< 4 bytes
inline constexpr std::size_t kArgumentCount = 60;  ///< 4 bytes
inline constexpr std::size_t kNameLength = 64;     ///< 4 bytes, with the name's NUL
inline constexpr std::size_t kName = 68;
/// The header is reckoned with four bytes more than stand before the name: they end the record.
inline constexpr std::size_t kHeader = 72;

/// Longest event name with its NUL.
inline constexpr std::uint32_t kMaxNameLength = 129;

template <typename T>
T load(const void* record, std::size_t offset) {
  T value;
  std::memcpy(&value, static_cast<const char*>(record) + offset, sizeof value);
  return value;
}
template <typename T>
void store(void* record, std::size_t offset, T value) {
  std::memcpy(static_cast<char*>(record) + offset, &value, sizeof value);
}

}  // namespace keld::record
