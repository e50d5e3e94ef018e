#include "keldDelivery.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <string>

#include "keldVprobRecord.h"
#include "manualTime.h"
#include "recordingPost.h"
#include "socketReceiver.h"

namespace {

using namespace std::chrono_literals;

std::string recordNamed(const std::string& name) {
  std::string bytes(keld::record::kHeader + name.size() + 1, '\0');
  name.copy(bytes.data() + keld::record::kName, name.size());
  return bytes;
}

class DeliveryTest : public testing::Test {
 protected:
  void SetUp() override { delivery.createRetryTimer(); }

  void enqueue(const std::string& name) {
    const std::string record = recordNamed(name);
    delivery.VProb_Enqueue(record.data(), record.size());
  }
  std::vector<std::string> flushLines() {
    timers.advance(180s);
    return log.take();
  }

  support::TemporaryDirectory directory;
  std::string path = directory.path() + "/hagd-vprob.sock";
  support::ManualClock clock;
  support::ManualTimers timers{clock};
  support::RecordingLog log;
  keld::Delivery delivery{path, timers};
};

using Lines = std::vector<std::string>;

TEST_F(DeliveryTest, oneConnectionCarriesExactlyOneRecord) {
  support::SocketReceiver receiver(path);
  const std::string one = recordNamed("orn.audit.one");
  const std::string two = recordNamed("orn.audit.two");
  EXPECT_EQ(delivery.VProb_SendNow(one.data(), one.size()), 0);
  EXPECT_EQ(delivery.VProb_SendNow(two.data(), two.size()), 0);
  EXPECT_EQ(receiver.take(), (Lines{one, two}));
  EXPECT_TRUE(log.take().empty());
}

TEST_F(DeliveryTest, nobodyListeningFailsWithoutALine) {
  const std::string record = recordNamed("orn.audit.one");
  EXPECT_EQ(delivery.VProb_SendNow(record.data(), record.size()), -1);
  EXPECT_TRUE(log.take().empty());
}

TEST_F(DeliveryTest, aRecordIsAbandonedAtItsFifthFailedRetryAndTheTimerIsLeftDisarmed) {
  enqueue("orn.audit.one");
  EXPECT_EQ(flushLines(), Lines{"Failed to send event (orn.audit.one); 2 failures so far.\n"});
  EXPECT_EQ(flushLines(), Lines{"Failed to send event (orn.audit.one); 3 failures so far.\n"});
  EXPECT_EQ(flushLines(), Lines{"Failed to send event (orn.audit.one); 4 failures so far.\n"});
  EXPECT_EQ(flushLines(), Lines{"Failed to send event (orn.audit.one); 5 failures so far.\n"});
  EXPECT_EQ(flushLines(), Lines{"Abandoned event (orn.audit.one) after 6 failures.\n"});
  EXPECT_FALSE(timers.armed());
}

TEST_F(DeliveryTest, aReceiverThatComesBackGetsAllInTheOrderOfQueueing) {
  enqueue("orn.audit.one");
  timers.advance(30s);
  enqueue("orn.audit.two");
  timers.advance(149s);
  EXPECT_TRUE(log.take().empty());
  timers.advance(1s);
  EXPECT_EQ(log.take().size(), 2U);
  enqueue("orn.audit.three");
  support::SocketReceiver receiver(path);
  EXPECT_EQ(flushLines(), (Lines{"Successfully sent event (orn.audit.one) after 2 failures.\n",
                                 "Successfully sent event (orn.audit.two) after 2 failures.\n",
                                 "Successfully sent event (orn.audit.three) after 1 failure.\n"}));
  EXPECT_EQ(receiver.take(),
            (Lines{recordNamed("orn.audit.one"), recordNamed("orn.audit.two"), recordNamed("orn.audit.three")}));
  EXPECT_FALSE(timers.armed());
}

TEST_F(DeliveryTest, theTimerIsArmedAgainByTheNextEnqueue) {
  support::SocketReceiver receiver(path);
  enqueue("orn.audit.one");
  flushLines();
  EXPECT_FALSE(timers.armed());
  enqueue("orn.audit.two");
  EXPECT_EQ(timers.secondsToNext(), 180);
}

TEST_F(DeliveryTest, anEnqueueWhileTheTimerRunsDoesNotPushItBack) {
  enqueue("orn.audit.one");
  timers.advance(100s);
  enqueue("orn.audit.two");
  EXPECT_EQ(timers.secondsToNext(), 80);
}

TEST_F(DeliveryTest, aReceiverThatAcceptsNothingCostsOneTimeOutOnly) {
  // The backlog is full before the first attempt: nothing is ever accepted.
  support::SocketReceiver receiver(path, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  std::vector<int> waiting;
  while (true) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    waiting.push_back(fd);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) break;
  }
  const std::string record = recordNamed("orn.audit.one");
  EXPECT_EQ(delivery.VProb_SendNow(record.data(), record.size()), -1);
  // A hundred more would take over eight minutes, and the test's own time limit, if each waited.
  for (int n = 0; n < 100; ++n) EXPECT_EQ(delivery.VProb_SendNow(record.data(), record.size()), -1);
  for (const int fd : waiting) close(fd);
  receiver.take();
  EXPECT_EQ(delivery.VProb_SendNow(record.data(), record.size()), 0);
}

}  // namespace
