// Observations as handlers see them: identifier, time, text and typed arguments of one record.
//
// An observation belongs to one thread at a time; no function here locks. Strings handed out
// point into the observation and live as long as it does. docs/formats/observation-record.md has
// the bytes.
#pragma once

#include <cstddef>
#include <cstdint>

/// One observation; made by Kel_MakeKel, released by Kel_Free.
struct Kel;

/// A read of an argument that the observation does not have.
inline constexpr int KEL_ERR_NO_ARGUMENT = 75;
/// A read of an argument that is of another kind (text, integer, floating point).
inline constexpr int KEL_ERR_ARGUMENT_TYPE = 22;
/// A format that Kel_GetArgs cannot follow.
inline constexpr int KEL_ERR_FORMAT = 84;

/// Makes an observation of `length` bytes at `record`, a buffer obtained from malloc. Returns
/// nullptr when the bytes are no well-formed record, and the buffer stays the caller's; otherwise
/// the observation owns the buffer.
Kel* Kel_MakeKel(char* record, std::size_t length);

/// Releases an observation and its record; nullptr is allowed.
void Kel_Free(Kel* observation);

/// Stores the identifier in `*id`, nullptr where the observation has none (an empty identifier).
void Kel_GetID(const Kel* observation, const char** id);

/// True when both name the same observation: plain equality of two identifiers, neither null.
bool Kel_IsID(const char* left, const char* right);

/// Reads arguments from number `first` on into the out pointers, one per conversion of `format`:
/// %p and %s take a `const char**` (null for a null string), %d %i %u %x %X %o an integer of the
/// size that hh, h, l or ll names (int without). Flags and widths are accepted, text between the
/// conversions is skipped, surplus arguments are ignored. Any integer argument fits any integer
/// conversion: narrowed by truncation, widened by its own sign. Returns 0, or
/// KEL_ERR_NO_ARGUMENT, KEL_ERR_ARGUMENT_TYPE or KEL_ERR_FORMAT; outputs are untouched on failure.
int Kel_GetArgs(const Kel* observation, unsigned first, const char* format, ...);

/// Reads integer argument number `index`, widened by its own sign. Returns 0,
/// KEL_ERR_NO_ARGUMENT or KEL_ERR_ARGUMENT_TYPE; `*value` is untouched on failure.
int Kel_GetIntArg(const Kel* observation, unsigned index, std::int64_t* value);

/// Reads integer argument number `index` as a count without sign: one of 64 bits whole, a smaller one
/// extended by zeros. Returns as Kel_GetIntArg does.
int Kel_GetUintArg(const Kel* observation, unsigned index, std::uint64_t* value);

/// Reads text argument number `index`; a null string yields nullptr and success. Returns as
/// Kel_GetIntArg does.
int Kel_GetStringArg(const Kel* observation, unsigned index, const char** value);

/// The kernel's message with the arguments filled in, as a string that the caller releases with
/// free(). A null string shows as "(null)"; a conversion that has no fitting argument stays as it
/// stands. nullptr only when memory is exhausted.
char* Kel_GetMsg(const Kel* observation);

/// When the observation was made, in microseconds since the epoch.
std::uint64_t Kel_GetTimestamp(const Kel* observation);

/// What a raw record holds, without making an observation of it.
struct Kel_RecordView {
  std::uint64_t timestamp = 0;      ///< microseconds since the epoch
  const char* id = nullptr;         ///< NUL-terminated, inside the record
  const char* message = nullptr;    ///< the template, NUL-terminated, inside the record
  const void* arguments = nullptr;  ///< position-independent argument array (msgfmt.h), unaligned
  std::uint32_t argumentCount = 0;
  const void* end = nullptr;  ///< end of the argument area and of the record
};

/// Checks the record at `record` (`length` bytes, exactly one record) and stores where its parts
/// are. Returns false, and leaves `*view` alone, unless every offset, string and argument entry
/// lies inside the record and every string is terminated there.
bool Kel_ViewRecord(const void* record, std::size_t length, Kel_RecordView* view);
