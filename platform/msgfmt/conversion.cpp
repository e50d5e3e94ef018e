#include "msgfmt/conversion.h"

#include <climits>

namespace msgfmt {

namespace {

unsigned flagOf(char character) {
  switch (character) {
    case '-':
      return kLeft;
    case '+':
      return kPlus;
    case ' ':
      return kSpace;
    case '#':
      return kAlternate;
    case '0':
      return kZero;
    case '\'':
      return kGroup;
    default:
      return 0;
  }
}

bool isDigit(char character) {
  return character >= '0' && character <= '9';
}

const char* readDigits(const char* at, int* value) {
  int total = 0;
  for (; isDigit(*at); ++at) {
    const int digit = *at - '0';
    total = total > (INT_MAX - digit) / 10 ? INT_MAX : total * 10 + digit;
  }
  *value = total;
  return at;
}

const char* readMeasure(const char* at, Measure* measure) {
  if (*at == '*') {
    measure->from = Measure::From::argument;
    return at + 1;
  }
  if (!isDigit(*at)) return at;
  measure->from = Measure::From::digits;
  return readDigits(at, &measure->value);
}

const char* readSize(const char* at, SizeLetter* size) {
  switch (*at) {
    case 'h':
      *size = at[1] == 'h' ? SizeLetter::hh : SizeLetter::h;
      return at + (at[1] == 'h' ? 2 : 1);
    case 'l':
      *size = at[1] == 'l' ? SizeLetter::ll : SizeLetter::l;
      return at + (at[1] == 'l' ? 2 : 1);
    case 'z':
      *size = SizeLetter::z;
      return at + 1;
    case 'j':
      *size = SizeLetter::j;
      return at + 1;
    case 't':
      *size = SizeLetter::t;
      return at + 1;
    case 'L':
      *size = SizeLetter::longDouble;
      return at + 1;
    default:
      return at;
  }
}

Converts convertsOf(char letter) {
  switch (letter) {
    case 'd':
    case 'i':
      return Converts::signedInteger;
    case 'u':
    case 'x':
    case 'X':
    case 'o':
      return Converts::unsignedInteger;
    case 'c':
      return Converts::character;
    case 'p':
      return Converts::pointer;
    case 'a':
    case 'A':
    case 'e':
    case 'E':
    case 'f':
    case 'F':
    case 'g':
    case 'G':
      return Converts::floating;
    case 's':
      return Converts::text;
    default:
      return Converts::unknown;
  }
}

}  // namespace

bool Conversion::wellFormed() const {
  switch (converts) {
    case Converts::percent:
      return true;
    case Converts::signedInteger:
    case Converts::unsignedInteger:
      return size != SizeLetter::longDouble;
    case Converts::floating:
      return size == SizeLetter::none || size == SizeLetter::l || size == SizeLetter::longDouble;
    case Converts::character:
    case Converts::pointer:
    case Converts::text:
      return size == SizeLetter::none;
    case Converts::unknown:
      break;
  }
  return false;
}

Conversion readConversion(const char* percent) {
  Conversion conversion;
  conversion.begin = percent;
  const char* at = percent + 1;
  if (*at == '%') {
    conversion.letter = '%';
    conversion.converts = Converts::percent;
    conversion.end = at + 1;
    return conversion;
  }
  for (unsigned flag = flagOf(*at); flag != 0; flag = flagOf(*at)) {
    conversion.flags |= flag;
    ++at;
  }
  at = readMeasure(at, &conversion.width);
  if (*at == '.') {
    // A lone point is a precision of 0.
    conversion.precision.from = Measure::From::digits;
    at = readMeasure(at + 1, &conversion.precision);
  }
  at = readSize(at, &conversion.size);
  conversion.letter = *at;
  conversion.converts = convertsOf(*at);
  conversion.end = *at == '\0' || *at == '%' ? at : at + 1;
  return conversion;
}

}  // namespace msgfmt
