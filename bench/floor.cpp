// The floor: datagram, thread, pipe, thread, as the daemon does it, and nothing else. With "log" a datagram
// goes to the system log for each record. An identifier that ends in ".marker", or any record with "event",
// goes on to the event socket on a connection of its own.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace {

constexpr int kContexts = 24;
constexpr std::size_t kMaxBatch = 131072;
constexpr std::string_view kPrefixes[] = {"kel.net.", "kel.bench1.", "kel.bench2.", "kel.bench3.", "kel.bench4."};
constexpr std::size_t kAgents = std::size(kPrefixes);

[[noreturn]] void fail(const char* what) {
  std::perror(what);
  std::exit(1);
}

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

int bound(const std::string& path, int type) {
  const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
  const sockaddr_un address = addressOf(path);
  unlink(path.c_str());
  if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) fail(path.c_str());
  return fd;
}

int connected(const std::string& path, int type) {
  const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
  const sockaddr_un address = addressOf(path);
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) fail(path.c_str());
  return fd;
}

void readAll(int fd, char* data, std::size_t size) {
  while (size != 0) {
    const ssize_t got = read(fd, data, size);
    if (got <= 0) fail("pipe");
    data += got;
    size -= static_cast<std::size_t>(got);
  }
}

void agent(int pipeEnd, bool log, bool event, const std::string& eventSocket) {
  const int logSocket = log ? connected("/dev/log", SOCK_DGRAM) : -1;
  std::vector<char> record(kMaxBatch);
  while (true) {
    pollfd set{pipeEnd, POLLIN, 0};
    if (poll(&set, 1, -1) != 1) fail("poll");
    readAll(pipeEnd, record.data(), 32);
    std::uint32_t length = 0;
    std::memcpy(&length, record.data() + 16, sizeof length);
    readAll(pipeEnd, record.data() + 32, length - 32);
    const bool marker = std::string_view(record.data() + 32).ends_with(".marker");
    if (log && send(logSocket, record.data(), 150, 0) < 0) fail("log");
    if (!event && !marker) continue;
    const int connection = connected(eventSocket, SOCK_STREAM);
    if (send(connection, record.data(), length, 0) < 0) fail("event");
    close(connection);
  }
}

}  // namespace

int main(int argc, char** argv) {
  bool log = false;
  bool event = false;
  for (int n = 1; n < argc; ++n) {
    log |= std::string_view(argv[n]) == "log";
    event |= std::string_view(argv[n]) == "event";
  }
  const std::string run = std::getenv("KORVEL_RUN_DIR");
  int pipes[kAgents][2];
  for (auto& ends : pipes) {
    if (pipe2(ends, O_CLOEXEC) != 0) fail("pipe");
    std::thread(agent, ends[0], log, event, run + "/hagd-vprob.sock").detach();
  }
  pollfd set[kContexts];
  for (int n = 0; n < kContexts; ++n) {
    char name[32];
    std::snprintf(name, sizeof name, "/kel/async-%02d.sock", n);
    set[n] = {bound(run + name, SOCK_DGRAM), POLLIN, 0};
    const int size = 1 << 20;
    setsockopt(set[n].fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
  }
  listen(bound(run + "/keld-trace.sock", SOCK_STREAM), 8);
  std::vector<char> batch(kMaxBatch);
  while (true) {
    if (poll(set, kContexts, -1) < 0) fail("poll");
    for (const pollfd& slot : set) {
      if ((slot.revents & POLLIN) == 0) continue;
      const ssize_t length = recv(slot.fd, batch.data(), batch.size(), 0);
      std::uint32_t total = 0;
      for (const char* record = batch.data(); record < batch.data() + length; record += total) {
        std::memcpy(&total, record + 16, sizeof total);
        for (std::size_t n = 0; n < kAgents; ++n) {
          if (std::strncmp(record + 32, kPrefixes[n].data(), kPrefixes[n].size()) != 0) continue;
          if (write(pipes[n][1], record, total) != static_cast<ssize_t>(total)) fail("write");
        }
      }
    }
  }
}
