// The record of the last reboot's reason, while the daemon that writes it is killed again and again.
#include <poll.h>

#include <csignal>
#include <iostream>
#include <nlohmann/json.hpp>
#include <random>

#include "endToEnd.h"

namespace e2e {
namespace {

constexpr int kKills = 10;
/// The reasons of one daemon; it is killed before it has recorded them all.
constexpr int kReasons = 200;
constexpr int kLongestLifeMs = 60;

class Store : public EndToEnd {
 protected:
  /// One batch of reasons; the three texts of each belong together.
  static Batch reasons(int first) {
    Batch batch;
    for (int number = first; number < first + kReasons; ++number) {
      const std::string text = std::to_string(number);
      const std::string type = number % 2 == 0 ? "reboot" : "poweroff";
      batch = joined(std::move(batch), record("kel.user.subsystem.host." + type + ".reason",
                                              {"reason:" + text, "user" + text, "subsystem" + text}));
    }
    return batch;
  }
  /// The number of the record, which is whole.
  int recorded() {
    const Outcome outcome = run(workspace(), KELCTL_PROGRAM, {"store", "get", "reboot_reason", "--json"});
    EXPECT_TRUE(outcome.ending.with(0)) << outcome.error;
    const auto shown = nlohmann::ordered_json::parse(outcome.output);
    const std::string text = shown.value("reason", "");
    const int number = std::stoi(text);
    const nlohmann::ordered_json expected{{"type", number % 2 == 0 ? "REBOOT" : "POWEROFF"},
                                          {"user", "user" + text},
                                          {"subsystem", "subsystem" + text},
                                          {"timestamp", shown.value("timestamp", "")},
                                          {"reason", text}};
    EXPECT_EQ(shown.dump(), expected.dump());
    EXPECT_TRUE(shown.value("timestamp", "").ends_with(" +0000")) << shown.dump();
    return number;
  }
};

TEST_F(Store, HoldsAWholeReasonAfterEachKillOfTheDaemonThatRecordsThem) {
  const std::random_device::result_type seed = std::random_device()();
  std::cout << "seed " << seed << '\n';
  std::mt19937 random(seed);
  std::uniform_int_distribution<int> lives(0, kLongestLifeMs);
  int last = 0;
  for (int kill = 0; kill < kKills && !HasFailure(); ++kill) {
    Daemon daemon(workspace());
    daemon.startAndServe();
    const int first = kill * kReasons;
    Emitter::toUserContext(workspace()).send(reasons(first));
    // Of the first reason the event has been posted, and the record may be under way.
    daemon.trace().waitFor("OUT", "orn.audit.subsystem.host.reboot.reason");
    // Only the first daemon has to get a whole record done.
    if (kill == 0) {
      ASSERT_TRUE(eventually([&] {
        return run(workspace(), KELCTL_PROGRAM, {"store", "get", "reboot_reason"}).ending.with(0);
      }));
    }
    ::poll(nullptr, 0, lives(random));
    daemon.signal(SIGKILL);
    EXPECT_FALSE(daemon.waitForEnd().exited);
    const int number = recorded();
    EXPECT_GE(number, last);
    EXPECT_LT(number, first + kReasons);
    std::cout << "killed at " << number - first << " of " << kReasons << "\n";
    last = number;
  }
  std::cout << "last record " << last << '\n';
}

TEST_F(Store, ReasonsByTheThousandHoldUpNeitherOtherCorrelatorsNorTheEndAndTheLastIsKept) {
  constexpr int kMany = 3000, kPerBatch = 300;
  const EventReceiver agent(workspace().eventSocket());
  Daemon daemon(workspace());
  daemon.startAndServe();
  const Emitter emitter = Emitter::toContext(workspace());
  for (int n = 0; n < kMany; n += kPerBatch) {
    Batch batch;
    for (int k = n; k < n + kPerBatch; ++k) {
      batch = joined(std::move(batch), record("kel.user.orncli.host.reboot.reason",
                                              {support::s("orncli:reason " + std::to_string(k)), support::s("root")}));
    }
    emitter.send(batch);
  }
  // So many events are more than the limit of a minute, so the other one is looked for in the log.
  emitter.send("kel.net.firewall.disabled");
  log().waitFor(observationLine("netCorrelator", kStampUs, "kel.net.firewall.disabled", "kel.net.firewall.disabled"));
  const std::string id = "kel.user.orncli.host.reboot.reason";
  log().waitFor(observationLine("UserLevelCorrelator", kStampUs, id, id), kMany);
  ASSERT_TRUE(daemon.terminate().with(0));
  const Outcome shown = run(workspace(), KELCTL_PROGRAM, {"store", "get", "reboot_reason", "reason"});
  EXPECT_EQ(shown.output, "reason " + std::to_string(kMany - 1) + "\n") << shown.error;
}

}  // namespace
}  // namespace e2e
