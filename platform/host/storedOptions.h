// The option values that were set, in the instance's database.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "host/host.h"

namespace platform {

/// The stored value of one option, if any. Any thread; a few file accesses, as the database stays
/// open in between. An absent database stores nothing.
Answer<std::optional<std::int64_t>> storedOption(const std::string& name);

/// All stored values by name.
Answer<std::map<std::string, std::int64_t>> storedOptions();

/// Stores a value; the database is made where it is missing.
Outcome storeOption(const std::string& name, std::int64_t value);

}  // namespace platform
