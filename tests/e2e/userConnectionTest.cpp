// Connections of host services to the user-level context.
#include "endToEnd.h"

namespace e2e {
namespace {

constexpr std::size_t kConnections = 8;

class UserConnections : public Serving {
 protected:
  void SetUp() override {
    Serving::SetUp();
    if (IsSkipped()) return;
    // The first line that it logs opens the log.
    Emitter::toContext(workspace()).send("kel.net.firewall.enabled");
    log().waitFor(observationLine("netCorrelator", kStampUs, "kel.net.firewall.enabled", "kel.net.firewall.enabled"));
    daemon().trace().waitFor("IN", "kel.net.firewall.enabled");
    idleDescriptors_ = daemon().openDescriptors();
  }

  std::vector<Emitter> connect(std::size_t count) {
    std::vector<Emitter> emitters;
    while (emitters.size() < count) {
      emitters.push_back(Emitter::toUserContext(workspace()));
      settle(daemon(), emitters.back());
    }
    return emitters;
  }
  /// The daemon has noticed every hang-up when it holds this many connections.
  [[nodiscard]] bool holds(std::size_t connections) const {
    return eventually([&] { return daemon().openDescriptors() == idleDescriptors_ + connections; });
  }
  void expectAllServed(const std::vector<Emitter>& emitters) {
    for (const Emitter& emitter : emitters) settle(daemon(), emitter);
  }

 private:
  std::size_t idleDescriptors_ = 0;
};

TEST_F(UserConnections, EightAreServedAndTheNinthIsTurnedAwaySilently) {
  const std::vector<Emitter> eight = connect(kConnections);
  const std::size_t logged = log().lines().size();
  for (int n = 0; n < 3; ++n) {
    EXPECT_TRUE(Emitter::toUserContext(workspace()).closedByPeer(Deadline{}));
    expectAllServed(eight);
  }
  EXPECT_EQ(log().lines().size(), logged);
  EXPECT_TRUE(holds(kConnections));
}

TEST_F(UserConnections, WhicheverHangsUpItsPlaceIsFreeAndTheOthersAreServed) {
  std::vector<Emitter> emitters = connect(kConnections);
  for (std::size_t leaving = 0; leaving < kConnections; ++leaving) {
    emitters.erase(emitters.begin() + static_cast<std::ptrdiff_t>(leaving));
    ASSERT_TRUE(holds(kConnections - 1)) << leaving;
    expectAllServed(emitters);
    emitters.push_back(Emitter::toUserContext(workspace()));
    expectAllServed(emitters);
    EXPECT_TRUE(Emitter::toUserContext(workspace()).closedByPeer(Deadline{}));
  }
}

TEST_F(UserConnections, AllMayLeaveAtOnce) {
  for (int round = 0; round < 5; ++round) {
    connect(kConnections).clear();
    ASSERT_TRUE(holds(0)) << round;
  }
  expectAllServed(connect(kConnections));
}

TEST_F(UserConnections, NeighboursThatLeaveTogetherFreeTheirPlaces) {
  std::vector<Emitter> emitters = connect(kConnections);
  emitters.erase(emitters.begin() + 1, emitters.begin() + 7);
  ASSERT_TRUE(holds(2));
  expectAllServed(emitters);
  expectAllServed(connect(kConnections - 2));
}

TEST_F(UserConnections, WhatWasSentBeforeHangingUpIsDelivered) {
  for (int n = 0; n < 30; ++n) {
    const std::string id = "kel.user.farewell" + std::to_string(n);
    {
      const Emitter emitter = Emitter::toUserContext(workspace());
      emitter.send(id + ".first");
      emitter.send(id);
    }
    daemon().trace().waitFor("IN", id + ".first");
    daemon().trace().waitFor("IN", id);
  }
  EXPECT_TRUE(holds(0));
}

TEST_F(UserConnections, ConnectingAndLeavingWithoutAWordIsHarmless) {
  for (int n = 0; n < 100; ++n) Emitter::toUserContext(workspace());
  EXPECT_TRUE(holds(0));
  EXPECT_TRUE(daemon().comesToRest());
  expectAllServed(connect(kConnections));
}

TEST_F(UserConnections, EmptyPacketsAreIgnored) {
  const Emitter emitter = Emitter::toUserContext(workspace());
  for (int n = 0; n < 10; ++n) {
    ASSERT_EQ(emitter.trySend({}), 0);
    EXPECT_TRUE(settle(daemon(), emitter).empty());
  }
  EXPECT_TRUE(daemon().comesToRest());
}

TEST_F(UserConnections, GarbageIsDroppedAndTheLoopDoesNotSpin) {
  const Emitter good = Emitter::toUserContext(workspace());
  const Emitter bad = Emitter::toUserContext(workspace());
  for (std::size_t size : {1U, 31U, 32U, 33U, 4096U, 65536U, 150'000U}) {
    bad.send(Batch(size, '\x7f'));
    EXPECT_TRUE(settle(daemon(), good).empty()) << size;
  }
  EXPECT_TRUE(settle(daemon(), bad).empty());
  EXPECT_TRUE(daemon().comesToRest());
}

TEST_F(UserConnections, AClientThatDiesWithGarbageUnreadFreesItsPlace) {
  for (int n = 0; n < 20; ++n) {
    Emitter emitter = Emitter::toUserContext(workspace());
    emitter.send(Batch(140'000, 'g'));
    ASSERT_EQ(emitter.trySend({}), 0);
    emitter.send(Batch(10, 'g'));
    emitter.hangUp();
    ASSERT_TRUE(holds(0)) << n;
  }
  EXPECT_TRUE(daemon().comesToRest());
}

TEST_F(UserConnections, AClientThatOnlyEndsItsSendingLosesItsPlaceAndTheLoopDoesNotSpin) {
  const Emitter emitter = Emitter::toUserContext(workspace());
  settle(daemon(), emitter);
  emitter.shutDown(SHUT_WR);
  EXPECT_TRUE(emitter.closedByPeer(Deadline{}));
  EXPECT_TRUE(holds(0));
  EXPECT_TRUE(daemon().comesToRest());
}

TEST_F(UserConnections, AClientThatOnlyEndsItsReadingIsServedOn) {
  const Emitter emitter = Emitter::toUserContext(workspace());
  emitter.shutDown(SHUT_RD);
  settle(daemon(), emitter);
  EXPECT_TRUE(daemon().comesToRest());
}

TEST_F(UserConnections, ObservationsReachTheirCorrelatorFromHereToo) {
  EventReceiver agent(workspace().eventSocket());
  Emitter::toUserContext(workspace()).send("kel.net.firewall.disabled");
  EXPECT_EQ(agent.waitForCount(1)[0].name, "orn.audit.net.firewall.disabled");
}

}  // namespace
}  // namespace e2e
