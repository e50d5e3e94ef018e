#include "platform/str.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

char* Str_Asprintf(std::size_t* length, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  char* text = nullptr;
  const int written = vasprintf(&text, format, arguments);
  va_end(arguments);
  if (written < 0) return nullptr;
  if (length != nullptr) *length = static_cast<std::size_t>(written);
  return text;
}

char* Str_Strcpy(char* destination, const char* source, std::size_t size) {
  const std::size_t length = strnlen(source, size);
  if (length == size) {
    if (size != 0) destination[0] = '\0';
    return nullptr;
  }
  std::memcpy(destination, source, length + 1);
  return destination;
}
