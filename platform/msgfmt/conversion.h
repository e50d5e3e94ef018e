// The grammar of a message template: finding its conversions. Shared by reading arguments and by
// formatting, so that both count the same entries.
#pragma once

#include <cstddef>
#include <string_view>

namespace msgfmt {

/// What a conversion converts. `percent` ("%%") and `unknown` take no argument.
enum class Converts { percent, signedInteger, unsignedInteger, character, pointer, floating, text, unknown };

enum class SizeLetter { none, hh, h, l, ll, z, j, t, longDouble };

enum Flag : unsigned { kLeft = 1, kPlus = 2, kSpace = 4, kAlternate = 8, kZero = 16, kGroup = 32 };

/// A width or precision.
struct Measure {
  enum class From { absent, digits, argument } from = From::absent;
  int value = 0;  ///< of `digits`; past INT_MAX it stays there
};

/// One conversion of a template.
struct Conversion {
  const char* begin = nullptr;  ///< its '%'
  const char* end = nullptr;    ///< behind its last character
  unsigned flags = 0;           ///< of Flag
  Measure width;
  Measure precision;
  SizeLetter size = SizeLetter::none;
  char letter = '\0';
  Converts converts = Converts::unknown;

  [[nodiscard]] std::string_view text() const { return {begin, static_cast<std::size_t>(end - begin)}; }
  /// False where no argument can serve it: unknown letters, wide text, and sizes that the letter
  /// does not take.
  [[nodiscard]] bool wellFormed() const;
};

/// Reads the conversion whose '%' is at `percent`. One that breaks off, at the template's end or at
/// another '%', is unknown and ends there, so that "50% %d" still has its "%d".
Conversion readConversion(const char* percent);

}  // namespace msgfmt
