#include "kel/extraction.h"

#include <cstring>

#include "platform/kel.h"
#include "platform/msgfmt.h"

namespace platform {

namespace {

enum class Target { end, text, charSized, shortSized, intSized, longSized, longLongSized, unknown };

Target integerTarget(const char** cursor) {
  const char* at = *cursor;
  Target target = Target::intSized;
  if (at[0] == 'h') {
    target = at[1] == 'h' ? Target::charSized : Target::shortSized;
    at += at[1] == 'h' ? 2 : 1;
  } else if (at[0] == 'l') {
    target = at[1] == 'l' ? Target::longLongSized : Target::longSized;
    at += at[1] == 'l' ? 2 : 1;
  }
  if (*at == '\0' || std::strchr("diuxXo", *at) == nullptr) return Target::unknown;
  *cursor = at + 1;
  return target;
}

/// What the next conversion stores; moves the cursor behind it. Text and %% are skipped.
Target nextTarget(const char** cursor) {
  const char* at = *cursor;
  while ((at = std::strchr(at, '%')) != nullptr && at[1] == '%') at += 2;
  if (at == nullptr) return Target::end;
  ++at;
  at += std::strspn(at, "#-+ .0123456789");
  if (*at == 'p' || *at == 's') {
    *cursor = at + 1;
    return Target::text;
  }
  const Target target = integerTarget(&at);
  *cursor = at;
  return target;
}

/// Every conversion takes one pointer, and narrowing keeps the low bytes.
template <typename Integer>
void storeInteger(std::int64_t value, void* output) {
  *static_cast<Integer*>(output) = static_cast<Integer>(value);
}

void storeInteger(Target target, std::int64_t value, void* output) {
  switch (target) {
    case Target::charSized:
      return storeInteger<signed char>(value, output);
    case Target::shortSized:
      return storeInteger<short>(value, output);
    case Target::longSized:
      return storeInteger<long>(value, output);
    case Target::longLongSized:
      return storeInteger<long long>(value, output);
    default:
      return storeInteger<int>(value, output);
  }
}

}  // namespace

int integerArgument(const ArgumentArea& area, std::size_t index, std::int64_t* value) {
  if (index >= area.count) return KEL_ERR_NO_ARGUMENT;
  const MsgFmt_Arg entry = MsgFmt_LoadArg(area.array, index);
  const auto low = static_cast<std::uint32_t>(entry.value);
  switch (entry.type) {
    case MSGFMT_ARG_INT32:
      *value = (entry.flags & MSGFMT_FLAG_UNSIGNED) != 0 ? std::int64_t{low} : static_cast<std::int32_t>(low);
      return 0;
    case MSGFMT_ARG_PTR32:
      *value = low;
      return 0;
    case MSGFMT_ARG_INT64:
    case MSGFMT_ARG_PTR64:
      *value = static_cast<std::int64_t>(entry.value);
      return 0;
    default:
      return KEL_ERR_ARGUMENT_TYPE;
  }
}

int unsignedArgument(const ArgumentArea& area, std::size_t index, std::uint64_t* value) {
  std::int64_t widened = 0;
  if (const int status = integerArgument(area, index, &widened); status != 0) return status;
  const bool whole = MsgFmt_LoadArg(area.array, index).type != MSGFMT_ARG_INT32;
  *value = whole ? static_cast<std::uint64_t>(widened) : static_cast<std::uint32_t>(widened);
  return 0;
}

int stringArgument(const ArgumentArea& area, std::size_t index, const char** value) {
  if (index >= area.count) return KEL_ERR_NO_ARGUMENT;
  const auto number = static_cast<std::uint32_t>(index);
  return MsgFmt_GetSwizzledString(area.array, number, area.end, value) ? 0 : KEL_ERR_ARGUMENT_TYPE;
}

int checkExtraction(const ArgumentArea& area, std::size_t first, const char* format) {
  for (std::size_t index = first;; ++index) {
    const Target target = nextTarget(&format);
    if (target == Target::end) return 0;
    if (target == Target::unknown) return KEL_ERR_FORMAT;
    const char* text = nullptr;
    std::int64_t value = 0;
    const int status =
        target == Target::text ? stringArgument(area, index, &text) : integerArgument(area, index, &value);
    if (status != 0) return status;
  }
}

void extract(const ArgumentArea& area, std::size_t first, const char* format, std::va_list outputs) {
  for (std::size_t index = first;; ++index) {
    const Target target = nextTarget(&format);
    if (target == Target::end) return;
    if (target == Target::text) {
      stringArgument(area, index, va_arg(outputs, const char**));
    } else {
      std::int64_t value = 0;
      integerArgument(area, index, &value);
      storeInteger(target, value, va_arg(outputs, void*));
    }
  }
}

}  // namespace platform
