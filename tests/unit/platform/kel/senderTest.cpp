#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <thread>

#include "contextFixture.h"
#include "platform/kelemit.h"

namespace {

using records::Bytes;

class SenderTest : public ContextTest {
 protected:
  /// The next batch, waited for.
  static Bytes next(int fd) {
    pollfd state{fd, POLLIN, 0};
    constexpr int kDeadlineMilliseconds = 20000;
    int ready = -1;
    do {
      ready = ::poll(&state, 1, kDeadlineMilliseconds);
    } while (ready < 0 && errno == EINTR);
    EXPECT_EQ(ready, 1) << "nothing came";
    return read(fd).bytes;
  }
  static Bytes numbered(int number) { return support::rawRecord("kel.user.a", {support::i(number)}); }
};

TEST_F(SenderTest, sendsToAKernelContext) {
  const Context context = openAsync(11);
  KelEmit::Sender sender;
  ASSERT_EQ(sender.openContext(11), 0);
  EXPECT_EQ(sender.send(records::twoStrings()), 0);
  EXPECT_EQ(read(context).bytes, records::twoStrings());
}

TEST_F(SenderTest, sendsToTheUserLevelContext) {
  const Context user = openUser();
  KelEmit::Sender sender;
  ASSERT_EQ(sender.openUser(), 0);
  EXPECT_EQ(sender.send(records::twoStrings()), 0);
  const int connection = accept(user);
  EXPECT_EQ(read(connection).bytes, records::twoStrings());
  EXPECT_EQ(KelLib_UserContextCloseCnx(connection), 0);
}

TEST_F(SenderTest, aBatchOf131072BytesPasses) {
  const Context context = openAsync();
  const Context user = openUser();
  KelEmit::Sender sender;
  ASSERT_EQ(sender.openContext(0), 0);
  EXPECT_EQ(sender.send(records::ofLength(131072)), 0);
  EXPECT_EQ(read(context).status, 27);
  ASSERT_EQ(sender.openUser(), 0);
  EXPECT_EQ(sender.send(records::ofLength(131072)), 0);
}

TEST_F(SenderTest, aFullQueueMakesItWaitAndASignalDoesNotEndTheWait) {
  struct sigaction handler {};
  struct sigaction before {};
  handler.sa_handler = [](int) {};
  ASSERT_EQ(::sigaction(SIGUSR1, &handler, &before), 0);
  Context context = openAsync();
  const Context user = openUser();
  constexpr int kBatches = 2000;
  for (const bool toUser : {false, true}) {
    KelEmit::Sender sender;
    ASSERT_EQ(toUser ? sender.openUser() : sender.openContext(0), 0);
    const int fd = toUser ? accept(user) : fdOf(context);
    int failures = 0;
    std::thread sending([&] {
      for (int number = 0; number < kBatches; ++number) failures += sender.send(numbered(number)) != 0 ? 1 : 0;
    });
    for (int number = 0; number < kBatches; ++number) {
      if (number % 100 == 0 && number < kBatches / 2) ::pthread_kill(sending.native_handle(), SIGUSR1);
      EXPECT_EQ(next(fd), numbered(number));
      if (HasFailure()) break;  // what closes then ends the sender's wait
    }
    if (toUser) {
      EXPECT_EQ(KelLib_UserContextCloseCnx(fd), 0);
    } else {
      context.reset();
    }
    sending.join();
    EXPECT_EQ(failures, 0);
  }
  ASSERT_EQ(::sigaction(SIGUSR1, &before, nullptr), 0);
}

TEST_F(SenderTest, aFullQueueIsWaitedForUntilTheGivenTimeOnly) {
  const Context context = openAsync();
  const Context user = openUser();
  for (const bool toUser : {false, true}) {
    KelEmit::Sender sender;
    ASSERT_EQ(toUser ? sender.openUser() : sender.openContext(0), 0);
    int sent = 0;
    int status = 0;
    while ((status = sender.send(numbered(sent), std::chrono::steady_clock::now())) == 0) ++sent;
    EXPECT_EQ(status, EAGAIN);
    EXPECT_EQ(sender.send(numbered(sent), std::chrono::steady_clock::now() + std::chrono::milliseconds(20)), EAGAIN);
    const int fd = toUser ? accept(user) : fdOf(context);
    for (int number = 0; number < sent; ++number) EXPECT_EQ(next(fd), numbered(number));
    EXPECT_EQ(sender.send(numbered(sent), std::chrono::steady_clock::now()), 0);
    EXPECT_EQ(next(fd), numbered(sent));
    if (toUser) {
      EXPECT_EQ(KelLib_UserContextCloseCnx(fd), 0);
    }
  }
}

TEST_F(SenderTest, aContextThatNobodyHasOpenIsAFailure) {
  KelEmit::Sender sender;
  EXPECT_EQ(sender.openContext(0), ENOENT);
  EXPECT_EQ(sender.openUser(), ENOENT);
  EXPECT_EQ(sender.openContext(24), EINVAL);
  EXPECT_EQ(sender.send(records::twoStrings()), ENOTCONN);
}

TEST_F(SenderTest, aReceiverThatIsGoneIsAStatusAndNoSignal) {
  Context user = openUser();
  KelEmit::Sender toUser;
  ASSERT_EQ(toUser.openUser(), 0);
  EXPECT_EQ(KelLib_UserContextCloseCnx(accept(user)), 0);
  EXPECT_EQ(toUser.send(records::twoStrings()), EPIPE);
  KelEmit::Sender toKernel;
  {
    const Context context = openAsync();
    ASSERT_EQ(toKernel.openContext(0), 0);
  }
  EXPECT_EQ(toKernel.send(records::twoStrings()), ECONNREFUSED);
}

TEST_F(SenderTest, anEmptyBatchIsRefused) {
  const Context context = openAsync();
  KelEmit::Sender sender;
  ASSERT_EQ(sender.openContext(0), 0);
  EXPECT_EQ(sender.send({}), EINVAL);
}

TEST_F(SenderTest, movesItsConnection) {
  const Context context = openAsync();
  KelEmit::Sender first;
  ASSERT_EQ(first.openContext(0), 0);
  KelEmit::Sender second(std::move(first));
  KelEmit::Sender third;
  third = std::move(second);
  EXPECT_EQ(third.send(records::twoStrings()), 0);
  EXPECT_EQ(read(context).bytes, records::twoStrings());
}

}  // namespace
