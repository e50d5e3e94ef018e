// Message formats: a printf-style template and its arguments as an array of typed entries, which
// can be placed in a buffer, formatted, and made independent of the buffer's address.
//
// All functions are safe to call from any thread on different data. Buffers need no alignment.
// docs/formats/argument-area.md has the bytes.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

/// Type code of an argument entry.
enum MsgFmt_ArgType : std::uint32_t {
  MSGFMT_ARG_INVALID = 0,
  MSGFMT_ARG_INT32 = 1,
  MSGFMT_ARG_INT64 = 2,
  MSGFMT_ARG_PTR32 = 3,
  MSGFMT_ARG_PTR64 = 4,
  MSGFMT_ARG_FLOAT64 = 5,
  MSGFMT_ARG_STRING8 = 6,
  MSGFMT_ARG_STRING16 = 7,
  MSGFMT_ARG_STRING32 = 8,
};

/// Set in MsgFmt_Arg::flags of an integer whose sender counts it unsigned: it widens with zeros.
inline constexpr std::uint32_t MSGFMT_FLAG_UNSIGNED = 1;

/// One entry, 32 bytes, little-endian. Integers use the low bytes of `value` (a 32-bit value only
/// the low four), FLOAT64 the bits of an IEEE double. STRING8 holds an address while the array is
/// local and, once swizzled, the string's offset from the start of the array; 0 is a null string
/// in both forms.
struct MsgFmt_Arg {
  std::uint32_t type = MSGFMT_ARG_INVALID;
  std::uint32_t flags = 0;
  std::uint64_t value = 0;
  std::uint64_t reserved[2] = {0, 0};
};
static_assert(sizeof(MsgFmt_Arg) == 32);

/// Copies entry `index` out of an array at any address; the caller knows that it is inside.
MsgFmt_Arg MsgFmt_LoadArg(const void* array, std::size_t index);

/// Reads the arguments of `format` from `args` and places the entries, followed by copies of the
/// strings, in `buffer`, which has `*size` bytes. Returns true with the count and, in `*size`, the
/// bytes used (0 for a template without conversions). Returns false where they do not fit or the
/// template is malformed; then `*error`, unless `error` is null, is a text to release with free().
/// Integer conversions of all printf sizes, %c, %p, %s with a precision, floating point and `*`
/// are understood; %n, %ls and positional arguments are malformed.
bool MsgFmt_GetArgsWithBuf(const char* format, std::va_list args, void* buffer, std::size_t* size, std::uint32_t* count,
                           char** error);

/// Formats a local (not swizzled) array by a template into a string to release with free(), with
/// its length in `*length` unless that is null. A conversion without a fitting entry stays as it
/// stands, a null string shows as "(null)", a width beyond 4096 counts as 4096, and a text is cut off
/// at 1 MiB. nullptr when memory is exhausted.
char* MsgFmt_Asprintf(std::size_t* length, const char* format, const void* array, std::uint32_t count);

/// Formats a swizzled array that lies in an area of `areaSize` bytes, as MsgFmt_Asprintf does. An
/// entry whose string cannot be fetched leaves its conversion as it stands.
char* MsgFmt_AsprintfSwizzled(std::size_t* length, const char* format, const void* area, std::size_t areaSize,
                              std::uint32_t count);

/// Turns the string addresses of a local array, all inside the `size` bytes at `buffer` that begin
/// with the array, into offsets from `buffer`. Returns false, and changes nothing, where an address
/// lies outside.
bool MsgFmt_SwizzleArgs(void* buffer, std::size_t size, std::uint32_t count);

/// Fetches string entry `index` of a swizzled array whose area is [start, end), the array at its
/// start. Returns true with the string (nullptr for a null string); false where the entry is no
/// string, lies outside or is not terminated inside.
bool MsgFmt_GetSwizzledString(const void* start, std::uint32_t index, const void* end, const char** text);
