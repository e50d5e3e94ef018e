// The bytes of a raw record, as docs/formats/observation-record.md lays them down.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace platform {

/// What stands before the identifier. Records lie at any address, so it is copied, never pointed at.
struct RecordHeader {
  std::uint64_t timestamp = 0;  ///< microseconds since the epoch
  std::uint32_t argumentCount = 0;
  std::uint32_t argumentOffset = 0;  ///< of the argument array, from the record's start
  std::uint32_t length = 0;          ///< of the whole record, header included
  std::uint32_t messageOffset = 0;   ///< of the message template, from the record's start
  std::uint64_t reserved = 0;        ///< written as zero, not looked at
};

inline constexpr std::size_t kRecordHeaderBytes = 32;
static_assert(sizeof(RecordHeader) == kRecordHeaderBytes);
static_assert(std::endian::native == std::endian::little, "the header is little-endian and copied as it is");

/// The header at `record`, which has at least kRecordHeaderBytes bytes.
inline RecordHeader loadRecordHeader(const void* record) {
  RecordHeader header;
  std::memcpy(&header, record, sizeof header);
  return header;
}

}  // namespace platform
