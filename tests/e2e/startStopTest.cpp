// From start to end: contexts, signals, exit status, sockets.
#include <sys/stat.h>

#include <csignal>
#include <filesystem>

#include "endToEnd.h"

namespace e2e {
namespace {

using namespace std::chrono_literals;

/// How long connecting to the management agent, or sending to it, may take.
constexpr std::chrono::seconds kSendLimit{5};

class StartStop : public EndToEnd {};

std::string modeOf(const std::string& path) {
  struct stat facts {};
  if (::lstat(path.c_str(), &facts) != 0) return "missing";
  const char* kind = S_ISSOCK(facts.st_mode) ? "socket " : S_ISDIR(facts.st_mode) ? "directory " : "other ";
  std::string digits;
  for (const int shift : {6, 3, 0}) digits += static_cast<char>('0' + ((facts.st_mode >> shift) & 7));
  return kind + digits + (facts.st_uid == ::geteuid() ? "" : " of another user");
}

/// The texts after which nothing may follow.
std::vector<std::string> lastTexts(const SystemLog& log, std::size_t count) {
  std::vector<std::string> texts = log.texts();
  if (texts.size() > count) texts.erase(texts.begin(), texts.end() - static_cast<std::ptrdiff_t>(count));
  return texts;
}

TEST_F(StartStop, ASignalToEndIsLoggedAndEndsWithZero) {
  for (const int number : {SIGTERM, SIGINT}) {
    const std::size_t round = number == SIGTERM ? 1 : 2;
    Daemon daemon(workspace());
    daemon.startAndServe();
    daemon.signal(number);
    const Ending ending = daemon.waitForEnd();
    EXPECT_TRUE(ending.with(0)) << ending.text();
    log().waitFor("Exiting due to signal.", round);
    const LogLine last = log().waitFor("Exiting. rc:0", round);
    EXPECT_TRUE(last.lineFeed);
    EXPECT_EQ(lastTexts(log(), 1), std::vector<std::string>{"Exiting. rc:0"});
  }
}

TEST_F(StartStop, AnIdleDaemonEndsWithinASecond) {
  Daemon daemon(workspace());
  daemon.startAndServe();
  EXPECT_TRUE(daemon.terminate(Deadline(1s)).with(0));
}

TEST_F(StartStop, SigpipeStopsNothing) {
  Daemon daemon(workspace());
  daemon.startAndServe();
  const Emitter emitter = Emitter::toContext(workspace());
  for (int n = 0; n < 5; ++n) {
    daemon.signal(SIGPIPE);
    settle(daemon, emitter);
  }
  EXPECT_FALSE(daemon.hasEnded());
  EXPECT_EQ(log().count("Exiting due to signal."), 0U);
  EXPECT_TRUE(daemon.terminate().with(0));
}

TEST_F(StartStop, AContextThatCannotBeOpenedEndsTheDaemonWithItsStatus) {
  workspace().setModel(R"({"failures": {"context.open:7": 19}})");
  Program daemon(workspace(), KELD_PROGRAM);
  daemon.start();
  const Ending ending = daemon.waitForEnd();
  EXPECT_TRUE(ending.with(19)) << ending.text();
  log().waitFor("Exiting. rc:19");
  EXPECT_EQ(log().texts(), std::vector<std::string>{"Exiting. rc:19"});
}

TEST_F(StartStop, AUserContextThatCannotBeOpenedEndsTheDaemonWithItsStatus) {
  workspace().setModel(R"({"failures": {"context.open:24": 7}})");
  Program daemon(workspace(), KELD_PROGRAM);
  daemon.start();
  const Ending ending = daemon.waitForEnd();
  EXPECT_TRUE(ending.with(7)) << ending.text();
  log().waitFor("Exiting. rc:7");
}

TEST_F(StartStop, EveryContextIsReadThroughItsOwnSocket) {
  Daemon daemon(workspace());
  daemon.startAndServe();
  for (unsigned number = 0; number < 24; ++number) {
    const std::string id = "kel.unheard.context" + std::to_string(number);
    Emitter::toContext(workspace(), number).send(id);
    daemon.trace().waitFor("IN", id);
  }
  Emitter::toUserContext(workspace()).send("kel.user.unheard");
  daemon.trace().waitFor("IN", "kel.user.unheard");
}

TEST_F(StartStop, SocketsAndDirectoriesAreTheOwnersAlone) {
  std::filesystem::remove(workspace().runDirectory());
  const mode_t before = ::umask(0);
  Daemon daemon(workspace(), std::vector<std::string>{"-e"});
  daemon.startAndServe();
  ::umask(before);
  EXPECT_EQ(modeOf(workspace().runDirectory()), "directory 700");
  EXPECT_EQ(modeOf(workspace().runDirectory() + "/kel"), "directory 700");
  EXPECT_EQ(modeOf(workspace().stateDirectory()), "directory 700");
  EXPECT_EQ(modeOf(workspace().traceSocket()), "socket 600");
  EXPECT_EQ(modeOf(workspace().userSocket()), "socket 600");
  for (unsigned number = 0; number < 24; ++number) EXPECT_EQ(modeOf(workspace().contextSocket(number)), "socket 600");
}

TEST_F(StartStop, ADaemonStartsOverTheSocketsOfOneThatWasKilled) {
  {
    Daemon killed(workspace());
    killed.startAndServe();
    killed.signal(SIGKILL);
    EXPECT_FALSE(killed.waitForEnd().exited);
  }
  Daemon daemon(workspace());
  daemon.startAndServe();
  settle(daemon, Emitter::toContext(workspace()));
  settle(daemon, Emitter::toUserContext(workspace()));
  EXPECT_TRUE(daemon.terminate().with(0));
}

TEST_F(StartStop, ASignalEndsADaemonThatWaitsOnAFullPipeOfAStalledCorrelator) {
  const StalledReceiver agent(workspace().eventSocket());
  Daemon daemon(workspace());
  daemon.startAndServe();
  const Emitter emitter = Emitter::toContext(workspace());
  // Each observation becomes an event that cannot be delivered, so the correlator soon stops reading:
  // first its pipe fills, then the context.
  const Batch firewall = record("kel.net.firewall.enabled", {support::s(std::string(400, 'f'))});
  std::size_t sent = 0;
  while (true) {
    ASSERT_LT(sent, 10'000U) << "nothing ever blocked";
    if (const int error = emitter.trySend(firewall); error == 0) {
      ++sent;
    } else {
      ASSERT_EQ(error, EAGAIN);
      // Full, and nobody is about to empty it.
      if (daemon.comesToRest() && emitter.trySend(firewall) == EAGAIN) break;
    }
  }
  EXPECT_GT(sent, 100U);  // a pipe holds sixteen pages, of seven such records each
  const Ending ending = daemon.terminate(Deadline(kSendLimit + 3s));
  EXPECT_TRUE(ending.with(0)) << ending.text();
  log().waitFor("Exiting due to signal.");
  log().waitFor("Exiting. rc:0");
}

TEST_F(StartStop, ASignalEndsADaemonThatIsBusy) {
  const EventReceiver agent(workspace().eventSocket());
  Daemon daemon(workspace());
  daemon.startAndServe();
  daemon.trace().hangUp();
  const Emitter emitter = Emitter::toContext(workspace());
  const Batch firewall = record("kel.net.firewall.disabled");
  for (int n = 0; n < 500; ++n) emitter.send(firewall);
  const Ending ending = daemon.terminate(Deadline(8s));
  EXPECT_TRUE(ending.with(0)) << ending.text();
  log().waitFor("Exiting. rc:0");
}

}  // namespace
}  // namespace e2e
