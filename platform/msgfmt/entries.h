// Access to the entries of an argument area, wherever it lies in memory.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/msgfmt.h"

namespace msgfmt {

/// Writes entry `index` of the array at `array`; the caller knows that it is inside.
void storeArg(void* array, std::size_t index, const MsgFmt_Arg& entry);

/// The value of an INT32 or INT64 entry, widened by its own sign.
std::int64_t integerValue(const MsgFmt_Arg& entry);

inline bool isInteger(const MsgFmt_Arg& entry) {
  return entry.type == MSGFMT_ARG_INT32 || entry.type == MSGFMT_ARG_INT64;
}

/// Where the string of a swizzled entry lies in an area of `areaSize` bytes whose array has at least
/// `arrayBytes`. Returns true with its length and start (nullptr for a null string).
bool findSwizzledText(const MsgFmt_Arg& entry, const void* area, std::size_t areaSize, std::size_t arrayBytes,
                      const char** text, std::size_t* length);

}  // namespace msgfmt
