// Where the sockets of contexts are under a run directory.
#pragma once

#include <cstdint>
#include <string>

#include "platform/kellib.h"

namespace platform {

/// "async-00" to "async-23" for kernel contexts, "user" for the user-level one.
inline std::string contextName(std::uint32_t number) {
  if (number >= KELLIB_ASYNC_CONTEXTS) return "user";
  return {'a', 's', 'y', 'n', 'c', '-', static_cast<char>('0' + number / 10), static_cast<char>('0' + number % 10)};
}

inline std::string contextDirectory(const std::string& runDirectory) {
  return runDirectory + "/kel";
}

/// Path of the socket of the context of that name.
inline std::string contextPath(const std::string& runDirectory, const std::string& name) {
  return contextDirectory(runDirectory) + "/" + name + ".sock";
}

}  // namespace platform
