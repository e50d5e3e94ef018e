// Formatting an argument array by a template.
#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string_view>
#include <utility>

#include "msgfmt/conversion.h"
#include "msgfmt/entries.h"
#include "msgfmt/limits.h"
#include "platform/msgfmt.h"

namespace {

using msgfmt::Conversion;
using msgfmt::Converts;
using msgfmt::kMaxFieldWidth;
using msgfmt::kMaxTextBytes;
using msgfmt::Measure;
using msgfmt::SizeLetter;

/// Room for the arguments' share of an ordinary message beyond its template.
constexpr std::size_t kUsualGrowth = 96;
/// Characters of the longest number without padding: a double of 309 digits, sign and point.
constexpr std::size_t kMaxNumberBytes = 320;

/// The growing result, from malloc because the caller releases it with free().
class Text {
 public:
  explicit Text(std::size_t expected) : capacity_(std::min(expected, kMaxTextBytes) + 1) {
    data_ = static_cast<char*>(std::malloc(capacity_));
  }
  Text(const Text&) = delete;
  Text& operator=(const Text&) = delete;
  ~Text() { std::free(data_); }

  [[nodiscard]] bool exhausted() const { return data_ == nullptr; }
  [[nodiscard]] bool full() const { return exhausted() || size_ == kMaxTextBytes; }

  void append(const char* from, std::size_t length) {
    length = std::min(length, kMaxTextBytes - size_);
    if (!reserve(length)) return;
    std::memcpy(data_ + size_, from, length);
    size_ += length;
  }

  void fill(char character, std::size_t length) {
    length = std::min(length, kMaxTextBytes - size_);
    if (!reserve(length)) return;
    std::memset(data_ + size_, character, length);
    size_ += length;
  }

  /// Space for `length` characters and a NUL at the end, which commit() makes part of the text.
  char* space(std::size_t length) { return reserve(length) ? data_ + size_ : nullptr; }
  void commit(std::size_t length) { size_ = std::min(size_ + length, kMaxTextBytes); }

  char* release(std::size_t* length) {
    if (exhausted()) return nullptr;
    data_[size_] = '\0';
    if (length != nullptr) *length = size_;
    return std::exchange(data_, nullptr);
  }

 private:
  bool reserve(std::size_t length) {
    if (exhausted()) return false;
    if (length < capacity_ - size_) return true;
    const std::size_t wanted = std::max(2 * capacity_, size_ + length + 1);
    auto* grown = static_cast<char*>(std::realloc(data_, wanted));
    if (grown == nullptr) {
      std::free(std::exchange(data_, nullptr));
      return false;
    }
    data_ = grown;
    capacity_ = wanted;
    return true;
  }

  char* data_ = nullptr;
  std::size_t size_ = 0;
  std::size_t capacity_;
};

/// The entries of an array, taken in order.
class Entries {
 public:
  static Entries local(const void* array, std::uint32_t count) { return {array, count, 0, false}; }
  static Entries swizzled(const void* area, std::size_t areaSize, std::uint32_t count) {
    return {area, std::min<std::size_t>(count, areaSize / sizeof(MsgFmt_Arg)), areaSize, true};
  }

  std::optional<MsgFmt_Arg> next() {
    if (index_ >= count_) return std::nullopt;
    return MsgFmt_LoadArg(array_, index_++);
  }

  /// The text of a string entry, at most `limit` characters of it; nothing where it cannot be fetched.
  [[nodiscard]] std::optional<std::string_view> text(const MsgFmt_Arg& entry, std::size_t limit) const {
    const char* start = nullptr;
    std::size_t length = 0;
    if (swizzled_) {
      if (!msgfmt::findSwizzledText(entry, array_, areaSize_, count_ * sizeof(MsgFmt_Arg), &start, &length)) {
        return std::nullopt;
      }
      length = std::min(length, limit);
    } else {
      start = reinterpret_cast<const char*>(entry.value);
      if (start != nullptr) length = strnlen(start, limit);
    }
    return start == nullptr ? std::string_view("(null)").substr(0, limit) : std::string_view(start, length);
  }

 private:
  Entries(const void* array, std::size_t count, std::size_t areaSize, bool swizzled)
      : array_(array), count_(count), areaSize_(areaSize), swizzled_(swizzled) {}

  const void* array_;
  std::size_t count_;
  std::size_t areaSize_;
  bool swizzled_;
  std::size_t index_ = 0;
};

/// How a value is laid out, the `*` values filled in.
struct Layout {
  unsigned flags = 0;
  std::size_t width = 0;
  std::optional<std::size_t> precision;

  [[nodiscard]] bool plain() const { return flags == 0 && width == 0 && !precision; }
};

/// The value of a width or precision; false where its entry is missing or no integer.
bool measure(const Measure& from, Entries& entries, std::int64_t* value) {
  *value = from.value;
  if (from.from != Measure::From::argument) return true;
  const std::optional<MsgFmt_Arg> entry = entries.next();
  if (!entry || !msgfmt::isInteger(*entry)) return false;
  *value = static_cast<std::int32_t>(msgfmt::integerValue(*entry));
  return true;
}

bool layOut(const Conversion& conversion, Entries& entries, Layout* layout) {
  std::int64_t width = 0;
  std::int64_t precision = 0;
  const bool widthFound = measure(conversion.width, entries, &width);
  const bool precisionFound = measure(conversion.precision, entries, &precision);
  layout->flags = conversion.flags | (width < 0 ? msgfmt::kLeft : 0U);
  layout->width = std::min(static_cast<std::size_t>(width < 0 ? -width : width), kMaxFieldWidth);
  if (conversion.precision.from != Measure::From::absent && precision >= 0) {
    layout->precision = static_cast<std::size_t>(precision);
  }
  return widthFound && precisionFound;
}

void putPadded(std::string_view value, const Layout& layout, Text& out) {
  const std::size_t padding = layout.width > value.size() ? layout.width - value.size() : 0;
  const bool left = (layout.flags & msgfmt::kLeft) != 0;
  if (!left) out.fill(' ', padding);
  out.append(value.data(), value.size());
  if (left) out.fill(' ', padding);
}

/// Lets snprintf(3) lay out a number by a conversion built here, never by the template's own text.
template <typename Number>
void putNumber(const char* sizeLetters, char letter, const Layout& layout, Number number, Text& out) {
  std::array<char, 16> format{};
  char* at = format.data();
  *at++ = '%';
  constexpr std::pair<msgfmt::Flag, char> kFlags[] = {{msgfmt::kLeft, '-'},  {msgfmt::kPlus, '+'},
                                                      {msgfmt::kSpace, ' '}, {msgfmt::kAlternate, '#'},
                                                      {msgfmt::kZero, '0'},  {msgfmt::kGroup, '\''}};
  for (const auto& [flag, character] : kFlags) {
    if ((layout.flags & flag) != 0) *at++ = character;
  }
  for (const char* part : {"*.*", sizeLetters}) at = stpcpy(at, part);
  *at = letter;

  // A negative precision counts as none.
  const int precision = layout.precision ? static_cast<int>(std::min(*layout.precision, kMaxFieldWidth)) : -1;
  const std::size_t room = kMaxFieldWidth + kMaxNumberBytes;
  char* space = out.space(room);
  if (space == nullptr) return;
  const int written = std::snprintf(space, room, format.data(), static_cast<int>(layout.width), precision, number);
  if (written > 0) out.commit(std::min(static_cast<std::size_t>(written), room - 1));
}

template <typename Integer>
void putPlainInteger(Integer value, int base, Text& out) {
  std::array<char, 24> digits{};
  const auto result = std::to_chars(digits.data(), digits.data() + digits.size(), value, base);
  out.append(digits.data(), static_cast<std::size_t>(result.ptr - digits.data()));
}

std::int64_t narrowSigned(std::int64_t value, SizeLetter size) {
  switch (size) {
    case SizeLetter::hh:
      return static_cast<std::int8_t>(value);
    case SizeLetter::h:
      return static_cast<std::int16_t>(value);
    case SizeLetter::none:
      return static_cast<std::int32_t>(value);
    default:
      return value;
  }
}

std::uint64_t narrowUnsigned(std::int64_t value, SizeLetter size) {
  switch (size) {
    case SizeLetter::hh:
      return static_cast<std::uint8_t>(value);
    case SizeLetter::h:
      return static_cast<std::uint16_t>(value);
    case SizeLetter::none:
      return static_cast<std::uint32_t>(value);
    default:
      return static_cast<std::uint64_t>(value);
  }
}

void putInteger(const Conversion& conversion, const Layout& layout, std::int64_t value, Text& out) {
  if (conversion.converts == Converts::signedInteger) {
    const long long narrowed = narrowSigned(value, conversion.size);
    if (layout.plain()) return putPlainInteger(narrowed, 10, out);
    return putNumber("ll", 'd', layout, narrowed, out);
  }
  const unsigned long long narrowed = narrowUnsigned(value, conversion.size);
  if (layout.plain() && conversion.letter == 'u') return putPlainInteger(narrowed, 10, out);
  if (layout.plain() && conversion.letter == 'x') return putPlainInteger(narrowed, 16, out);
  putNumber("ll", conversion.letter, layout, narrowed, out);
}

void putPointer(const MsgFmt_Arg& entry, const Layout& layout, Text& out) {
  const std::uint64_t value = entry.type == MSGFMT_ARG_PTR32 ? static_cast<std::uint32_t>(entry.value) : entry.value;
  std::array<char, 24> digits{'0', 'x'};
  const auto result = std::to_chars(digits.data() + 2, digits.data() + digits.size(), value, 16);
  putPadded({digits.data(), static_cast<std::size_t>(result.ptr - digits.data())}, layout, out);
}

bool putText(const MsgFmt_Arg& entry, const Layout& layout, const Entries& entries, Text& out) {
  const auto text = entries.text(entry, layout.precision.value_or(kMaxTextBytes));
  if (!text) return false;
  putPadded(*text, layout, out);
  return true;
}

/// Formats one value; false where the entry does not fit the conversion, and nothing was written.
bool putValue(const Conversion& conversion, const Layout& layout, const MsgFmt_Arg& entry, const Entries& entries,
              Text& out) {
  switch (conversion.converts) {
    case Converts::text:
      return entry.type == MSGFMT_ARG_STRING8 && putText(entry, layout, entries, out);
    case Converts::pointer:
      if (entry.type == MSGFMT_ARG_STRING8) return putText(entry, layout, entries, out);
      if (entry.type != MSGFMT_ARG_PTR32 && entry.type != MSGFMT_ARG_PTR64) return false;
      putPointer(entry, layout, out);
      return true;
    case Converts::floating:
      if (entry.type != MSGFMT_ARG_FLOAT64) return false;
      putNumber("", conversion.letter, layout, std::bit_cast<double>(entry.value), out);
      return true;
    case Converts::character: {
      if (!msgfmt::isInteger(entry)) return false;
      const char character = static_cast<char>(msgfmt::integerValue(entry));
      // A NUL would end the text for everyone who reads it.
      putPadded({&character, character == '\0' ? 0U : 1U}, layout, out);
      return true;
    }
    case Converts::signedInteger:
    case Converts::unsignedInteger:
      if (!msgfmt::isInteger(entry)) return false;
      putInteger(conversion, layout, msgfmt::integerValue(entry), out);
      return true;
    case Converts::percent:
    case Converts::unknown:
      break;
  }
  return false;
}

/// Formats one conversion; false where it has to stay as it stands.
bool putConversion(const Conversion& conversion, Entries& entries, Text& out) {
  if (conversion.converts == Converts::percent) {
    out.append("%", 1);
    return true;
  }
  if (conversion.converts == Converts::unknown) return false;
  // The entries that belong to it are passed over even where they do not fit.
  Layout layout;
  const bool laidOut = layOut(conversion, entries, &layout);
  const std::optional<MsgFmt_Arg> entry = entries.next();
  return laidOut && entry && conversion.wellFormed() && putValue(conversion, layout, *entry, entries, out);
}

char* format(std::size_t* length, const char* templ, Entries entries) {
  const char* const end = templ + std::strlen(templ);
  Text out(static_cast<std::size_t>(end - templ) + kUsualGrowth);
  const char* at = templ;
  while (at != end && !out.full()) {
    const auto* percent = static_cast<const char*>(std::memchr(at, '%', static_cast<std::size_t>(end - at)));
    if (percent == nullptr) percent = end;
    out.append(at, static_cast<std::size_t>(percent - at));
    if (percent == end) break;
    const Conversion conversion = msgfmt::readConversion(percent);
    if (!putConversion(conversion, entries, out)) out.append(conversion.begin, conversion.text().size());
    at = conversion.end;
  }
  return out.release(length);
}

}  // namespace

char* MsgFmt_Asprintf(std::size_t* length, const char* format, const void* array, std::uint32_t count) {
  return ::format(length, format, Entries::local(array, count));
}

char* MsgFmt_AsprintfSwizzled(std::size_t* length, const char* format, const void* area, std::size_t areaSize,
                              std::uint32_t count) {
  return ::format(length, format, Entries::swizzled(area, areaSize, count));
}
