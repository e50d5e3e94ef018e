// The kernel's advanced integer options as this platform keeps them.
//
// A value comes from the store (option set, or -e), else from the host, else from options.conf,
// else from the built-in defaults.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host/host.h"

namespace platform {

struct OptionFacts {
  std::string name;  ///< GROUP/NAME
  std::int64_t value = 0;
  std::string origin;  ///< "stored", "host", "options.conf" or "default"
};

/// The option's value now. ENOENT where nothing names it. Any thread, as all functions here.
Answer<OptionFacts> readOption(const std::string& name);
/// Stores a value and tells the host. EINVAL where the name is not of the form GROUP/NAME.
Outcome setOption(const std::string& name, std::int64_t value);
/// Every option that is known from any origin and can be read, by name.
std::vector<OptionFacts> listOptions();

}  // namespace platform
