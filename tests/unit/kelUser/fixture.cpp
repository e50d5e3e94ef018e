#include "fixture.h"

#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <future>

#include "kel/localAddress.h"
#include "kel/record.h"
#include "platform/kel.h"

namespace {

bool waitForInput(int fd, int milliseconds) {
  pollfd state{fd, POLLIN, 0};
  return ::poll(&state, 1, milliseconds) == 1;
}

}  // namespace

Batch Connection::next() const {
  EXPECT_TRUE(waitForInput(fd_.get(), kDeadlineMilliseconds)) << "nothing came";
  Batch batch(KEL_USER_BATCH_LIMIT_BYTES);
  const ssize_t length = ::recv(fd_.get(), batch.data(), batch.size(), MSG_DONTWAIT);
  batch.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
  return batch;
}

std::vector<std::string> Connection::nextIds() const {
  const Batch batch = next();
  std::vector<std::string> ids;
  for (std::size_t at = 0; at < batch.size();) {
    const std::size_t length = platform::loadRecordHeader(batch.data() + at).length;
    Kel_RecordView view;
    if (length > batch.size() - at || !Kel_ViewRecord(batch.data() + at, length, &view)) {
      ADD_FAILURE() << "no record at " << at;
      break;
    }
    ids.emplace_back(view.id);
    at += length;
  }
  return ids;
}

pid_t Connection::peer() const {
  ucred credentials{};
  socklen_t size = sizeof credentials;
  EXPECT_EQ(::getsockopt(fd_.get(), SOL_SOCKET, SO_PEERCRED, &credentials, &size), 0);
  return credentials.pid;
}

Listener::Listener(const std::string& path, int backlog)
    : path_(path), fd_(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
  sockaddr_un address;
  EXPECT_EQ(platform::localAddress(path, &address), 0);
  EXPECT_EQ(::bind(fd_.get(), platform::socketAddress(address), sizeof address), 0) << path;
  EXPECT_EQ(::listen(fd_.get(), backlog), 0);
}

Listener::~Listener() {
  ::unlink(path_.c_str());
}

Connection Listener::accept() const {
  EXPECT_TRUE(waitForInput(fd_.get(), kDeadlineMilliseconds)) << "nobody came";
  return Connection(hasClient() ? ::accept4(fd_.get(), nullptr, nullptr, SOCK_CLOEXEC) : -1);
}

bool Listener::hasClient() const {
  return waitForInput(fd_.get(), 0);
}

KelUserTest::KelUserTest() {
  std::string pattern = (std::filesystem::temp_directory_path() / "kel-user-XXXXXX").string();
  EXPECT_NE(::mkdtemp(pattern.data()), nullptr);
  directory_ = pattern;
  std::filesystem::create_directory(directory_ + "/kel");
  ::setenv("KORVEL_RUN_DIR", directory_.c_str(), 1);
}

KelUserTest::~KelUserTest() {
  ::unsetenv("KORVEL_RUN_DIR");
  std::filesystem::remove_all(directory_);
}

Handle KelUserTest::open(int limitMilliseconds) {
  kel_user* made = nullptr;
  EXPECT_EQ(kel_user_open(limitMilliseconds, &made), 0);
  return Handle(made);
}

int KelUserTest::emit(const Handle& handle, const std::string& id) {
  return kel_user_emit(handle.get(), id.c_str(), nullptr, nullptr, 0);
}

bool KelUserTest::eventuallyEmits(const Handle& handle, const std::string& id) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kDeadlineMilliseconds);
  while (emit(handle, id) != 0) {
    if (std::chrono::steady_clock::now() >= end) return false;
    constexpr int kProbeMilliseconds = 5;
    ::poll(nullptr, 0, kProbeMilliseconds);
  }
  return true;
}

kel_user_counters KelUserTest::counts(const Handle& handle) {
  kel_user_counters counters{};
  EXPECT_EQ(kel_user_counts(handle.get(), &counters), 0);
  return counters;
}

KelUserTest::Connected KelUserTest::connect(const Listener& listener, int limitMilliseconds) {
  Handle handle = open(limitMilliseconds);
  auto emitted = std::async(std::launch::async, [&] { return emit(handle, "kel.user.first"); });
  Connection connection = listener.accept();
  EXPECT_EQ(connection.nextIds(), (std::vector<std::string>{"kel.user.first"}));
  EXPECT_EQ(emitted.get(), 0);
  return {std::move(handle), std::move(connection)};
}
