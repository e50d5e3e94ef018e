// The reason of the last reboot, from its announcement over the daemon's death to the report of the next boot.
#include <csignal>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>

#include "endToEnd.h"

namespace e2e {
namespace {

constexpr const char* kRebootReason = "kel.user.hagd.host.reboot.reason";
constexpr const char* kAdvice =
    "Please consult ORNi Embedded and Centrix Server Setup Guide or follow the Ask Korvel link for more information.";

class BootReport : public EndToEnd {
 protected:
  void SetUp() override {
    EndToEnd::SetUp();
    if (IsSkipped()) return;
    agent_ = std::make_unique<Program>(workspace(), KELCTL_PROGRAM, std::vector<std::string>{"events", "--json"});
    agent_->start();
    ASSERT_TRUE(eventually([&] { return std::filesystem::exists(workspace().eventSocket()); }));
    startDaemon();
  }

  void startDaemon() {
    daemon_ = std::make_unique<Daemon>(workspace());
    daemon_->startAndServe();
  }
  void killDaemon() {
    daemon_->signal(SIGKILL);
    (void)daemon_->waitForEnd();
    daemon_.reset();
  }
  Daemon& daemon() { return *daemon_; }

  Outcome kelctl(const std::vector<std::string>& arguments) { return run(workspace(), KELCTL_PROGRAM, arguments); }
  [[nodiscard]] bool recordExists() { return kelctl({"store", "get", "reboot_reason"}).ending.with(0); }
  [[nodiscard]] std::string markerPath() const { return workspace().runDirectory() + "/boot-reported"; }

  /// Announces a reboot or power-off; returns once its event has come and the reason is stored.
  void announce(const std::string& id, const Arguments& arguments, const std::string& event) {
    Emitter::toUserContext(workspace()).send(id, arguments);
    EXPECT_EQ(nextEvent()["event"], event);
    ASSERT_TRUE(eventually([&] { return recordExists(); }));
  }
  nlohmann::json nextEvent() {
    std::string shown;
    const auto lines = [&] {
      shown = agent_->standardOutput();
      return static_cast<std::size_t>(std::count(shown.begin(), shown.end(), '\n'));
    };
    if (!eventually([&] { return lines() > seen_; })) throw HarnessError("no further event came");
    std::istringstream text(shown);
    std::string line;
    for (std::size_t n = 0; n <= seen_; ++n) std::getline(text, line);
    ++seen_;
    return nlohmann::json::parse(line);
  }
  [[nodiscard]] std::size_t events() const { return seen_; }
  void expectReport(const Outcome& outcome, const std::string& observation, const std::string& event,
                    const std::string& text) {
    EXPECT_TRUE(outcome.ending.with(0)) << outcome.error;
    EXPECT_EQ(outcome.output, "reported " + observation + "\n");
    const nlohmann::json shown = nextEvent();
    EXPECT_EQ(shown["kind"], "audit");
    EXPECT_EQ(shown["event"], event);
    EXPECT_EQ(shown["text"], text + kAdvice);
    EXPECT_FALSE(recordExists());
  }

 private:
  std::unique_ptr<Program> agent_;
  std::unique_ptr<Daemon> daemon_;
  std::size_t seen_ = 0;
};

TEST_F(BootReport, AReasonOutlivesTheDaemonAndIsReportedOnce) {
  announce(kRebootReason, {"hagd:planned upgrade", "root"}, "orn.audit.hagd.host.reboot.reason");
  killDaemon();
  startDaemon();
  const Outcome stored = kelctl({"store", "get", "reboot_reason", "--json"});
  ASSERT_TRUE(stored.ending.with(0)) << stored.error;
  const auto record = nlohmann::ordered_json::parse(stored.output);
  const std::string time = record.value("timestamp", "");
  const nlohmann::ordered_json expected{
      {"type", "REBOOT"}, {"user", "root"}, {"subsystem", "hagd"}, {"timestamp", time}, {"reason", "planned upgrade"}};
  EXPECT_EQ(record.dump(), expected.dump());
  EXPECT_TRUE(time.ends_with(" +0000")) << time;

  const Outcome dry = kelctl({"boot-report", "--dry-run"});
  EXPECT_EQ(dry.output,
            "kelctl emit kel.user.host.reboot.reason.management s:root s:hagd 's:" + time + "' 's:planned upgrade'\n");
  EXPECT_TRUE(recordExists());
  EXPECT_FALSE(std::filesystem::exists(markerPath()));

  expectReport(
      kelctl({"boot-report"}), "kel.user.host.reboot.reason.management", "orn.audit.host.reboot.reason.management",
      "User <root> had initiated reboot. Subsystem: <hagd>, Time: <" + time + ">, Reason: <planned upgrade>. ");

  const Outcome second = kelctl({"boot-report"});
  EXPECT_TRUE(second.ending.with(0)) << second.error;
  EXPECT_EQ(second.output, "already reported in this boot; --force reports again\n");
  // The next event is that of the report that was forced: the second run made none.
  expectReport(kelctl({"boot-report", "--force"}), "kel.user.host.reboot.reason.unavailable",
               "orn.audit.host.reboot.reason.unavailable",
               "Host had been rebooted. Last reboot reason is unknown. Please check ORNi and the BMC logs for further "
               "details. ");
}

TEST_F(BootReport, TheConsolesRecordIsAnUnavailableReason) {
  announce("kel.user.panl.shutdown.host", {}, "orn.audit.panl.host.shutdown");
  const Outcome outcome = kelctl({"boot-report"});
  EXPECT_EQ(outcome.output, "reported kel.user.host.poweroff.reason.unavailable\n") << outcome.error;
  EXPECT_EQ(nextEvent()["event"], "orn.audit.host.poweroff.reason.unavailable");
  EXPECT_FALSE(recordExists());
}

TEST_F(BootReport, AReasonOfNobodyKnownIsAvailable) {
  announce("kel.user.subsystem.host.reboot.reason", {"bmc:new firmware", "Unknown", "bmc"},
           "orn.audit.subsystem.host.reboot.reason");
  expectReport(kelctl({"boot-report"}), "kel.user.host.reboot.reason.available",
               "orn.audit.host.reboot.reason.available", "Host had been rebooted. Reason: <new firmware>. ");
}

TEST_F(BootReport, WithoutARecordTheReasonIsUnavailable) {
  const Outcome outcome = kelctl({"boot-report"});
  EXPECT_EQ(outcome.output, "reported kel.user.host.reboot.reason.unavailable\n") << outcome.error;
  EXPECT_EQ(nextEvent()["event"], "orn.audit.host.reboot.reason.unavailable");
}

TEST_F(BootReport, AnotherBootIsReportedAnew) {
  ASSERT_TRUE(kelctl({"boot-report"}).ending.with(0));
  (void)nextEvent();
  replaceFile(markerPath(), "00000000-0000-0000-0000-000000000000\n");
  EXPECT_EQ(kelctl({"boot-report"}).output, "reported kel.user.host.reboot.reason.unavailable\n");
  (void)nextEvent();
  EXPECT_EQ(kelctl({"boot-report"}).output, "already reported in this boot; --force reports again\n");
}

TEST_F(BootReport, WithoutADaemonItFailsAndTheRecordStays) {
  announce(kRebootReason, {"hagd:planned", "root"}, "orn.audit.hagd.host.reboot.reason");
  killDaemon();
  const Outcome outcome = kelctl({"boot-report", "--timeout", "0.2"});
  EXPECT_TRUE(outcome.ending.with(1)) << outcome.ending.text();
  EXPECT_EQ(outcome.output, "");
  EXPECT_EQ(outcome.error,
            "kelctl: cannot reach keld at " + workspace().userSocket() + ": Connection refused; is keld running?\n");
  EXPECT_TRUE(recordExists());
  EXPECT_FALSE(std::filesystem::exists(markerPath()));
}

TEST_F(BootReport, ItWaitsForTheDaemon) {
  announce(kRebootReason, {"hagd:planned", "root"}, "orn.audit.hagd.host.reboot.reason");
  killDaemon();
  Program report(workspace(), KELCTL_PROGRAM, {"boot-report"});
  report.start();
  startDaemon();
  EXPECT_TRUE(report.waitForEnd().with(0)) << report.standardError();
  EXPECT_EQ(nextEvent()["event"], "orn.audit.host.reboot.reason.management");
  EXPECT_FALSE(recordExists());
}

TEST_F(BootReport, ADaemonThatServesOthersOnlyHasNotTakenIt) {
  announce(kRebootReason, {"hagd:planned", "root"}, "orn.audit.hagd.host.reboot.reason");
  std::vector<Emitter> others;
  while (others.size() < 8) {
    others.push_back(Emitter::toUserContext(workspace()));
    (void)settle(daemon(), others.back());
  }
  const Outcome refused = kelctl({"boot-report", "--timeout", "0.2"});
  EXPECT_TRUE(refused.ending.with(1)) << refused.output;
  EXPECT_NE(refused.error.find("keld serves eight user-level clients at a time"), std::string::npos) << refused.error;
  EXPECT_TRUE(recordExists());
  others.pop_back();
  EXPECT_TRUE(kelctl({"boot-report"}).ending.with(0));
  EXPECT_EQ(nextEvent()["event"], "orn.audit.host.reboot.reason.management");
  EXPECT_FALSE(recordExists());
}

TEST_F(BootReport, ADaemonThatStandsStillHasNotTakenIt) {
  announce(kRebootReason, {"hagd:planned", "root"}, "orn.audit.hagd.host.reboot.reason");
  daemon().signal(SIGSTOP);
  const Outcome outcome = kelctl({"boot-report", "--timeout", "0.2"});
  daemon().signal(SIGCONT);
  EXPECT_TRUE(outcome.ending.with(1)) << outcome.output;
  EXPECT_EQ(outcome.error, "kelctl: cannot reach keld at " + workspace().userSocket() + ": it does not answer\n");
  EXPECT_TRUE(recordExists());
}

}  // namespace
}  // namespace e2e
