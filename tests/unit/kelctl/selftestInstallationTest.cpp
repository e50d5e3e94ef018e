#include "selftestInstallation.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstdlib>
#include <filesystem>

#include "host/uniqueFd.h"
#include "kel/localAddress.h"
#include "localConnection.h"

namespace {

using kelctl::lookAtInstallation;
using kelctl::runPath;
using testing::HasSubstr;

class SelftestInstallation : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (std::filesystem::temp_directory_path() / "kelctl-XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    directory_ = pattern;
    std::filesystem::create_directory(directory_ / "kel");
    ::setenv("KORVEL_RUN_DIR", directory_.c_str(), 1);
  }
  void TearDown() override {
    ::unsetenv("KORVEL_RUN_DIR");
    std::filesystem::remove_all(directory_);
  }

  static platform::UniqueFd listenAt(const std::string& name, int type) {
    sockaddr_un address;
    EXPECT_EQ(platform::localAddress(runPath(name), &address), 0);
    platform::UniqueFd fd(::socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    EXPECT_EQ(::bind(fd.get(), platform::socketAddress(address), sizeof address), 0);
    EXPECT_EQ(::listen(fd.get(), 1), 0);
    return fd;
  }
  static bool isKnocked(const platform::UniqueFd& listener) {
    pollfd readable{listener.get(), POLLIN, 0};
    return ::poll(&readable, 1, 0) == 1;
  }

  std::filesystem::path directory_;
};

TEST_F(SelftestInstallation, WhereNothingRunsItSaysSoAndWhy) {
  const auto seen = lookAtInstallation();
  EXPECT_FALSE(seen.whole);
  EXPECT_THAT(seen.line, HasSubstr("installation: keld not running, trace socket not reachable (No such file or "
                                   "directory), event socket has no owner (No such file or directory), system log "));
}

TEST_F(SelftestInstallation, TheOwnerOfTheEventSocketLearnsNothing) {
  const auto listener = listenAt("hagd-vprob.sock", SOCK_STREAM);
  const auto seen = lookAtInstallation();
  EXPECT_THAT(seen.line, HasSubstr(", event socket has an owner, "));
  EXPECT_FALSE(isKnocked(listener));
}

TEST_F(SelftestInstallation, AnEventSocketThatWasLeftBehindHasNoOwner) {
  listenAt("hagd-vprob.sock", SOCK_STREAM).reset();
  EXPECT_THAT(lookAtInstallation().line, HasSubstr("event socket has no owner (Connection refused)"));
}

TEST_F(SelftestInstallation, AUserSocketThatIsHeldTellsThatTheDaemonRuns) {
  const auto listener = listenAt("kel/user.sock", SOCK_SEQPACKET);
  EXPECT_THAT(lookAtInstallation().line, HasSubstr("installation: keld running, trace socket not reachable ("));
  EXPECT_FALSE(isKnocked(listener));
}

TEST_F(SelftestInstallation, ADaemonThatGreetsNobodyIsNotAnswering) {
  const auto listener = listenAt("keld-trace.sock", SOCK_STREAM);
  EXPECT_THAT(lookAtInstallation().line,
              HasSubstr("installation: keld not answering, trace socket not reachable (Connection timed out)"));
}

}  // namespace
