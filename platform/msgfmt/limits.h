// Bounds on what a template can ask for, since templates arrive in records from outside.
#pragma once

#include <cstddef>

namespace msgfmt {

/// Widest field, and largest precision of a number, that is honoured; more counts as this much.
inline constexpr std::size_t kMaxFieldWidth = 4096;

/// Longest formatted text in bytes, without its NUL; what goes beyond is cut off.
inline constexpr std::size_t kMaxTextBytes = std::size_t{1} << 20;

}  // namespace msgfmt
