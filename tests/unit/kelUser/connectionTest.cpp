// A daemon that is away, slow, full or another one than before.
#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <future>
#include <map>
#include <set>
#include <thread>

#include "fixture.h"
#include "kel/localAddress.h"

namespace {

using Ids = std::vector<std::string>;

/// A time limit that is reached.
constexpr int kShortMilliseconds = 20;

class ConnectionTest : public KelUserTest {
 protected:
  /// Fills the daemon's queue, which nobody reads. Returns how many observations went.
  static std::uint64_t fill(const Handle& handle) {
    const std::string text(60000, 'x');
    const kel_user_arg arg = kel_user_string(text.c_str());
    const kel_user_observation one{"kel.user.fill", nullptr, &arg, 1, nullptr};
    for (std::uint64_t sent = 0;; ++sent) {
      const int status = kel_user_emit_batch(handle.get(), &one, 1, kShortMilliseconds);
      if (status == 0) continue;
      EXPECT_EQ(status, ETIMEDOUT);
      return sent;
    }
  }
  static void drain(const Connection& connection, std::uint64_t batches) {
    for (; batches > 0; --batches) EXPECT_EQ(connection.nextIds(), Ids{"kel.user.fill"});
  }
};

TEST_F(ConnectionTest, ADaemonThatIsAwayIsAnErrorThatIsCounted) {
  const Handle handle = open();
  EXPECT_EQ(emit(handle), ENOENT);
  EXPECT_EQ(emit(handle), ENOENT);
  EXPECT_EQ(counts(handle).dropped, 2U);
  EXPECT_EQ(counts(handle).sent, 0U);
}

TEST_F(ConnectionTest, ADaemonThatComesLaterIsFound) {
  const Handle handle = open(kShortMilliseconds);
  EXPECT_EQ(emit(handle), ENOENT);
  const Listener listener(socketPath());
  ASSERT_TRUE(eventuallyEmits(handle, "kel.user.late"));
  EXPECT_EQ(listener.accept().nextIds(), Ids{"kel.user.late"});
  EXPECT_EQ(counts(handle).sent, 1U);
  EXPECT_EQ(counts(handle).reconnects, 0U);
}

TEST_F(ConnectionTest, ADeadDaemonsSocketIsAnError) {
  std::filesystem::rename(
      [&] {
        const Listener listener(socketPath());
        std::filesystem::create_hard_link(socketPath(), directory_ + "/kept");
        return directory_ + "/kept";
      }(),
      socketPath());
  EXPECT_EQ(emit(open()), ECONNREFUSED);
}

TEST_F(ConnectionTest, ARunDirectoryWhosePathIsTooLongIsAnError) {
  ::setenv("KORVEL_RUN_DIR", std::string(200, 'x').c_str(), 1);
  EXPECT_EQ(emit(open()), ENAMETOOLONG);
}

TEST_F(ConnectionTest, AFullQueueIsWaitedForNoLongerThanTheLimit) {
  const Listener listener(socketPath());
  const Connected connected = connect(listener, kShortMilliseconds);
  const std::uint64_t filled = fill(connected.handle);
  EXPECT_GT(filled, 0U);
  EXPECT_EQ(kel_user_emit_batch(connected.handle.get(), nullptr, 1, 0), EINVAL);
  EXPECT_EQ(counts(connected.handle).sent, 1U + filled);
  EXPECT_EQ(counts(connected.handle).dropped, 1U);
  drain(connected.connection, filled);
  EXPECT_EQ(emit(connected.handle, "kel.user.after"), 0);
  EXPECT_EQ(connected.connection.nextIds(), Ids{"kel.user.after"});
}

TEST_F(ConnectionTest, WithNoTimeAtAllNothingIsWaitedFor) {
  const Listener listener(socketPath());
  const Handle handle = open(0);
  EXPECT_EQ(emit(handle), 0);
  fill(handle);
  EXPECT_EQ(emit(handle), ETIMEDOUT);
}

TEST_F(ConnectionTest, AQueueThatIsReadWithinTheLimitLosesNothing) {
  const Listener listener(socketPath());
  const Connected connected = connect(listener);
  const std::uint64_t filled = fill(connected.handle);
  auto emitted = std::async(std::launch::async, [&] { return emit(connected.handle, "kel.user.patient"); });
  drain(connected.connection, filled);
  EXPECT_EQ(connected.connection.nextIds(), Ids{"kel.user.patient"});
  EXPECT_EQ(emitted.get(), 0);
}

TEST_F(ConnectionTest, AnotherThreadsWaitCounts) {
  const Listener listener(socketPath());
  const Connected connected = connect(listener);
  const std::uint64_t filled = fill(connected.handle);
  std::atomic<bool> waits{false};
  auto patient = std::async(std::launch::async, [&] {
    waits = true;
    return emit(connected.handle, "kel.user.patient");
  });
  while (!waits) std::this_thread::yield();
  const kel_user_observation hasty{"kel.user.hasty", nullptr, nullptr, 0, nullptr};
  EXPECT_EQ(kel_user_emit_batch(connected.handle.get(), &hasty, 1, kShortMilliseconds), ETIMEDOUT);
  drain(connected.connection, filled);
  EXPECT_EQ(connected.connection.nextIds(), Ids{"kel.user.patient"});
  EXPECT_EQ(patient.get(), 0);
}

TEST_F(ConnectionTest, AFullBacklogIsWaitedForNoLongerThanTheLimit) {
  const Listener listener(socketPath(), 0);
  sockaddr_un address;
  ASSERT_EQ(platform::localAddress(socketPath(), &address), 0);
  std::vector<platform::UniqueFd> waiting;
  do {
    waiting.emplace_back(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  } while (::connect(waiting.back().get(), platform::socketAddress(address), sizeof address) == 0);
  ASSERT_EQ(errno, EAGAIN);
  const Handle handle = open(kShortMilliseconds);
  EXPECT_EQ(emit(handle), ETIMEDOUT);
  EXPECT_EQ(counts(handle).dropped, 1U);
}

TEST_F(ConnectionTest, ADaemonThatWasStartedAnewIsReachedAtOnce) {
  auto listener = std::make_unique<Listener>(socketPath());
  Connected connected = connect(*listener);
  connected.connection.close();
  listener.reset();
  const Listener restarted(socketPath());
  auto emitted = std::async(std::launch::async, [&] { return emit(connected.handle, "kel.user.again"); });
  EXPECT_EQ(restarted.accept().nextIds(), Ids{"kel.user.again"});
  EXPECT_EQ(emitted.get(), 0);
  EXPECT_EQ(counts(connected.handle).sent, 2U);
  EXPECT_EQ(counts(connected.handle).dropped, 0U);
  EXPECT_EQ(counts(connected.handle).lost, 0U);
  EXPECT_EQ(counts(connected.handle).reconnects, 1U);
}

TEST_F(ConnectionTest, ADaemonThatDiedWithoutSuccessorIsAnErrorUntilOneComes) {
  auto listener = std::make_unique<Listener>(socketPath());
  Connected connected = connect(*listener);
  connected.connection.close();
  listener.reset();
  EXPECT_EQ(emit(connected.handle), ENOENT);
  const Listener restarted(socketPath());
  auto emitted = std::async(std::launch::async, [&] { return eventuallyEmits(connected.handle, "kel.user.again"); });
  EXPECT_EQ(restarted.accept().nextIds(), Ids{"kel.user.again"});
  EXPECT_TRUE(emitted.get());
  EXPECT_EQ(counts(connected.handle).reconnects, 1U);
}

TEST_F(ConnectionTest, WhatTheDaemonLeftUnreadCountsAsLost) {
  auto listener = std::make_unique<Listener>(socketPath());
  Connected connected = connect(*listener);
  for (int n = 0; n < 3; ++n) EXPECT_EQ(emit(connected.handle), 0);
  connected.connection.close();
  listener.reset();
  EXPECT_EQ(emit(connected.handle), ENOENT);
  EXPECT_EQ(counts(connected.handle).sent, 4U);
  EXPECT_EQ(counts(connected.handle).lost, 3U);
  EXPECT_EQ(counts(connected.handle).dropped, 1U);
}

TEST_F(ConnectionTest, AClientTooManyIsToldAndFindsItsPlaceLater) {
  const Listener listener(socketPath());
  std::atomic<bool> isFull{true};
  std::promise<Connection> served;
  std::thread daemon([&] {
    while (true) {
      Connection client = listener.accept();
      if (isFull) continue;
      served.set_value(std::move(client));
      return;
    }
  });
  const Handle handle = open();
  EXPECT_EQ(emit(handle, "kel.user.early"), EUSERS);
  EXPECT_EQ(counts(handle).sent, 0U);
  EXPECT_EQ(counts(handle).dropped, 1U);
  isFull = false;
  EXPECT_TRUE(eventuallyEmits(handle, "kel.user.late"));
  daemon.join();
  EXPECT_EQ(served.get_future().get().nextIds(), Ids{"kel.user.late"});
  EXPECT_EQ(counts(handle).lost, 0U);
  EXPECT_EQ(counts(handle).reconnects, 0U) << "the first that was served";
}

TEST_F(ConnectionTest, AClientTooManyThatDoesNotWaitFindsItsFirstBatchLost) {
  const Listener listener(socketPath());
  const Handle handle = open(0);
  EXPECT_EQ(emit(handle), 0);
  EXPECT_EQ(counts(handle).sent, 1U);
  listener.accept().close();
  EXPECT_EQ(emit(handle), 0) << "on a connection that is not accepted yet";
  EXPECT_EQ(counts(handle).lost, 1U);
  listener.accept().close();
  EXPECT_EQ(emit(handle), 0);
  EXPECT_EQ(counts(handle).lost, 2U);
  EXPECT_EQ(counts(handle).reconnects, 0U) << "none was ever served";
}

TEST_F(ConnectionTest, AConnectionThatIsReadLaterCounts) {
  const Listener listener(socketPath());
  const Handle handle = open(0);
  EXPECT_EQ(emit(handle), 0);
  {
    const Connection first = listener.accept();
    EXPECT_EQ(first.nextIds(), Ids{"kel.user.a"});
  }
  EXPECT_EQ(emit(handle), 0);
  EXPECT_EQ(counts(handle).reconnects, 0U) << "not known to be read";
  const Connection second = listener.accept();
  EXPECT_EQ(second.nextIds(), Ids{"kel.user.a"});
  for (int n = 0; n < 2; ++n) EXPECT_EQ(emit(handle), 0);
  EXPECT_EQ(counts(handle).reconnects, 1U);
  EXPECT_EQ(counts(handle).lost, 0U);
}

TEST_F(ConnectionTest, TheLongestLimitIsOne) {
  const Listener listener(socketPath());
  const Connected connected = connect(listener, INT_MAX);
  const std::uint64_t filled = fill(connected.handle);
  auto emitted = std::async(std::launch::async, [&] { return emit(connected.handle, "kel.user.patient"); });
  drain(connected.connection, filled);
  EXPECT_EQ(connected.connection.nextIds(), Ids{"kel.user.patient"});
  EXPECT_EQ(emitted.get(), 0);
}

/// Interrupts this process every millisecond.
class Interruptions {
 public:
  Interruptions() {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    EXPECT_EQ(::sigaction(SIGALRM, &action, &before_), 0);
    set(1000);
  }
  Interruptions(const Interruptions&) = delete;
  Interruptions& operator=(const Interruptions&) = delete;
  ~Interruptions() {
    set(0);
    ::sigaction(SIGALRM, &before_, nullptr);
  }

 private:
  static void set(suseconds_t microseconds) {
    const itimerval timer{{0, microseconds}, {0, microseconds}};
    EXPECT_EQ(::setitimer(ITIMER_REAL, &timer, nullptr), 0);
  }

  struct sigaction before_ {};
};

TEST_F(ConnectionTest, SignalsNeitherEndNorHurryAWait) {
  constexpr int kLimitMilliseconds = 150;
  const Listener listener(socketPath());
  const Handle handle = open(kLimitMilliseconds);
  const Interruptions interruptions;
  const auto cpuTime = [] {
    timespec now{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
  };
  const auto begin = std::chrono::steady_clock::now();
  const auto usedBefore = cpuTime();
  EXPECT_EQ(emit(handle), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(kLimitMilliseconds));
  EXPECT_LT(cpuTime() - usedBefore, std::chrono::milliseconds(kLimitMilliseconds / 2)) << "it sleeps";
  EXPECT_EQ(counts(handle).sent, 1U);
}

TEST_F(ConnectionTest, SeveralThreadsShareAHandle) {
  constexpr int kThreads = 4;
  constexpr int kEach = 300;
  const Listener listener(socketPath());
  const Connected connected = connect(listener);
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (int number = 0; number < kEach; ++number) {
        const std::string id = "kel.user." + std::to_string(thread) + "." + std::to_string(number);
        failures += emit(connected.handle, id) != 0 ? 1 : 0;
        kel_user_counters counters{};
        failures += kel_user_counts(connected.handle.get(), &counters) != 0 ? 1 : 0;
      }
    });
  }
  std::map<std::string, int> next;
  for (int n = 0; n < kThreads * kEach; ++n) {
    const Ids ids = connected.connection.nextIds();
    ASSERT_EQ(ids.size(), 1U);
    const std::size_t dot = ids[0].rfind('.');
    EXPECT_EQ(ids[0].substr(dot + 1), std::to_string(next[ids[0].substr(0, dot)]++));
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(counts(connected.handle).sent, 1U + kThreads * kEach);
}

std::set<int> openDescriptors() {
  std::set<int> open;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    const int fd = std::stoi(entry.path().filename().string());
    if (::fcntl(fd, F_GETFD) >= 0) open.insert(fd);
  }
  return open;
}

TEST_F(ConnectionTest, ItsDescriptorIsNotInheritedByProgramsAndIsClosedWithTheHandle) {
  const Listener listener(socketPath());
  const std::set<int> before = openDescriptors();
  Connected connected = connect(listener);
  int found = 0;
  for (const int fd : openDescriptors()) {
    if (before.contains(fd)) continue;
    EXPECT_NE(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    ++found;
  }
  EXPECT_EQ(found, 2) << "the client's and the daemon's end";
  connected.handle.reset();
  EXPECT_TRUE(connected.connection.next().empty());
  connected.connection.close();
  EXPECT_EQ(openDescriptors(), before);
}

std::set<int> openSockets() {
  std::set<int> sockets;
  for (const int fd : openDescriptors()) {
    struct stat facts {};
    if (::fstat(fd, &facts) == 0 && S_ISSOCK(facts.st_mode)) sockets.insert(fd);
  }
  return sockets;
}

/// The one socket that was opened since.
int socketSince(const std::set<int>& before) {
  for (const int fd : openSockets()) {
    if (!before.contains(fd)) return fd;
  }
  return -1;
}

TEST_F(ConnectionTest, ADescriptorThatWasClosedBehindItsBackIsReplaced) {
  const Listener listener(socketPath());
  const Handle handle = open(0);
  const std::set<int> before = openSockets();
  EXPECT_EQ(emit(handle, "kel.user.first"), 0);
  ASSERT_EQ(::close(socketSince(before)), 0);
  EXPECT_EQ(emit(handle, "kel.user.second"), 0);
  EXPECT_EQ(listener.accept().nextIds(), Ids{"kel.user.first"});
  EXPECT_EQ(listener.accept().nextIds(), Ids{"kel.user.second"});
  EXPECT_EQ(counts(handle).sent, 2U);
  EXPECT_EQ(counts(handle).lost, 0U);
}

TEST_F(ConnectionTest, ASocketThatTookItsDescriptorsNumberGetsNothingAndStaysOpen) {
  const Listener listener(socketPath());
  std::array<int, 2> others{};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, others.data()), 0);
  const platform::UniqueFd other(others[0]);
  const platform::UniqueFd otherEnd(others[1]);
  for (const bool emitsOn : {true, false}) {
    Handle handle = open(0);
    const std::set<int> before = openSockets();
    EXPECT_EQ(emit(handle, "kel.user.first"), 0);
    const platform::UniqueFd taken(::dup3(other.get(), socketSince(before), O_CLOEXEC));
    ASSERT_TRUE(taken);
    EXPECT_EQ(listener.accept().nextIds(), Ids{"kel.user.first"});
    if (emitsOn) {
      EXPECT_EQ(emit(handle, "kel.user.second"), 0);
      EXPECT_EQ(listener.accept().nextIds(), Ids{"kel.user.second"});
    }
    handle.reset();
    EXPECT_GE(::fcntl(taken.get(), F_GETFD), 0);
    char byte = 0;
    EXPECT_EQ(::recv(otherEnd.get(), &byte, 1, MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EAGAIN);
  }
}

TEST_F(ConnectionTest, AThreadThatIsCancelledFinishesItsCall) {
  const Listener listener(socketPath());
  const Connected connected = connect(listener);
  int status = -1;
  std::atomic<bool> wentOn{false};
  std::thread cancelled([&] {
    ::pthread_cancel(::pthread_self());
    status = emit(connected.handle, "kel.user.whole");
    ::pthread_testcancel();
    wentOn = true;
  });
  cancelled.join();
  EXPECT_EQ(status, 0);
  EXPECT_FALSE(wentOn) << "cancelling is left as it was";
  EXPECT_EQ(connected.connection.nextIds(), Ids{"kel.user.whole"});
}

}  // namespace
