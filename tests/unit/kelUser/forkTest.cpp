// The child of a fork has a connection of its own.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <future>

#include "fixture.h"

namespace {

using Ids = std::vector<std::string>;

class ForkTest : public KelUserTest {
 protected:
  /// Runs `work` in a child process, which it tells by true that all was well.
  template <typename Work>
  static pid_t startChild(const Work& work) {
    const pid_t child = ::fork();
    if (child == 0) ::_exit(work() ? 0 : 1);
    return child;
  }
  static bool isWell(pid_t child) {
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
  }

  Listener listener_{socketPath()};
  Connected connected_ = connect(listener_);
};

TEST_F(ForkTest, AChildEmitsOnAConnectionOfItsOwn) {
  const pid_t child =
      startChild([&] { return emit(connected_.handle, "kel.user.child") == 0 && counts(connected_.handle).sent == 1; });
  const Connection second = listener_.accept();
  EXPECT_EQ(second.peer(), child);
  EXPECT_EQ(second.nextIds(), Ids{"kel.user.child"});
  EXPECT_TRUE(isWell(child));
  EXPECT_EQ(emit(connected_.handle, "kel.user.parent"), 0);
  EXPECT_EQ(connected_.connection.nextIds(), Ids{"kel.user.parent"});
  EXPECT_EQ(counts(connected_.handle).sent, 2U);
  EXPECT_EQ(counts(connected_.handle).reconnects, 0U);
}

TEST_F(ForkTest, AChildMayCloseTheHandleAndTheParentsStays) {
  EXPECT_TRUE(isWell(startChild([&] {
    connected_.handle.reset();
    return true;
  })));
  EXPECT_EQ(emit(connected_.handle, "kel.user.parent"), 0);
  EXPECT_EQ(connected_.connection.nextIds(), Ids{"kel.user.parent"});
}

TEST_F(ForkTest, AChildLetsGoOfTheParentsConnectionWithItsFirstCall) {
  int hold[2];
  ASSERT_EQ(::pipe2(hold, O_CLOEXEC), 0);
  const pid_t child = startChild([&] {
    const bool isFresh = counts(connected_.handle).sent == 0;
    char byte = 0;
    return isFresh && ::close(hold[1]) == 0 && ::read(hold[0], &byte, 1) == 0;
  });
  connected_.handle.reset();
  EXPECT_TRUE(connected_.connection.next().empty());
  ::close(hold[1]);
  EXPECT_TRUE(isWell(child));
  ::close(hold[0]);
}

TEST_F(ForkTest, AChildClosesNothingThatTookTheDescriptorsNumber) {
  constexpr int kMany = 256;
  const pid_t child = startChild([&] {
    // As a program does that becomes a daemon.
    for (int fd = 3; fd < kMany; ++fd) ::close(fd);
    for (int fd = 3; fd < kMany; ++fd) {
      if (::dup2(STDERR_FILENO, fd) != fd) return false;
    }
    if (emit(connected_.handle, "kel.user.child") != 0) return false;
    for (int fd = 3; fd < kMany; ++fd) {
      if (::fcntl(fd, F_GETFD) < 0) return false;
    }
    return true;
  });
  EXPECT_EQ(listener_.accept().nextIds(), Ids{"kel.user.child"});
  EXPECT_TRUE(isWell(child));
}

TEST_F(ForkTest, AChildOfAProcessWhoseOtherThreadsAreSendingDoesNotWaitForThem) {
  const std::string text(60000, 'x');
  const kel_user_arg arg = kel_user_string(text.c_str());
  const kel_user_observation one{"kel.user.fill", nullptr, &arg, 1, nullptr};
  std::uint64_t filled = 0;
  while (kel_user_emit_batch(connected_.handle.get(), &one, 1, 0) == 0) ++filled;
  std::vector<std::future<int>> sending;
  for (int thread = 0; thread < 2; ++thread) {
    sending.push_back(std::async(std::launch::async, [&] { return emit(connected_.handle, "kel.user.patient"); }));
  }
  // Time enough for one to wait for room and the other for its turn.
  EXPECT_EQ(kel_user_emit_batch(connected_.handle.get(), &one, 1, 50), ETIMEDOUT);
  const pid_t unused = startChild([&] {
    connected_.handle.reset();
    return true;
  });
  EXPECT_TRUE(isWell(unused));
  const pid_t child = startChild([&] {
    const int status = emit(connected_.handle, "kel.user.child");
    connected_.handle.reset();
    return status == 0;
  });
  EXPECT_EQ(listener_.accept().nextIds(), Ids{"kel.user.child"});
  EXPECT_TRUE(isWell(child));
  for (; filled > 0; --filled) EXPECT_EQ(connected_.connection.nextIds(), Ids{"kel.user.fill"});
  for (std::future<int>& patient : sending) {
    EXPECT_EQ(connected_.connection.nextIds(), Ids{"kel.user.patient"});
    EXPECT_EQ(patient.get(), 0);
  }
}

}  // namespace
