// What a user may emit who is neither root nor the daemon's own.
#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <filesystem>

#include "endToEnd.h"

namespace e2e {
namespace {

constexpr unsigned kForeignId = 65534;

/// In a child of another user: connects and sends each batch. The child's exit status is 0, or the
/// errno value of what was refused.
int sendAsForeigner(int type, const std::string& path, const std::vector<Batch>& batches) {
  const sockaddr_un address = localAddress(path);
  const pid_t child = ::fork();
  if (child < 0) throwErrno("fork");
  if (child == 0) {
    const gid_t group = kForeignId;
    if (::setgroups(1, &group) != 0 || ::setresgid(group, group, group) != 0 ||
        ::setresuid(kForeignId, kForeignId, kForeignId) != 0) {
      ::_exit(255);
    }
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
    std::filesystem::remove(workspace().runDirectory());  // the daemon makes it, for that group
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

}  // namespace
}  // namespace e2e
