#include "kel/contextSocket.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "host/files.h"
#include "host/paths.h"
#include "kel/localAddress.h"

namespace platform {

namespace {

constexpr mode_t kOwnerOnly = 0600;
/// Connections that may wait to be accepted; the daemon serves eight at a time.
constexpr int kListenBacklog = 16;

int makeContextDirectory() {
  const std::string runs = runDirectory();
  const std::string directory = contextDirectory(runs);
  if (const int status = makePrivateDirectory(directory); status != 0) return status;
  // Members of the group must be able to walk to the sockets. A run directory of another user keeps
  // the access that they gave it.
  struct stat facts {};
  if (::stat(runs.c_str(), &facts) == 0 && facts.st_uid == ::geteuid()) shareWithGroup(runs, true);
  shareWithGroup(directory, true);
  return 0;
}

/// Removes the socket file at the address unless a process still holds it.
int removeStaleSocket(const sockaddr_un& address) {
  struct stat facts {};
  if (::lstat(address.sun_path, &facts) != 0) return errno == ENOENT ? 0 : errno;
  if (!S_ISSOCK(facts.st_mode)) return EEXIST;
  // Contexts are never stream sockets: a live one answers EPROTOTYPE and does not notice.
  const UniqueFd probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!probe) return errno;
  if (::connect(probe.get(), socketAddress(address), sizeof address) == 0 || errno == EPROTOTYPE) return EADDRINUSE;
  if (errno != ECONNREFUSED) return errno;
  return ::unlink(address.sun_path) == 0 || errno == ENOENT ? 0 : errno;
}

}  // namespace

std::string contextPath(const std::string& name) {
  return contextPath(runDirectory(), name);
}

int askForCredentials(int fd) {
  const int on = 1;
  return ::setsockopt(fd, SOL_SOCKET, SO_PASSCRED, &on, sizeof on) == 0 ? 0 : errno;
}

int ContextSocket::open(const std::string& name, int type) {
  const std::string path = contextPath(name);
  sockaddr_un address;
  if (const int status = localAddress(path, &address); status != 0) return status;
  if (const int status = makeContextDirectory(); status != 0) return status;
  if (const int status = removeStaleSocket(address); status != 0) return status;

  UniqueFd fd(::socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd) return errno;
  if (const int status = askForCredentials(fd.get()); status != 0) return status;
  // The file takes the mode of the socket, so that there is no moment at which others get in.
  if (::fchmod(fd.get(), kOwnerOnly) != 0) return errno;
  if (::bind(fd.get(), socketAddress(address), sizeof address) != 0) return errno;
  path_ = path;
  fd_ = std::move(fd);
  struct stat facts {};
  if (::lstat(path_.c_str(), &facts) != 0) return errno;
  device_ = facts.st_dev;
  inode_ = facts.st_ino;
  shareWithGroup(path_, false);
  if (type != SOCK_DGRAM && ::listen(fd_.get(), kListenBacklog) != 0) return errno;
  return 0;
}

ContextSocket::~ContextSocket() {
  struct stat facts {};
  if (!fd_ || ::lstat(path_.c_str(), &facts) != 0) return;
  if (facts.st_dev == device_ && facts.st_ino == inode_) ::unlink(path_.c_str());
}

}  // namespace platform
