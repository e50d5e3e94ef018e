#include "msgfmt/entries.h"

#include <bit>
#include <cstring>

static_assert(std::endian::native == std::endian::little, "entries are little-endian and copied as they are");

namespace msgfmt {

void storeArg(void* array, std::size_t index, const MsgFmt_Arg& entry) {
  std::memcpy(static_cast<char*>(array) + index * sizeof(MsgFmt_Arg), &entry, sizeof(MsgFmt_Arg));
}

std::int64_t integerValue(const MsgFmt_Arg& entry) {
  if (entry.type == MSGFMT_ARG_INT64) return static_cast<std::int64_t>(entry.value);
  const auto low = static_cast<std::uint32_t>(entry.value);
  if ((entry.flags & MSGFMT_FLAG_UNSIGNED) != 0) return low;
  return static_cast<std::int32_t>(low);
}

bool findSwizzledText(const MsgFmt_Arg& entry, const void* area, std::size_t areaSize, std::size_t arrayBytes,
                      const char** text, std::size_t* length) {
  if (entry.type != MSGFMT_ARG_STRING8) return false;
  if (entry.value == 0) {
    *text = nullptr;
    *length = 0;
    return true;
  }
  // A string inside the array itself is none that a sender placed.
  if (entry.value < arrayBytes || entry.value >= areaSize) return false;
  const char* start = static_cast<const char*>(area) + entry.value;
  const void* end = std::memchr(start, '\0', areaSize - entry.value);
  if (end == nullptr) return false;
  *text = start;
  *length = static_cast<std::size_t>(static_cast<const char*>(end) - start);
  return true;
}

}  // namespace msgfmt

MsgFmt_Arg MsgFmt_LoadArg(const void* array, std::size_t index) {
  MsgFmt_Arg entry;
  std::memcpy(&entry, static_cast<const char*>(array) + index * sizeof(MsgFmt_Arg), sizeof(MsgFmt_Arg));
  return entry;
}

bool MsgFmt_SwizzleArgs(void* buffer, std::size_t size, std::uint32_t count) {
  if (count > size / sizeof(MsgFmt_Arg)) return false;
  const std::size_t arrayBytes = count * sizeof(MsgFmt_Arg);
  const auto base = reinterpret_cast<std::uintptr_t>(buffer);
  for (std::uint32_t index = 0; index < count; ++index) {
    const MsgFmt_Arg entry = MsgFmt_LoadArg(buffer, index);
    if (entry.type != MSGFMT_ARG_STRING8 || entry.value == 0) continue;
    if (entry.value < base + arrayBytes || entry.value - base >= size) return false;
  }
  for (std::uint32_t index = 0; index < count; ++index) {
    MsgFmt_Arg entry = MsgFmt_LoadArg(buffer, index);
    if (entry.type != MSGFMT_ARG_STRING8 || entry.value == 0) continue;
    entry.value -= base;
    msgfmt::storeArg(buffer, index, entry);
  }
  return true;
}

bool MsgFmt_GetSwizzledString(const void* start, std::uint32_t index, const void* end, const char** text) {
  const auto first = reinterpret_cast<std::uintptr_t>(start);
  const auto last = reinterpret_cast<std::uintptr_t>(end);
  if (last < first || index >= (last - first) / sizeof(MsgFmt_Arg)) return false;
  std::size_t length = 0;
  return msgfmt::findSwizzledText(MsgFmt_LoadArg(start, index), start, last - first,
                                  (std::size_t{index} + 1) * sizeof(MsgFmt_Arg), text, &length);
}
