// A program that runs with another user's or group's privileges is not led elsewhere by its environment.
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>

#include "fixture.h"
#include "host/paths.h"
#include "kel/contextConnection.h"

namespace {

/// Any but root's; it need not have a name.
constexpr gid_t kOtherGroup = 1;

class PrivilegeTest : public KelUserTest {
 protected:
  /// Runs the manual page's example with the test's run directory. True where it reported.
  [[nodiscard]] bool exampleReports(mode_t mode) const {
    const std::string program = directory_ + "/example";
    std::filesystem::copy_file(KEL_USER_EXAMPLE_PROGRAM, program, std::filesystem::copy_options::overwrite_existing);
    EXPECT_EQ(::chown(program.c_str(), ::getuid(), kOtherGroup), 0);
    EXPECT_EQ(::chmod(program.c_str(), mode), 0);
    return std::system((program + " kel.user.privileged web01").c_str()) == 0;
  }
  /// Why set-group-ID programs cannot be had here; empty where they can.
  [[nodiscard]] std::string obstacle() const {
    struct statvfs system {};
    const std::string socket = platform::kDefaultRunDirectory + std::string("/kel/user.sock");
    if (::geteuid() != 0) return "only root can make a program of another group";
    if (::prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0) != 0) return "programs gain no privileges here";
    if (::statvfs(directory_.c_str(), &system) != 0 || (system.f_flag & ST_NOSUID) != 0) {
      return directory_ + " is mounted nosuid";
    }
    platform::UniqueFd daemon;
    const auto now = std::chrono::steady_clock::now();
    const int status = platform::connectToContext(socket, SOCK_SEQPACKET, now, &daemon);
    if (status != ENOENT && status != ECONNREFUSED) return "a daemon runs here, and would get the report";
    return {};
  }
};

TEST_F(PrivilegeTest, ASetGroupIdProgramDoesNotHeedTheRunDirectoryOfItsEnvironment) {
  if (const std::string reason = obstacle(); !reason.empty()) GTEST_SKIP() << reason;
  const Listener listener(socketPath());
  EXPECT_FALSE(exampleReports(02755));
  EXPECT_FALSE(listener.hasClient());
  EXPECT_TRUE(exampleReports(0755));
  EXPECT_TRUE(listener.hasClient()) << "without privileges it does";
}

}  // namespace
