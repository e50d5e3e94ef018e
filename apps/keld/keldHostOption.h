// The host's advanced integer options.
#pragma once

#include <cstdint>
#include <optional>

namespace keld {

/// The current value of option GROUP/NAME; nothing where it cannot be read. From any thread.
std::optional<std::int64_t> readIntegerOption(const char* group, const char* name);

}  // namespace keld
