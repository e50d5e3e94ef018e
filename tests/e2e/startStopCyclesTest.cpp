// The daemon's end, many times over and with work in progress.
#include <csignal>
#include <thread>

#include "endToEnd.h"

namespace e2e {
namespace {

using namespace std::chrono_literals;

class StartStopCycles : public EndToEnd {};

TEST_F(StartStopCycles, TwoHundredDaemonsUnderLoadAllEndWithZero) {
  constexpr unsigned kCycles = 200;
  const EventReceiver agent(workspace().eventSocket());
  const Batch event = record("kel.net.firewall.disabled");
  const Batch down = record("kel.net.qnic.linkstate.down", {support::s("qnic0")});
  for (unsigned cycle = 0; cycle < kCycles; ++cycle) {
    Daemon daemon(workspace());
    daemon.startAndServe();
    const Emitter first = Emitter::toContext(workspace(), cycle % 24);
    const Emitter second = Emitter::toUserContext(workspace());
    // Never the same moment: anything from an idle daemon to one in the middle of a pile of work.
    for (unsigned n = 0; n < cycle % 10; ++n) {
      first.send(event);
      second.send(joined(event, down));
    }
    const Ending ending = daemon.terminate(Deadline(10s));
    ASSERT_TRUE(ending.with(0)) << "cycle " << cycle << ": " << ending.text() << '\n' << daemon.standardError();
    log().waitFor("Exiting. rc:0", cycle + 1);
  }
  EXPECT_EQ(log().count("Exiting due to signal."), kCycles);
}

TEST_F(StartStopCycles, ASignalDuringStartUpEndsWithZero) {
  constexpr unsigned kCycles = 40;
  for (unsigned cycle = 0; cycle < kCycles; ++cycle) {
    const Workspace mine;
    Daemon daemon(mine);
    daemon.start();
    // The first context is opened once the handlers are installed; the rest of start-up is still ahead.
    ASSERT_TRUE(
        eventually([&] { return daemon.hasEnded() || ::access(mine.contextSocket(cycle % 24).c_str(), F_OK) == 0; }));
    const Ending ending = daemon.terminate(Deadline(10s));
    ASSERT_TRUE(ending.with(0)) << "cycle " << cycle << ": " << ending.text() << '\n' << daemon.standardError();
  }
}

TEST_F(StartStopCycles, NothingThatIsSentWhileTheDaemonStartsIsLostToACorrelator) {
  constexpr std::size_t kCycles = 40;
  EventReceiver agent(workspace().eventSocket());
  for (std::size_t cycle = 0; cycle < kCycles; ++cycle) {
    Daemon daemon(workspace());
    daemon.start();
    // As early as somebody can: the loop begins to read once every correlator listens.
    std::optional<Emitter> emitter;
    ASSERT_TRUE(eventually([&] {
      try {
        emitter.emplace(Emitter::toContext(workspace()));
      } catch (const HarnessError&) {
      }
      return emitter.has_value();
    }));
    emitter->send("kel.net.firewall.disabled");
    agent.waitForCount(cycle + 1);
    ASSERT_TRUE(daemon.terminate().with(0));
  }
}

}  // namespace
}  // namespace e2e
