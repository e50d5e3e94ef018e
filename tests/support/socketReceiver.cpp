#include "socketReceiver.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace support {

SocketReceiver::SocketReceiver(const std::string& path, int backlog)
    : path_(path), fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  if (bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 || listen(fd_, backlog) != 0) {
    throw std::runtime_error("cannot listen at " + path);
  }
}

SocketReceiver::~SocketReceiver() {
  close(fd_);
  unlink(path_.c_str());
}

std::vector<std::string> SocketReceiver::take() {
  std::vector<std::string> received;
  while (true) {
    const int connection = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection < 0) return received;
    std::string bytes;
    char part[4096];
    for (ssize_t got = 0; (got = read(connection, part, sizeof part)) > 0;)
      bytes.append(part, static_cast<std::size_t>(got));
    close(connection);
    received.push_back(bytes);
  }
}

TemporaryDirectory::TemporaryDirectory()
    : path_((std::filesystem::temp_directory_path() / "keld-test-XXXXXX").string()) {
  if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("no temporary directory");
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

}  // namespace support
