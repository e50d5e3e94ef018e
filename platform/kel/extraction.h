// Reading typed arguments out of a checked argument area, one by one or along a format.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

namespace platform {

/// A swizzled argument array and the strings behind it, up to `end`; checked by Kel_ViewRecord.
struct ArgumentArea {
  const char* array = nullptr;
  const char* end = nullptr;
  std::uint32_t count = 0;
};

/// As Kel_GetIntArg, Kel_GetUintArg and Kel_GetStringArg.
int integerArgument(const ArgumentArea& area, std::size_t index, std::int64_t* value);
int unsignedArgument(const ArgumentArea& area, std::size_t index, std::uint64_t* value);
int stringArgument(const ArgumentArea& area, std::size_t index, const char** value);

/// Whether the arguments from number `first` on fit `format`: 0 or the status of Kel_GetArgs.
int checkExtraction(const ArgumentArea& area, std::size_t first, const char* format);

/// Stores the arguments through the pointers in `outputs`; checkExtraction has found that they fit.
void extract(const ArgumentArea& area, std::size_t first, const char* format, std::va_list outputs);

}  // namespace platform
