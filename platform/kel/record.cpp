#include "kel/record.h"

#include "platform/kel.h"
#include "platform/msgfmt.h"

namespace {

using platform::kRecordHeaderBytes;
using platform::RecordHeader;

/// True when a string begins at `offset`, behind the header, and ends inside the record.
bool holdsString(const char* record, std::size_t length, std::size_t offset) {
  return offset >= kRecordHeaderBytes && offset < length &&
         std::memchr(record + offset, '\0', length - offset) != nullptr;
}

/// Length with its terminator of the wide string at `offset`, 0 where it does not end in the area.
std::size_t wideStringBytes(const char* area, std::size_t areaSize, std::uint64_t offset, std::size_t unit) {
  constexpr char kTerminator[4] = {};
  if (offset >= areaSize) return 0;
  for (std::size_t at = offset; areaSize - at >= unit; at += unit) {
    if (std::memcmp(area + at, kTerminator, unit) == 0) return at + unit - offset;
  }
  return 0;
}

/// Bytes that the string of entry `index` takes (0 for a null string and for a number); false where
/// the type is unknown or the string does not lie between the `arrayBytes` of entries and the area's end.
bool checkEntry(const char* area, std::size_t areaSize, std::size_t arrayBytes, std::uint32_t index,
                std::size_t* stringBytes) {
  const MsgFmt_Arg entry = MsgFmt_LoadArg(area, index);
  *stringBytes = 0;
  if (entry.type > MSGFMT_ARG_STRING32) return false;
  if (entry.type < MSGFMT_ARG_STRING8 || entry.value == 0) return true;
  if (entry.value < arrayBytes) return false;
  if (entry.type == MSGFMT_ARG_STRING8) {
    const char* text = nullptr;
    if (!MsgFmt_GetSwizzledString(area, index, area + areaSize, &text)) return false;
    *stringBytes = std::strlen(text) + 1;
    return true;
  }
  *stringBytes = wideStringBytes(area, areaSize, entry.value, entry.type == MSGFMT_ARG_STRING16 ? 2 : 4);
  return *stringBytes != 0;
}

/// Strings may share bytes, but all together are no longer than the area: thousands of entries on
/// one long string would make every reader's work many times the record's size.
bool checkArguments(const char* area, std::size_t areaSize, std::uint32_t count) {
  if (count > areaSize / sizeof(MsgFmt_Arg)) return false;
  std::size_t room = areaSize;
  for (std::uint32_t index = 0; index < count; ++index) {
    std::size_t stringBytes = 0;
    if (!checkEntry(area, areaSize, count * sizeof(MsgFmt_Arg), index, &stringBytes) || stringBytes > room)
      return false;
    room -= stringBytes;
  }
  return true;
}

}  // namespace

bool Kel_ViewRecord(const void* record, std::size_t length, Kel_RecordView* view) {
  if (length <= kRecordHeaderBytes) return false;
  const RecordHeader header = platform::loadRecordHeader(record);
  const char* bytes = static_cast<const char*>(record);
  if (header.length != length || !holdsString(bytes, length, kRecordHeaderBytes) ||
      !holdsString(bytes, length, header.messageOffset)) {
    return false;
  }
  if (header.argumentOffset < kRecordHeaderBytes || header.argumentOffset > length) return false;
  const char* area = bytes + header.argumentOffset;
  if (!checkArguments(area, length - header.argumentOffset, header.argumentCount)) return false;

  *view = {header.timestamp, bytes + kRecordHeaderBytes, bytes + header.messageOffset, area, header.argumentCount,
           bytes + length};
  return true;
}
