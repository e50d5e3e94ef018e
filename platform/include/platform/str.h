// Bounded string helpers.
#pragma once

#include <cstddef>

/// Formats into a string to release with free(), with its length in `*length` unless that is null.
/// nullptr on failure.
char* Str_Asprintf(std::size_t* length, const char* format, ...) __attribute__((format(printf, 2, 3)));

/// Copies `source` with its NUL into `destination` of `size` bytes. Returns `destination`, or
/// nullptr, leaving an empty string (where size is not 0), if it does not fit.
char* Str_Strcpy(char* destination, const char* source, std::size_t size);
