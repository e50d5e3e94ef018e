// Addresses of local sockets.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace platform {

/// Stores the address of a socket file. Returns 0, or ENAMETOOLONG where the path does not fit (unix(7)).
inline int localAddress(const std::string& path, sockaddr_un* address) {
  if (path.size() >= sizeof address->sun_path) return ENAMETOOLONG;
  *address = {};
  address->sun_family = AF_UNIX;
  std::memcpy(address->sun_path, path.c_str(), path.size() + 1);
  return 0;
}

/// The address as the socket calls take it.
inline const sockaddr* socketAddress(const sockaddr_un& address) {
  return reinterpret_cast<const sockaddr*>(&address);
}

}  // namespace platform
