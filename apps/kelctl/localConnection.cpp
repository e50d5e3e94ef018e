#include "localConnection.h"

#include <sys/socket.h>

#include <cerrno>

#include "host/paths.h"
#include "kel/localAddress.h"

namespace kelctl {

std::string runPath(const std::string& name) {
  return platform::runDirectory() + '/' + name;
}

int connectStream(const std::string& path, platform::UniqueFd* connected) {
  sockaddr_un address;
  if (const int status = platform::localAddress(path, &address); status != 0) return status;
  platform::UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd) return errno;
  while (::connect(fd.get(), platform::socketAddress(address), sizeof address) != 0) {
    if (errno != EINTR) return errno;
  }
  *connected = std::move(fd);
  return 0;
}

}  // namespace kelctl
