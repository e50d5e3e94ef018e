// What a user may emit who is neither root nor the daemon's own.
#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <filesystem>

#include "endToEnd.h"
#include "fakeTime.h"

namespace e2e {
namespace {

constexpr unsigned kForeignId = 65534;

/// In a child: becomes another user of one group and no more.
void becomeForeigner() {
  const gid_t group = kForeignId;
  if (::setgroups(1, &group) != 0 || ::setresgid(group, group, group) != 0 ||
      ::setresuid(kForeignId, kForeignId, kForeignId) != 0) {
    ::_exit(255);
  }
}

/// In a child of another user: connects and sends each batch. The child's exit status is 0, or the
/// errno value of what was refused.
int sendAsForeigner(int type, const std::string& path, const std::vector<Batch>& batches) {
  const sockaddr_un address = localAddress(path);
  const pid_t child = ::fork();
  if (child < 0) throwErrno("fork");
  if (child == 0) {
    becomeForeigner();
    const int fd = ::socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) ::_exit(errno);
    for (const Batch& batch : batches) {
      if (::send(fd, batch.data(), batch.size(), MSG_NOSIGNAL) < 0) ::_exit(errno);
    }
    ::_exit(0);
  }
  int status = 0;
  if (::waitpid(child, &status, 0) != child) throwErrno("waitpid");
  return WIFEXITED(status) ? WEXITSTATUS(status) : 256;
}

/// Runs the operator's tool as another user. Its exit status, or 127 where that user cannot run it.
int kelctlAsForeigner(const Workspace& workspace, const std::vector<std::string>& words) {
  std::vector<std::string> all{KELCTL_PROGRAM};
  all.insert(all.end(), words.begin(), words.end());
  std::string runs = "KORVEL_RUN_DIR=" + workspace.runDirectory();
  std::vector<char*> arguments;
  arguments.reserve(all.size() + 1);
  for (std::string& word : all) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  char* const environment[] = {runs.data(), nullptr};
  const pid_t child = ::fork();
  if (child < 0) throwErrno("fork");
  if (child == 0) {
    becomeForeigner();
    ::execve(KELCTL_PROGRAM, arguments.data(), environment);
    ::_exit(127);
  }
  int status = 0;
  if (::waitpid(child, &status, 0) != child) throwErrno("waitpid");
  return WIFEXITED(status) ? WEXITSTATUS(status) : 256;
}

/// A process of another user with one connection, which sends when it is told to.
class ForeignClient {
 public:
  explicit ForeignClient(const std::string& path) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) throwErrno("socketpair");
    told_ = Descriptor(ends[0]);
    const Descriptor teller(ends[1]);
    const sockaddr_un address = localAddress(path);
    pid_ = ::fork();
    if (pid_ < 0) throwErrno("fork");
    if (pid_ == 0) serve(teller.get(), address);
  }
  ForeignClient(const ForeignClient&) = delete;
  ForeignClient& operator=(const ForeignClient&) = delete;
  ~ForeignClient() {
    told_.close();
    ::waitpid(pid_, nullptr, 0);
  }

  [[nodiscard]] pid_t pid() const { return pid_; }
  void send(const Batch& batch) const {
    if (::send(told_.get(), batch.data(), batch.size(), MSG_NOSIGNAL) < 0) throwErrno("send to the foreign client");
  }

 private:
  [[noreturn]] void serve(int teller, const sockaddr_un& address) const {
    ::close(told_.get());
    becomeForeigner();
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) ::_exit(1);
    char batch[4096];
    ssize_t length = 0;
    while ((length = ::recv(teller, batch, sizeof batch, 0)) > 0) {
      if (::send(fd, batch, static_cast<std::size_t>(length), MSG_NOSIGNAL) < 0) ::_exit(1);
    }
    ::_exit(0);
  }

  Descriptor told_;
  pid_t pid_ = -1;
};

/// The platform's line about a dropped batch, whoever sent it.
bool isDrop(const LogLine& line) {
  return line.text.starts_with("kelplat: user: dropped a batch of ");
}

/// The machine's own root, who can become another user.
bool canBecomeForeigner() {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(::setgroups(0, nullptr) == 0 && ::setresuid(kForeignId, kForeignId, kForeignId) == 0 ? 0 : 1);
  int status = 1;
  return child > 0 && ::waitpid(child, &status, 0) == child && status == 0;
}

class Privilege : public EndToEnd {
 protected:
  void SetUp() override {
    EndToEnd::SetUp();
    if (IsSkipped()) return;
    if (!canBecomeForeigner()) GTEST_SKIP() << "not root, so nobody else's connection can be tried";
    ::chmod(workspace().root().c_str(), 0711);
  }
  /// Lets the foreigner's group in. False where that group has no name here.
  bool admitForeigners() {
    const group* entry = ::getgrgid(kForeignId);
    if (entry == nullptr) return false;
    workspace().setPlatformConf("access.group = " + std::string(entry->gr_name) + "\n");
    return true;
  }
};

TEST_F(Privilege, AForeignUserOfTheAdmittedGroupMayEmitUserAndExternalObservationsOnly) {
  if (!admitForeigners()) GTEST_SKIP() << "group " << kForeignId << " has no name";
  Daemon daemon(workspace());
  daemon.startAndServe();
  const std::vector<Batch> batches{
      record("kel.user.allowed"),
      record("kel.net.firewall.disabled"),
      record("kel.user"),
      record("kel.userx.forbidden"),
      record("kel.externalx.forbidden"),
      record("kel.hardware.forbidden"),
      record("user.forbidden"),
      joined(record("kel.user.mixed"), record("kel.net.firewall.disabled")),
      joined(record("kel.net.firewall.disabled"), record("kel.external.mixed")),
      record("kel.external.allowed"),
      joined(record("kel.user.both"), record("kel.external.both")),
      record("kel.user.last"),
  };
  ASSERT_EQ(sendAsForeigner(SOCK_SEQPACKET, workspace().userSocket(), batches), 0);
  std::vector<std::string> ids;
  for (const TraceLine& line : daemon.trace().readThrough("IN", "kel.user.last")) ids.push_back(line.id);
  EXPECT_EQ(ids, (std::vector<std::string>{"kel.user.allowed", "kel.external.allowed", "kel.user.both",
                                           "kel.external.both", "kel.user.last"}));
  EXPECT_TRUE(daemon.comesToRest());
}

TEST_F(Privilege, AForeignUserOfTheAdmittedGroupCannotInjectIntoAKernelContext) {
  if (!admitForeigners()) GTEST_SKIP() << "group " << kForeignId << " has no name";
  Daemon daemon(workspace());
  daemon.startAndServe();
  sendAsForeigner(SOCK_DGRAM, workspace().contextSocket(0), {record("kel.net.firewall.disabled")});
  EXPECT_TRUE(settle(daemon, Emitter::toContext(workspace())).empty());
}

TEST_F(Privilege, AForeignUserOfTheAdmittedGroupMayWatchTheTrace) {
  if (!admitForeigners()) GTEST_SKIP() << "group " << kForeignId << " has no name";
  Daemon daemon(workspace());
  daemon.startAndServe();
  EXPECT_EQ(sendAsForeigner(SOCK_STREAM, workspace().traceSocket(), {}), 0);
}

TEST_F(Privilege, AForeignUserOfNoAdmittedGroupIsRefused) {
  Daemon daemon(workspace());
  daemon.startAndServe();
  EXPECT_EQ(sendAsForeigner(SOCK_SEQPACKET, workspace().userSocket(), {record("kel.user.refused")}), EACCES);
  EXPECT_EQ(sendAsForeigner(SOCK_STREAM, workspace().traceSocket(), {}), EACCES);
  EXPECT_TRUE(settle(daemon, Emitter::toUserContext(workspace())).empty());
}

TEST_F(Privilege, WhatAForeignUserMayNotEmitIsCountedAndMentionedOnceAMinute) {
  if (const std::string why = FakeTime::missing(); !why.empty()) GTEST_SKIP() << why;
  if (!admitForeigners()) GTEST_SKIP() << "group " << kForeignId << " has no name";
  Daemon daemon(workspace());
  const FakeTime time(workspace(), daemon, "2026-01-01 00:00:00");
  daemon.startAndServe();
  const ForeignClient client(workspace().userSocket());
  const Batch forbidden = record("kel.cpu.mce.log4");
  const auto sendOnBothSides = [&](const std::string& id) {
    for (int n = 0; n < 3; ++n) client.send(forbidden);
    client.send(record(id));
    daemon.trace().waitFor("IN", id);
  };
  const auto mention = [&](int earlier) {
    return "kelplat: user: dropped a batch of " + std::to_string(forbidden.size()) + " bytes from process " +
           std::to_string(client.pid()) + " of user " + std::to_string(kForeignId) + ": forbidden (" +
           std::to_string(earlier) + " earlier ones not mentioned)";
  };
  sendOnBothSides("kel.external.first");
  log().waitFor(mention(0));
  time.set("2026-01-01 00:00:59");
  sendOnBothSides("kel.external.second");
  EXPECT_EQ(log().count(isDrop), 1U);
  time.set("2026-01-01 00:01:00");
  sendOnBothSides("kel.external.third");
  log().waitFor(mention(5));
  EXPECT_EQ(log().count(isDrop), 2U);
}

TEST_F(Privilege, TheToolOfAForeignUserCannotTellThatWhatItSentWasDropped) {
  if (!admitForeigners()) GTEST_SKIP() << "group " << kForeignId << " has no name";
  Daemon daemon(workspace());
  daemon.startAndServe();
  const int accepted = kelctlAsForeigner(workspace(), {"emit", "--user", "kel.external.accepted", "i:1"});
  if (accepted == 127) GTEST_SKIP() << "other users cannot run " << KELCTL_PROGRAM;
  EXPECT_EQ(accepted, 0);
  EXPECT_EQ(daemon.trace().next().id, "kel.external.accepted");
  EXPECT_EQ(kelctlAsForeigner(workspace(), {"emit", "--user", "kel.cpu.mce.log4"}), 0);
  log().waitFor("a forbidden batch dropped", [](const LogLine& line) {
    return isDrop(line) && line.text.find(" of user 65534: forbidden (0 earlier ones") != std::string::npos;
  });
  EXPECT_EQ(kelctlAsForeigner(workspace(), {"emit", "kel.user.accepted"}), 0);
  EXPECT_EQ(daemon.trace().next().id, "kel.user.accepted");
}

}  // namespace
}  // namespace e2e
