// The management agent's side of the event socket, for tests: takes connections and keeps what each sent.
#pragma once

#include <string>
#include <vector>

namespace support {

/// Listens at a path while it lives. Used by one thread.
class SocketReceiver {
 public:
  explicit SocketReceiver(const std::string& path, int backlog = 16);
  SocketReceiver(const SocketReceiver&) = delete;
  SocketReceiver& operator=(const SocketReceiver&) = delete;
  ~SocketReceiver();

  /// Everything that the connections made so far have sent, one text each, in their order. Each
  /// must have been closed by its sender.
  std::vector<std::string> take();

 private:
  std::string path_;
  int fd_;
};

/// A directory of its own, removed at the end.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
  ~TemporaryDirectory();
  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace support
