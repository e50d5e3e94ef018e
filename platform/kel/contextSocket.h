// The sockets in the run directory that belong to contexts.
#pragma once

#include <sys/types.h>

#include <string>

#include "host/uniqueFd.h"
#include "kel/contextPath.h"

namespace platform {

/// Path of that context's socket under the run directory in force.
std::string contextPath(const std::string& name);

/// A bound socket and its file, which goes away with it unless another has taken its place.
class ContextSocket {
 public:
  ContextSocket() = default;
  ContextSocket(const ContextSocket&) = delete;
  ContextSocket& operator=(const ContextSocket&) = delete;
  ~ContextSocket();

  /// Binds a non-blocking socket of `type` (SOCK_DGRAM, or SOCK_SEQPACKET, which then listens) at the
  /// path of context `name`, owner-only but for the configured group, and has it tell the credentials
  /// of senders. A socket file that no process holds is replaced. Returns 0 or an errno value,
  /// EADDRINUSE where the context is open already, here or in another process.
  int open(const std::string& name, int type);

  [[nodiscard]] int fd() const { return fd_.get(); }

 private:
  UniqueFd fd_;
  std::string path_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

/// Has the socket tell the credentials of senders with each message. Returns 0 or an errno value.
int askForCredentials(int fd);

}  // namespace platform
