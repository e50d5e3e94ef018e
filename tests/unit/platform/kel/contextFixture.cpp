#include "contextFixture.h"

#include <grp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "kel/localAddress.h"

using records::Bytes;

Client::Client(int type, const std::string& path) : fd_(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0)) {
  sockaddr_un address;
  EXPECT_EQ(platform::localAddress(path, &address), 0);
  EXPECT_EQ(::connect(fd_.get(), platform::socketAddress(address), sizeof address), 0)
      << path << ": " << std::strerror(errno);
}

void Client::send(const Bytes& message, const std::vector<int>& passed) const {
  iovec place{const_cast<char*>(message.data()), message.size()};
  std::vector<char> control(CMSG_SPACE(passed.size() * sizeof(int)));
  msghdr header{};
  header.msg_iov = &place;
  header.msg_iovlen = 1;
  if (!passed.empty()) {
    header.msg_control = control.data();
    header.msg_controllen = control.size();
    cmsghdr* part = CMSG_FIRSTHDR(&header);
    part->cmsg_level = SOL_SOCKET;
    part->cmsg_type = SCM_RIGHTS;
    part->cmsg_len = CMSG_LEN(passed.size() * sizeof(int));
    std::memcpy(CMSG_DATA(part), passed.data(), passed.size() * sizeof(int));
  }
  ASSERT_EQ(::sendmsg(fd_.get(), &header, MSG_DONTWAIT | MSG_NOSIGNAL), static_cast<ssize_t>(message.size()))
      << std::strerror(errno);
}

bool Client::sendAsForeigner(const std::vector<Bytes>& messages) const {
  constexpr unsigned kForeignId = 65534;
  constexpr int kNotRoot = 255;
  const pid_t child = ::fork();
  if (child == 0) {
    if (::setgroups(0, nullptr) != 0 || ::setresgid(kForeignId, kForeignId, kForeignId) != 0 ||
        ::setresuid(kForeignId, kForeignId, kForeignId) != 0) {
      ::_exit(kNotRoot);
    }
    for (const Bytes& message : messages) {
      if (::send(fd_.get(), message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0) ::_exit(1);
    }
    ::_exit(0);
  }
  int status = 0;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == kNotRoot) return false;
  EXPECT_EQ(WEXITSTATUS(status), 0);
  return true;
}

Context ContextTest::openAsync(std::uint32_t number) {
  KelLib_Handle handle = nullptr;
  EXPECT_EQ(KelLib_AsyncContextOpen(number, &handle), 0);
  return Context(handle);
}

Context ContextTest::openUser() {
  KelLib_Handle handle = nullptr;
  EXPECT_EQ(KelLib_UserContextOpen(24, &handle), 0);
  return Context(handle);
}

int ContextTest::fdOf(const Context& context) {
  int fd = -1;
  EXPECT_EQ(KelLib_HandleToFd(context.get(), &fd), 0);
  return fd;
}

ReadResult ContextTest::read(int fd, std::size_t capacity) {
  ReadResult result;
  result.bytes.resize(capacity);
  std::size_t length = 4711;
  result.status = KelLib_ReadFromFd(fd, result.bytes.data(), capacity, &length);
  EXPECT_LE(length, capacity);
  result.bytes.resize(length);
  return result;
}

int ContextTest::pollOf(int fd) {
  pollfd state{fd, POLLIN, 0};
  EXPECT_GE(::poll(&state, 1, 0), 0);
  return state.revents;
}

int ContextTest::accept(const Context& user) {
  int fd = -1;
  EXPECT_EQ(KelLib_UserContextNewCnx(user.get(), &fd), 0);
  return fd;
}

Client ContextTest::injector(const std::string& name) const {
  return {SOCK_DGRAM, socketPath(name)};
}

Client ContextTest::service() const {
  return {SOCK_SEQPACKET, socketPath("user")};
}

unsigned modeOf(const std::string& path) {
  struct stat facts {};
  EXPECT_EQ(::stat(path.c_str(), &facts), 0) << path;
  return facts.st_mode & 07777;
}
