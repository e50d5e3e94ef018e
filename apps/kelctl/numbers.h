// Numbers as an operator writes them.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string_view>

namespace kelctl {

/// "123" or "0x7b" up to `most`; nothing where the text is anything else or beyond.
std::optional<std::uint64_t> parseUnsigned(std::string_view text,
                                           std::uint64_t most = std::numeric_limits<std::uint64_t>::max());

/// A number of bytes: a decimal number, with K, M, G or T behind it in 1024, 1024 KiB and so on. Nothing
/// where the text is anything else or beyond 64 bits.
std::optional<std::uint64_t> parseSize(std::string_view text);

/// A signed integer of `bits` (32 or 64): decimal within its range, or 0x… as the bit pattern, so
/// that 0xffffffff of 32 bits is -1. Nothing where the text is anything else.
std::optional<std::int64_t> parseSigned(std::string_view text, unsigned bits);

/// Decimal floating point, also "inf" and "nan"; nothing where the text is anything else or out of
/// a double's range.
std::optional<double> parseDouble(std::string_view text);

}  // namespace kelctl
