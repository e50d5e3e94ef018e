// How much a storm sends.
#pragma once

#include <cstdlib>
#include <string>

namespace e2e {

/// Whether this build looks at every access to memory, and so takes many times as long.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kSanitized = true;
#elif defined(__has_feature)
inline constexpr bool kSanitized = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
inline constexpr bool kSanitized = false;
#endif

/// As many observations as KELD_STORM says, `usually` where it says nothing.
inline std::size_t stormSize(std::size_t usually) {
  const char* const wanted = std::getenv("KELD_STORM");
  return wanted != nullptr ? std::stoul(wanted) : usually;
}

}  // namespace e2e
