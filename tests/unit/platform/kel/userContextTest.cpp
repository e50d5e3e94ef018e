#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <cerrno>

#include "contextFixture.h"

namespace {

using platform::ContextCounters;
using records::Bytes;

class UserContext : public ContextTest {
 protected:
  [[nodiscard]] ContextCounters counters() const { return platform::contextCounters(user_.get()); }

  Context user_ = openUser();
};

class UserConnection : public UserContext {
 protected:
  ~UserConnection() override { EXPECT_EQ(KelLib_UserContextCloseCnx(connection_), 0); }

  Client client_ = service();
  int connection_ = accept(user_);
};

TEST_F(UserContext, pollsReadableWhileAClientWaits) {
  EXPECT_EQ(pollOf(fdOf(user_)), 0);
  const Client client = service();
  EXPECT_EQ(pollOf(fdOf(user_)), POLLIN);
  const int connection = accept(user_);
  EXPECT_EQ(pollOf(fdOf(user_)), 0);
  EXPECT_EQ(::fcntl(connection, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  EXPECT_EQ(KelLib_UserContextCloseCnx(connection), 0);
}

TEST_F(UserContext, acceptingWithoutAClientFails) {
  int fd = 4711;
  EXPECT_EQ(KelLib_UserContextNewCnx(user_.get(), &fd), EAGAIN);
  EXPECT_EQ(fd, 4711);
}

TEST_F(UserContext, whatWasSentBeforeTheAcceptIsReadWithItsSendersCredentials) {
  Client client = service();
  client.send(support::rawRecord("kel.net.a"));
  client.close();
  const int connection = accept(user_);
  EXPECT_EQ(read(connection).bytes, support::rawRecord("kel.net.a"));
  EXPECT_EQ(read(connection).status, ENOTCONN);
  EXPECT_EQ(KelLib_UserContextCloseCnx(connection), 0);
}

TEST_F(UserContext, closingWhatIsNoConnectionFails) {
  EXPECT_EQ(KelLib_UserContextCloseCnx(-1), -EBADF);
  EXPECT_EQ(KelLib_UserContextCloseCnx(fdOf(user_)), -EBADF);
  EXPECT_EQ(pollOf(fdOf(user_)), 0) << "the context is still open";
}

TEST_F(UserContext, aConnectionOutlivesItsContext) {
  const Client client = service();
  const int connection = accept(user_);
  user_.reset();
  client.send(records::twoStrings());
  EXPECT_EQ(read(connection).bytes, records::twoStrings());
  EXPECT_EQ(KelLib_UserContextCloseCnx(connection), 0);
}

TEST_F(UserContext, readingTheContextItselfTurnsTheClientAway) {
  const Client client = service();
  const ReadResult result = read(user_);
  EXPECT_EQ(result.status, 0);
  EXPECT_TRUE(result.bytes.empty());
  EXPECT_EQ(pollOf(fdOf(user_)), 0);
  EXPECT_NE(pollOf(client.fd()) & POLLHUP, 0);
}

TEST_F(UserContext, aClientIsTurnedAwayWhenDescriptorsHaveRunOut) {
  const Client client = service();
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  rlimit none = before;
  // The lowest free number is the next one to be given.
  const int next = ::dup(client.fd());
  ASSERT_GE(next, 0);
  ::close(next);
  none.rlim_cur = static_cast<rlim_t>(next);
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
  int fd = -1;
  const int status = KelLib_UserContextNewCnx(user_.get(), &fd);
  const int waiting = pollOf(fdOf(user_));
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_EQ(status, EMFILE);
  EXPECT_EQ(waiting, 0) << "the listener would keep its reader busy";
  EXPECT_NE(pollOf(client.fd()) & POLLHUP, 0);
}

TEST_F(UserConnection, aBatchIsReadAsItWasSent) {
  const Bytes batch = records::batchOf({records::twoStrings(), support::rawRecord("kel.net.a")});
  client_.send(batch);
  EXPECT_EQ(read(connection_).bytes, batch);
  EXPECT_EQ(counters(), (ContextCounters{.delivered = 1}));
}

TEST_F(UserConnection, nothingWaitingIsSuccessWithLengthZero) {
  const ReadResult result = read(connection_);
  EXPECT_EQ(result.status, 0);
  EXPECT_TRUE(result.bytes.empty());
}

TEST_F(UserConnection, aBatchThatIsNotSmallerThanTheCapacityIsKept) {
  client_.send(records::ofLength(8192));
  EXPECT_EQ(read(connection_, 8192).status, 27);
  EXPECT_EQ(read(connection_, 12288).bytes.size(), 8192U);
}

TEST_F(UserConnection, theLargestBatchHas131071BytesAndALongerOneIsDropped) {
  client_.send(records::ofLength(131071));
  EXPECT_EQ(read(connection_).bytes.size(), 131071U);
  for (const std::size_t capacity : {8192U, 131072U}) {
    client_.send(records::ofLength(131072));
    client_.send(records::twoStrings());
    EXPECT_EQ(read(connection_, capacity).bytes, records::twoStrings()) << capacity;
  }
  EXPECT_EQ(counters(), (ContextCounters{.delivered = 3, .oversized = 2}));
}

TEST_F(UserConnection, aMalformedBatchIsDroppedAndTheNextOneRead) {
  for (const records::Malformed& bad : records::malformed()) {
    client_.send(bad.bytes);
    client_.send(records::twoStrings());
    EXPECT_EQ(read(connection_).bytes, records::twoStrings()) << bad.what;
  }
  EXPECT_EQ(counters().malformed, records::malformed().size());
}

TEST_F(UserConnection, anEmptyBatchIsMalformedAndNoEndOfFile) {
  client_.send({});
  const ReadResult result = read(connection_);
  EXPECT_EQ(result.status, 0);
  EXPECT_TRUE(result.bytes.empty());
  client_.send({});
  client_.send(records::twoStrings());
  EXPECT_EQ(read(connection_).bytes, records::twoStrings());
  EXPECT_EQ(counters(), (ContextCounters{.delivered = 1, .malformed = 2}));
}

TEST_F(UserConnection, theEndIsAStatusOfItsOwnOnceEverythingIsRead) {
  client_.send(records::twoStrings());
  client_.close();
  EXPECT_EQ(pollOf(connection_), POLLIN | POLLHUP);
  EXPECT_EQ(read(connection_).bytes, records::twoStrings());
  EXPECT_EQ(read(connection_).status, ENOTCONN);
  EXPECT_EQ(read(connection_).status, ENOTCONN);
  EXPECT_EQ(counters(), (ContextCounters{.delivered = 1}));
}

TEST_F(UserConnection, aClientThatClosesOnlyItsSendingHalfBecomesAHangUp) {
  ASSERT_EQ(::shutdown(client_.fd(), SHUT_WR), 0);
  EXPECT_EQ(pollOf(connection_), POLLIN) << "readable for ever";
  EXPECT_EQ(read(connection_).status, ENOTCONN);
  EXPECT_EQ(pollOf(connection_), POLLIN | POLLHUP);
}

TEST_F(UserConnection, aFloodOfBadBatchesDoesNotKeepAReadBusy) {
  for (int count = 0; count < 100; ++count) client_.send(Bytes(3, 'x'));
  client_.send(records::twoStrings());
  ReadResult result = read(connection_);
  EXPECT_EQ(result.status, 0);
  EXPECT_TRUE(result.bytes.empty());
  EXPECT_EQ(counters().malformed, 64U);
  EXPECT_EQ(read(connection_).bytes, records::twoStrings());
  EXPECT_EQ(counters(), (ContextCounters{.delivered = 1, .malformed = 100}));
}

TEST_F(UserConnection, noGoodBatchIsLostBehindBadOnesOfAClientThatIsGone) {
  for (int count = 0; count < 100; ++count) client_.send(Bytes(3, 'x'));
  client_.send(records::twoStrings());
  client_.close();
  // Its reader takes the hang-up and a read that brings nothing for the end.
  EXPECT_EQ(read(connection_).bytes, records::twoStrings());
  EXPECT_EQ(read(connection_).status, ENOTCONN);
}

TEST_F(UserConnection, whatASenderMayNotEmitIsDropped) {
  const Bytes allowed = records::batchOf({support::rawRecord("kel.user.a"), support::rawRecord("kel.external.b")});
  if (!client_.sendAsForeigner({support::rawRecord("kel.net.a"), allowed})) {
    GTEST_SKIP() << "not root, so nobody else can send here";
  }
  EXPECT_EQ(read(connection_).bytes, allowed);
  EXPECT_EQ(counters(), (ContextCounters{.delivered = 1, .forbidden = 1}));
  // Credentials are those of each message: the same connection in root's hands may send anything.
  client_.send(support::rawRecord("kel.net.a"));
  EXPECT_EQ(read(connection_).bytes, support::rawRecord("kel.net.a"));
}

}  // namespace
