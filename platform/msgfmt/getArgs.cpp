// Reading a template's arguments into an argument area.
#include <bit>
#include <climits>
#include <cstring>

#include "msgfmt/conversion.h"
#include "msgfmt/entries.h"
#include "platform/msgfmt.h"
#include "platform/str.h"

namespace {

using msgfmt::Conversion;
using msgfmt::Converts;
using msgfmt::Measure;
using msgfmt::SizeLetter;

bool is64Bit(SizeLetter size) {
  return size == SizeLetter::l || size == SizeLetter::ll || size == SizeLetter::z || size == SizeLetter::j ||
         size == SizeLetter::t;
}

static_assert(sizeof(long) == 8 && sizeof(std::size_t) == 8 && sizeof(std::intmax_t) == 8 &&
                  sizeof(std::ptrdiff_t) == 8 && sizeof(void*) == 8,
              "every size letter from l on reads 64 bits");

/// Counts the entries that `format` needs; returns the first malformed conversion in `*malformed`.
std::size_t countEntries(const char* format, Conversion* malformed) {
  std::size_t count = 0;
  for (const char* at = std::strchr(format, '%'); at != nullptr; at = std::strchr(at, '%')) {
    const Conversion conversion = msgfmt::readConversion(at);
    if (!conversion.wellFormed()) {
      *malformed = conversion;
      return count;
    }
    count += conversion.width.from == Measure::From::argument ? 1 : 0;
    count += conversion.precision.from == Measure::From::argument ? 1 : 0;
    count += conversion.converts == Converts::percent ? 0 : 1;
    at = conversion.end;
  }
  return count;
}

MsgFmt_Arg entryOf(std::uint32_t type, std::uint32_t flags, std::uint64_t value) {
  MsgFmt_Arg entry;
  entry.type = type;
  entry.flags = flags;
  entry.value = value;
  return entry;
}

/// Places entries, and copies of their strings behind the array.
class AreaWriter {
 public:
  AreaWriter(void* area, std::size_t size, std::size_t arrayBytes)
      : area_(static_cast<char*>(area)), size_(size), used_(arrayBytes) {}

  void add(const MsgFmt_Arg& entry) { msgfmt::storeArg(area_, count_++, entry); }

  /// Measures no further than the space reaches, however long the string.
  bool addText(const char* text, std::size_t limit) {
    if (text == nullptr) {
      add(entryOf(MSGFMT_ARG_STRING8, 0, 0));
      return true;
    }
    const std::size_t room = size_ - used_;
    const std::size_t length = strnlen(text, limit < room ? limit : room);
    if (length >= room) return false;
    char* copy = area_ + used_;
    std::memcpy(copy, text, length);
    copy[length] = '\0';
    used_ += length + 1;
    add(entryOf(MSGFMT_ARG_STRING8, 0, reinterpret_cast<std::uintptr_t>(copy)));
    return true;
  }

  [[nodiscard]] std::size_t used() const { return used_; }
  [[nodiscard]] std::uint32_t count() const { return count_; }

 private:
  char* area_;
  std::size_t size_;
  std::size_t used_;
  std::uint32_t count_ = 0;
};

int addStar(std::va_list& arguments, AreaWriter& area) {
  const int value = va_arg(arguments, int);
  area.add(entryOf(MSGFMT_ARG_INT32, 0, static_cast<std::uint32_t>(value)));
  return value;
}

MsgFmt_Arg readInteger(const Conversion& conversion, std::va_list& arguments) {
  const std::uint32_t flags = conversion.converts == Converts::signedInteger ? 0 : MSGFMT_FLAG_UNSIGNED;
  if (is64Bit(conversion.size)) return entryOf(MSGFMT_ARG_INT64, flags, va_arg(arguments, unsigned long));
  return entryOf(MSGFMT_ARG_INT32, flags, va_arg(arguments, unsigned));
}

MsgFmt_Arg readFloating(const Conversion& conversion, std::va_list& arguments) {
  const double value = conversion.size == SizeLetter::longDouble ? static_cast<double>(va_arg(arguments, long double))
                                                                 : va_arg(arguments, double);
  return entryOf(MSGFMT_ARG_FLOAT64, 0, std::bit_cast<std::uint64_t>(value));
}

bool addConversion(const Conversion& conversion, std::va_list& arguments, AreaWriter& area) {
  if (conversion.width.from == Measure::From::argument) addStar(arguments, area);
  std::size_t textLimit = SIZE_MAX;
  if (conversion.precision.from == Measure::From::digits) {
    textLimit = static_cast<std::size_t>(conversion.precision.value);
  } else if (conversion.precision.from == Measure::From::argument) {
    const int value = addStar(arguments, area);
    if (value >= 0) textLimit = static_cast<std::size_t>(value);
  }
  switch (conversion.converts) {
    case Converts::text:
      return area.addText(va_arg(arguments, const char*), textLimit);
    case Converts::pointer:
      area.add(entryOf(MSGFMT_ARG_PTR64, 0, reinterpret_cast<std::uintptr_t>(va_arg(arguments, void*))));
      return true;
    case Converts::floating:
      area.add(readFloating(conversion, arguments));
      return true;
    case Converts::signedInteger:
    case Converts::unsignedInteger:
    case Converts::character:
      area.add(readInteger(conversion, arguments));
      return true;
    case Converts::percent:
    case Converts::unknown:
      break;
  }
  return true;
}

bool addAll(const char* format, std::va_list& arguments, AreaWriter& area) {
  for (const char* at = std::strchr(format, '%'); at != nullptr; at = std::strchr(at, '%')) {
    const Conversion conversion = msgfmt::readConversion(at);
    if (!addConversion(conversion, arguments, area)) return false;
    at = conversion.end;
  }
  return true;
}

bool doesNotFit(std::size_t size, char** error) {
  if (error != nullptr) *error = Str_Asprintf(nullptr, "The message arguments do not fit into %zu bytes", size);
  return false;
}

}  // namespace

bool MsgFmt_GetArgsWithBuf(const char* format, std::va_list args, void* buffer, std::size_t* size, std::uint32_t* count,
                           char** error) {
  if (error != nullptr) *error = nullptr;
  Conversion malformed;
  const std::size_t needed = countEntries(format, &malformed);
  if (malformed.begin != nullptr) {
    if (error != nullptr) {
      *error = Str_Asprintf(nullptr, "The message template has the malformed conversion \"%.*s\" at offset %td",
                            static_cast<int>(malformed.text().size()), malformed.begin, malformed.begin - format);
    }
    return false;
  }
  if (needed > *size / sizeof(MsgFmt_Arg) || needed > UINT32_MAX) return doesNotFit(*size, error);

  AreaWriter area(buffer, *size, needed * sizeof(MsgFmt_Arg));
  std::va_list arguments;
  va_copy(arguments, args);
  const bool fits = addAll(format, arguments, area);
  va_end(arguments);
  if (!fits) return doesNotFit(*size, error);
  *size = area.used();
  *count = area.count();
  return true;
}
