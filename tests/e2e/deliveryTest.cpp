// Events whose receiver is not there: queued, tried again, delivered late or given up.
#include <sys/socket.h>

#include "endToEnd.h"
#include "fakeTime.h"

namespace e2e {
namespace {

using namespace std::chrono_literals;

/// How long connecting to the management agent, or sending to it, may take.
constexpr std::chrono::seconds kSendLimit{5};

const std::string kFirewall = "orn.audit.net.firewall.disabled";
const std::string kEnable = "orn.audit.net.lacp.enable";

std::string queued(const std::string& event) {
  return "An event (" + event + ") could not be sent immediately to hagd; queueing for retry.";
}
std::string failed(const std::string& event, int count) {
  return "Failed to send event (" + event + "); " + std::to_string(count) + " failures so far.";
}
std::string abandoned(const std::string& event) {
  return "Abandoned event (" + event + ") after 6 failures.";
}
std::string delivered(const std::string& event, int count) {
  return "Successfully sent event (" + event + ") after " + std::to_string(count) + " failure" +
         (count == 1 ? "." : "s.");
}

int secondsOfDay(const LogLine& line) {
  return std::stoi(line.stamp.substr(11, 2)) * 3600 + std::stoi(line.stamp.substr(14, 2)) * 60 +
         std::stoi(line.stamp.substr(17, 2));
}

class Delivery : public EndToEnd {
 protected:
  /// The delivery's own lines so far.
  std::vector<std::string> deliveryTexts() {
    std::vector<std::string> texts = log().texts();
    std::erase_if(texts, [](const std::string& text) { return text.find(" event (") == std::string::npos; });
    return texts;
  }
};

/// Delivery with a clock that runs so fast that three minutes pass in a few seconds, and yet leaves
/// the test time to act between two retries.
class DeliveryRetries : public Delivery {
 protected:
  void SetUp() override {
    if (const std::string why = FakeTime::missing(); !why.empty()) GTEST_SKIP() << why;
    Delivery::SetUp();
    if (IsSkipped()) return;
    daemon_ = std::make_unique<Daemon>(workspace());
    FakeTime::runFast(*daemon_, 60);
    daemon_->startAndServe();
    emitter_ = std::make_unique<Emitter>(Emitter::toContext(workspace()));
  }
  Daemon& daemon() { return *daemon_; }
  const Emitter& emitter() { return *emitter_; }

 private:
  std::unique_ptr<Daemon> daemon_;
  std::unique_ptr<Emitter> emitter_;
};

TEST_F(Delivery, WithNobodyListeningAnEventIsTriedFiveTimesMoreAndAbandoned) {
  if (const std::string why = FakeTime::missing(); !why.empty()) GTEST_SKIP() << why;
  Daemon daemon(workspace());
  FakeTime::runFast(daemon, 300);
  daemon.startAndServe();
  const Emitter emitter = Emitter::toContext(workspace());
  emitter.send("kel.net.firewall.disabled");
  log().waitFor(abandoned(kFirewall));
  const std::vector<std::string> cycle{queued(kFirewall),    failed(kFirewall, 2), failed(kFirewall, 3),
                                       failed(kFirewall, 4), failed(kFirewall, 5), abandoned(kFirewall)};
  EXPECT_EQ(deliveryTexts(), cycle);

  // The timer was left disarmed: the next event arms it, and its tries are counted from the beginning.
  emitter.send("kel.net.lacp.enable", {support::s("msw1")});
  log().waitFor(queued(kEnable));
  log().waitFor(failed(kEnable, 2));
  log().waitFor(abandoned(kEnable));
  EXPECT_EQ(deliveryTexts().size(), 2 * cycle.size());
  EXPECT_TRUE(daemon.terminate().with(0));
}

TEST_F(DeliveryRetries, TheFirstRetryComesAfterThreeMinutesWithTheRecordAsItWas) {
  emitter().send("kel.net.firewall.disabled");
  const LogLine waiting = log().waitFor(queued(kFirewall));
  const TraceLine out = daemon().trace().waitFor("OUT", kFirewall);
  EventReceiver agent(workspace().eventSocket());
  const EventRecord record = agent.waitForCount(1)[0];
  EXPECT_EQ(record.name, kFirewall);
  EXPECT_EQ(std::to_string(record.timestampUs), out.stamp);
  const LogLine sent = log().waitFor(delivered(kFirewall, 1));
  EXPECT_EQ(deliveryTexts(), (std::vector<std::string>{queued(kFirewall), delivered(kFirewall, 1)}));
  // Both stamps of the shifted clock; timers count whole seconds.
  EXPECT_GE(secondsOfDay(sent) - secondsOfDay(waiting), 179);
}

TEST_F(DeliveryRetries, AnAgentThatComesBackGetsWhatWaitsOldestFirst) {
  emitter().send("kel.net.firewall.disabled");
  emitter().send("kel.net.lacp.enable", {support::s("msw1")});
  log().waitFor(failed(kEnable, 2));
  emitter().send("kel.net.lacp.enable", {support::s("msw2")});
  log().waitFor(queued(kEnable), 2);

  EventReceiver agent(workspace().eventSocket());
  const std::vector<EventRecord> records = agent.waitForCount(3);
  EXPECT_EQ(records[0].name, kFirewall);
  EXPECT_EQ(records[1].arguments.at(0).text, "msw1");
  EXPECT_EQ(records[2].arguments.at(0).text, "msw2");
  log().waitFor(delivered(kEnable, 1));
  EXPECT_EQ(deliveryTexts(), (std::vector<std::string>{queued(kFirewall), queued(kEnable), failed(kFirewall, 2),
                                                       failed(kEnable, 2), queued(kEnable), delivered(kFirewall, 2),
                                                       delivered(kEnable, 2), delivered(kEnable, 1)}));

  // Nothing waits any more: what comes now goes out at once.
  emitter().send("kel.net.firewall.disabled");
  EXPECT_EQ(agent.waitForCount(4)[3].name, kFirewall);
  EXPECT_EQ(log().count(queued(kFirewall)), 1U);
}

TEST_F(DeliveryRetries, ARetryToAStalledReceiverHoldsUpTheEndNoLongerThanOneAttempt) {
  emitter().send("kel.net.firewall.disabled");
  const double posted = std::stod(daemon().trace().waitFor("OUT", kFirewall).time);
  log().waitFor(queued(kFirewall));
  const StalledReceiver agent(workspace().eventSocket());
  // The retry is due, and with it the timer thread waits for the agent.
  EXPECT_TRUE(eventually([&] {
    emitter().send("kel.unheard.clock");
    return std::stod(daemon().trace().waitFor("IN", "kel.unheard.clock").time) > posted + 200;
  }));
  EXPECT_TRUE(daemon().terminate(Deadline(kSendLimit + 3s)).with(0));
}

TEST_F(Delivery, AStalledReceiverCountsAsAFailureAndStopsNothingElse) {
  const StalledReceiver agent(workspace().eventSocket());
  Daemon daemon(workspace());
  daemon.startAndServe();
  const Emitter emitter = Emitter::toContext(workspace());
  emitter.send("kel.net.firewall.disabled");
  daemon.trace().waitFor("OUT", kFirewall);
  // The correlator waits for the agent now; the loop, the trace and the connections do not.
  settle(daemon, emitter);
  settle(daemon, Emitter::toUserContext(workspace()));
  TraceClient(workspace().traceSocket()).history();
  EXPECT_EQ(log().count(queued(kFirewall)), 0U);
  log().waitFor(queued(kFirewall), 1, Deadline(kSendLimit + 5s));
  EXPECT_TRUE(daemon.terminate().with(0));
}

TEST_F(Delivery, AStalledReceiverHoldsUpTheEndNoLongerThanOneAttempt) {
  const StalledReceiver agent(workspace().eventSocket());
  Daemon daemon(workspace());
  daemon.startAndServe();
  Emitter::toContext(workspace()).send("kel.net.firewall.disabled");
  daemon.trace().waitFor("OUT", kFirewall);
  EXPECT_TRUE(daemon.terminate(Deadline(kSendLimit + 3s)).with(0));
}

TEST_F(Delivery, AReceiverThatNeverReadsIsServedAllTheSame) {
  const Descriptor listener = localSocket(SOCK_STREAM);
  bindLocal(listener, workspace().eventSocket());
  ASSERT_EQ(::listen(listener.get(), 128), 0);
  Daemon daemon(workspace());
  daemon.startAndServe();
  const Emitter emitter = Emitter::toContext(workspace());
  for (int n = 0; n < 50; ++n) emitter.send("kel.net.lacp.enable", {support::s("msw" + std::to_string(n))});
  for (int n = 0; n < 50; ++n) daemon.trace().waitFor("OUT", kEnable);
  EXPECT_TRUE(daemon.terminate().with(0));
  log().waitFor("Exiting. rc:0");
  EXPECT_EQ(log().count(queued(kEnable)), 0U);
}

TEST_F(Delivery, AReceiverThatClosesAtOnceStopsNothing) {
  Daemon daemon(workspace());
  const Descriptor listener = localSocket(SOCK_STREAM);
  bindLocal(listener, workspace().eventSocket());
  ASSERT_EQ(::listen(listener.get(), 128), 0);
  daemon.startAndServe();
  const Emitter emitter = Emitter::toContext(workspace());
  for (int n = 0; n < 20; ++n) {
    emitter.send("kel.net.firewall.disabled");
    const Descriptor accepted(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    daemon.trace().waitFor("OUT", kFirewall);
  }
  settle(daemon, emitter);
  EXPECT_TRUE(daemon.terminate().with(0));
}

}  // namespace
}  // namespace e2e
