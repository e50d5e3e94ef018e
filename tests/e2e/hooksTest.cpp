// The ready-made hooks as their callers run them, against a daemon that runs.
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>

#include "story.h"

namespace e2e {
namespace {

using Environment = std::map<std::string, std::string>;

constexpr const char* kUserLevel = "UserLevelCorrelator";

class Hooks : public Story {
 protected:
  void SetUp() override {
    Story::SetUp();
    if (IsSkipped()) return;
    bin_ = workspace().root() + "/bin";
    std::filesystem::create_directory(bin_);
    // A busy machine gets more time than the hooks' two seconds.
    program("timeout", "case $1 in -?) shift 2 ;; esac\nshift\nexec /usr/bin/timeout 30 \"$@\"\n");
    // What a hook that trusts no environment is told to run.
    kelctl_ = program("kelctl-here", "export KORVEL_RUN_DIR='" + workspace().runDirectory() + "'\nexec '" +
                                         KELCTL_PROGRAM + "' \"$@\"\n");
  }

  /// A shell script in a directory that stands first in the hooks' PATH.
  std::string program(const std::string& name, const std::string& body) {
    std::string path = bin_ + "/" + name;
    std::ofstream(path) << "#!/bin/sh\n" << body;
    ::chmod(path.c_str(), 0700);
    return path;
  }
  std::string file(const std::string& name, const std::string& content) {
    std::string path = workspace().root() + "/" + name;
    replaceFile(path, content);
    return path;
  }
  /// Runs a command of the shell, where "$HOOKS" is the hooks' directory, and expects success.
  Outcome shell(const std::string& command, const Environment& environment = {},
                const std::vector<std::string>& arguments = {}) {
    std::vector<std::string> words{"-c", command, "sh"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    Program program(workspace(), "/bin/sh", words);
    program.setEnvironment("HOOKS", KELD_HOOKS);
    program.setEnvironment("KELCTL", KELCTL_PROGRAM);
    program.setEnvironment("PATH", bin_ + ":/usr/sbin:/usr/bin:/sbin:/bin");
    for (const auto& [name, value] : environment) program.setEnvironment(name, value);
    program.start();
    const Ending ending = program.waitForEnd();
    EXPECT_TRUE(ending.with(0)) << command << ": " << ending.text() << "\n" << program.standardError();
    return {ending, program.standardOutput(), program.standardError()};
  }
  void pam(const std::string& service, const std::string& type, const std::string& user, const std::string& host) {
    shell(R"("$HOOKS/pam-session" "$1")",
          {{"PAM_SERVICE", service}, {"PAM_TYPE", type}, {"PAM_USER", user}, {"PAM_RHOST", host}}, {kelctl_});
  }
  void stop() { shell(R"("$HOOKS/host-state" stop)"); }
  [[nodiscard]] std::string reasonFile() const { return workspace().runDirectory() + "/stop-reason"; }
  /// The daemon stores a reason after it has sent the event of it.
  void forgetReason() {
    ASSERT_TRUE(eventually([&] {
      return run(workspace(), KELCTL_PROGRAM, {"store", "delete", "reboot_reason"}).ending.with(0);
    }));
  }
  void dhcp(const Environment& variables) { shell(R"("$HOOKS/dhcp-lease")", variables); }
  /// What systemctl(1) says at a shutdown, and loginctl(1).
  void stopping(const std::string& target, const std::string& wallMessage = {}) {
    program("systemctl", "cat <<'END'\n 91 ssh.service stop running\n 64 shutdown.target start waiting\n" + target +
                             " 65 umount.target start waiting\nEND\n");
    file("wall", wallMessage + "\n");
    program("loginctl", "cat '" + workspace().root() + "/wall'\n");
  }

  /// The next event's only or first text is this one, byte by byte.
  void expectText(const std::string& event, const std::string& text) {
    const EventRecord record = nextEvent(event);
    ASSERT_FALSE(record.arguments.empty()) << event;
    EXPECT_EQ(record.arguments[0].text, text);
  }
  /// What outsiders may call themselves.
  [[nodiscard]] std::vector<std::string> hostileTexts() const {
    const std::string touch = "touch " + workspace().root() + "/ran";
    return {"'; " + touch + "; '",
            "\"; " + touch + "; \"",
            "$(" + touch + ")",
            "`" + touch + "`",
            "| " + touch,
            "--help",
            "-n",
            "i:1 s:two",
            "%s%n%d",
            "\\n\\0$$ * ~ !",
            "one\ntwo",
            "\xff\xfe caf\xc3\xa9",
            std::string(5000, 'u')};
  }
  void expectNothingRan() { EXPECT_FALSE(std::filesystem::exists(workspace().root() + "/ran")); }

  std::string bin_;
  std::string kelctl_;
};

TEST_F(Hooks, SshSessionsAndFailedLoginsAreTold) {
  begin();
  pam("sshd", "open_session", "operator", "192.0.2.7");
  expectEvent(kUserLevel, "orn.audit.ssh.session.opened", "SSH session was opened for 'operator@192.0.2.7'.");
  pam("sshd", "close_session", "operator", "192.0.2.7");
  expectEvent(kUserLevel, "orn.audit.ssh.session.closed", "SSH session was closed for 'operator@192.0.2.7'.");
  pam("sshd", "auth", "operator", "192.0.2.7");
  expectEvent(kUserLevel, "orn.audit.ssh.session.failed", "SSH login has failed for 'operator@192.0.2.7'.");
  end();
}

TEST_F(Hooks, ConsoleLoginsThatFailAndChangedPasswordsAreTold) {
  begin();
  pam("login", "auth", "root", "");
  expectEvent(kUserLevel, "orn.audit.panl.login.failed",
              "Authentication of user root has failed. Please consult ORNi Embedded and Centrix Server Setup Guide or "
              "follow the Ask Korvel link for more information.");
  pam("passwd", "password", "root", "");
  expectEvent(kUserLevel, "orn.audit.panl.login.passwd.changed",
              "Login password for user root has been changed. Please consult ORNi Embedded and Centrix Server Setup "
              "Guide or follow the Ask Korvel link for more information.");
  end();
}

TEST_F(Hooks, SessionsOfOtherServicesAreNotTold) {
  begin();
  pam("cron", "open_session", "root", "");
  pam("sudo", "auth", "operator", "");
  pam("sshd", "setcred", "operator", "192.0.2.7");
  shell(R"("$HOOKS/pam-session" "$1")", {}, {kelctl_});
  pam("sshd", "close_session", "operator", "");
  expectEvent(kUserLevel, "orn.audit.ssh.session.closed", "SSH session was closed for 'operator@'.");
  end();
}

TEST_F(Hooks, AUsersEnvironmentChoosesNeitherTheProgramNorTheDaemon) {
  begin();
  for (const char* name : {"timeout", "env", "kelctl", "faillock"}) {
    program(name, "touch '" + workspace().root() + "/ran'\n");
  }
  for (const char* hook : {"pam-session", "pam-faillock"}) {
    shell("exec \"$HOOKS/" + std::string(hook) + "\" \"$1\"",
          {{"PAM_SERVICE", "sshd"},
           {"PAM_TYPE", "auth"},
           {"PAM_USER", "operator"},
           {"PAM_RHOST", "192.0.2.7"},
           {"KELCTL", bin_ + "/kelctl"},
           {"KORVEL_RUN_DIR", workspace().root() + "/elsewhere"},
           {"PATH", bin_}},
          {kelctl_});
  }
  expectEvent(kUserLevel, "orn.audit.ssh.session.failed", "SSH login has failed for 'operator@192.0.2.7'.");
  expectNothingRan();
  end();
}

TEST_F(Hooks, NamesFromOutsideArriveAsTheyAreAndRunNothing) {
  begin();
  for (const std::string& text : hostileTexts()) {
    pam("sshd", "auth", text, text);
    const EventRecord failed = nextEvent("orn.audit.ssh.session.failed");
    ASSERT_EQ(failed.arguments.size(), 2U);
    EXPECT_EQ(failed.arguments[0].text, text);
    EXPECT_EQ(failed.arguments[1].text, text);
    dhcp({{"reason", "FAIL"}, {"interface", text}});
    expectText("orn.problem.dhclient.lease.none", text);
    dhcp({{"reason", "BOUND"}, {"new_dhcp_server_identifier", text}});
    expectText("orn.problem.dhclient.lease.offered.noexpiry", text);
  }
  expectNothingRan();
  end();
}

TEST_F(Hooks, ARebootIsToldWithTheReasonThatTheOperatorLeft) {
  begin();
  stopping(" 62 reboot.target start waiting\n", "less telling");
  replaceFile(workspace().runDirectory() + "/stop-reason", "new firmware: \"2.1\"\nnot told\n");
  shell(R"("$HOOKS/host-state" stop)");
  expectEvent(kUserLevel, "orn.audit.subsystem.host.reboot.reason",
              "The host is being rebooted.Reason for reboot: new firmware: \"2.1\". User: Unknown. Subsystem: "
              "systemd.Please consult ORNi Embedded and Centrix Server Setup Guide or follow the Ask Korvel link for "
              "more information.");
  expectEvent(kUserLevel, "orn.audit.host.stop.reboot", "Host is rebooting.");
  end();
}

TEST_F(Hooks, AShutdownIsToldWithItsWallMessage) {
  begin();
  stopping(" 62 poweroff.target start waiting\n", "moving to rack 7");
  shell(R"("$HOOKS/host-state" stop)");
  expectEvent(kUserLevel, "orn.audit.subsystem.host.poweroff.reason",
              "The host is being powered off.Reason for power off: moving to rack 7. User: Unknown. Subsystem: "
              "systemd.Please consult ORNi Embedded and Centrix Server Setup Guide or follow the Ask Korvel link for "
              "more information.");
  expectEvent(kUserLevel, "orn.audit.host.stop.shutdown", "Host is shutting down.");
  end();
}

TEST_F(Hooks, WithoutAReasonOnlyTheRebootIsTold) {
  begin();
  stopping(" 62 reboot.target start waiting\n");
  shell(R"("$HOOKS/host-state" stop)");
  expectEvent(kUserLevel, "orn.audit.host.stop.reboot", "Host is rebooting.");
  end();
}

TEST_F(Hooks, AUnitThatIsMerelyStoppedTellsNothing) {
  begin();
  stopping("");
  replaceFile(workspace().runDirectory() + "/stop-reason", "not told\n");
  shell(R"("$HOOKS/host-state" stop; "$HOOKS/host-state"; "$HOOKS/host-state" boot)");
  expectEvent(kUserLevel, "orn.audit.host.boot", "Host has booted.");
  end();
}

TEST_F(Hooks, AReasonThatIsNoFileOfRootsOwnIsNotTold) {
  begin();
  stopping(" 62 reboot.target start waiting\n");
  const std::string secret = file("secret", "of root alone\n");
  const auto expectNoReason = [&] {
    stop();
    expectEvent(kUserLevel, "orn.audit.host.stop.reboot", "Host is rebooting.");
    std::filesystem::remove_all(reasonFile());
  };
  std::filesystem::create_symlink(secret, reasonFile());
  expectNoReason();
  std::filesystem::create_hard_link(secret, reasonFile());
  expectNoReason();
  std::filesystem::create_directory(reasonFile());
  expectNoReason();
  ASSERT_EQ(::mkfifo(reasonFile().c_str(), 0666), 0);
  expectNoReason();
  if (::geteuid() == 0) {
    constexpr uid_t kNobody = 65534;
    replaceFile(reasonFile(), "of somebody else\n");
    ASSERT_EQ(::chown(reasonFile().c_str(), kNobody, kNobody), 0);
    expectNoReason();
  }
  end();
}

TEST_F(Hooks, WhatIsPutInTheReasonsPlaceOnceItWasCheckedIsNeitherFollowedNorWaitedFor) {
  begin();
  stopping(" 62 reboot.target start waiting\n");
  const std::string secret = file("secret", "of root alone\n");
  program("find", "echo \"$1\"\n");
  ASSERT_EQ(::mkfifo(reasonFile().c_str(), 0666), 0);
  stop();
  expectEvent(kUserLevel, "orn.audit.host.stop.reboot", "Host is rebooting.");
  std::filesystem::remove(reasonFile());
  std::filesystem::create_symlink(secret, reasonFile());
  stop();
  expectEvent(kUserLevel, "orn.audit.host.stop.reboot", "Host is rebooting.");
  end();
}

TEST_F(Hooks, AReasonThatIsStoredAlreadyIsKept) {
  begin();
  observe("kel.user.hagd.host.reboot.reason", {"hagd:new firmware", "alice"});
  nextEvent("orn.audit.hagd.host.reboot.reason");
  const auto stored = [&] { return run(workspace(), KELCTL_PROGRAM, {"store", "get", "reboot_reason", "user"}); };
  ASSERT_TRUE(eventually([&] { return stored().ending.with(0); }));
  stopping(" 62 reboot.target start waiting\n", "less telling");
  replaceFile(reasonFile(), "less telling, too\n");
  stop();
  expectEvent(kUserLevel, "orn.audit.host.stop.reboot", "Host is rebooting.");
  EXPECT_EQ(stored().output, "alice\n");
  end();
}

TEST_F(Hooks, HostileReasonsArriveBoundedAndRunNothing) {
  begin();
  stopping(" 62 halt.target start waiting\n");
  for (const std::string& text : hostileTexts()) {
    replaceFile(reasonFile(), text);
    stop();
    expectText("orn.audit.subsystem.host.poweroff.reason",
               text.substr(0, std::min<std::size_t>(text.find('\n'), 1024)));
    nextEvent("orn.audit.host.stop.shutdown");
    forgetReason();
  }
  expectNothingRan();
  end();
}

TEST_F(Hooks, TheBootIsToldAsSoonAsTheDaemonListens) {
  Program boot(workspace(), KELD_HOOKS "/host-state", {"boot"});
  boot.setEnvironment("KELCTL", program("kelctl-asked", "touch '" + workspace().root() + "/asked'\nexec '" +
                                                            KELCTL_PROGRAM + "' \"$@\"\n"));
  boot.start();
  ASSERT_TRUE(eventually([&] { return std::filesystem::exists(workspace().root() + "/asked"); }));
  begin();
  expectEvent(kUserLevel, "orn.audit.host.boot", "Host has booted.");
  EXPECT_TRUE(boot.waitForEnd().with(0)) << boot.standardError();
  end();
}

TEST_F(Hooks, TheBootIsToldOnceInABoot) {
  begin();
  stopping(" 62 reboot.target start waiting\n");
  const std::string kept = workspace().root() + "/kept";
  std::filesystem::create_directory(kept);
  shell(R"("$HOOKS/host-state" boot; "$HOOKS/host-state" boot; "$HOOKS/host-state" stop)",
        {{"RUNTIME_DIRECTORY", kept}});
  expectEvent(kUserLevel, "orn.audit.host.boot", "Host has booted.");
  expectEvent(kUserLevel, "orn.audit.host.stop.reboot", "Host is rebooting.");
  end();
}

TEST_F(Hooks, ACoreIsStoredForRootAloneAndTold) {
  begin();
  const std::string cores = workspace().root() + "/cores";
  std::filesystem::create_directory(cores);
  std::string content =
      "\x7f"
      "ELF";
  content += std::string(300'000, '\0') + "end";
  const std::string input = file("memory", content);
  shell(R"("$HOOKS/core-pattern" "$1" 4711 1767225600 backupd <"$2" >&- 2>&-)", {}, {cores, input});
  const std::string core = cores + "/core.4711.1767225600";
  expectEvent("UserWorldCorrelator", "orn.problem.application.core.dumped",
              "An application (backupd) running on ORNi host has crashed (1 time(s) so far). A core file may have been "
              "created at " +
                  core + ".");
  EXPECT_TRUE(fileContent(core) == content);
  struct stat status {};
  ASSERT_EQ(::stat(core.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0600U);

  for (const std::string& text : hostileTexts()) {
    shell(R"("$HOOKS/core-pattern" "$1" 4711 1767225601 "$3" <"$2")", {}, {cores, input, "x" + text});
    expectText("orn.problem.application.core.dumped", "x" + text);
    std::filesystem::remove(cores + "/core.4711.1767225601");
  }
  expectNothingRan();
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(cores), {}), 1);
  end();
}

TEST_F(Hooks, ACoreThatCannotBeStoredIsTold) {
  begin();
  shell(R"(echo memory | "$HOOKS/core-pattern" /nonexistent 4711 1767225600 backupd)");
  expectEvent(
      "UserWorldCorrelator", "orn.problem.application.core.dumpFailed",
      "An application (backupd) running on ORNi host has crashed (1 time(s) so far), but core dump creation failed.");
  shell(R"(! echo memory | "$HOOKS/core-pattern" "$1" ../4711 1 backupd)", {}, {workspace().root()});
  end();
}

TEST_F(Hooks, WhatTheJournalSaysOfAStoredCoreIsTold) {
  begin();
  const std::string core = "/var/lib/systemd/coredump/core.backupd.0.b1.4711.1767225600000000.zst";
  const std::string journal = R"(for word; do
  case $word in
    --sync) exit ;;
    _SYSTEMD_INVOCATION_ID=*) invocation=${word#*=} ;;
    --output-fields=*) field=${word#*=} ;;
  esac
done
[ "$invocation" = 0123abcd ] || exit
case $field in
  COREDUMP_COMM) cat name ;;
  COREDUMP_PID) echo 4711 ;;
  COREDUMP_FILENAME) cat core ;;
esac
)";
  program("journalctl", journal);
  file("name", "backupd\n");
  file("core", core + "\n");
  shell(R"("$HOOKS/coredump-stored")", {{"INVOCATION_ID", "fedc9876"}});
  shell(R"("$HOOKS/coredump-stored")");
  shell(R"("$HOOKS/coredump-stored")", {{"INVOCATION_ID", "0123abcd"}});
  expectEvent("UserWorldCorrelator", "orn.problem.application.core.dumped",
              "An application (backupd) running on ORNi host has crashed (1 time(s) so far). A core file may have been "
              "created at " +
                  core + ".");
  file("core", "");
  shell(R"("$HOOKS/coredump-stored")", {{"INVOCATION_ID", "0123abcd"}});
  expectEvent(
      "UserWorldCorrelator", "orn.problem.application.core.dumpFailed",
      "An application (backupd) running on ORNi host has crashed (1 time(s) so far), but core dump creation failed.");
  file("core", core);
  for (const std::string& text : hostileTexts()) {
    file("name", text);
    shell(R"("$HOOKS/coredump-stored")", {{"INVOCATION_ID", "0123abcd"}});
    expectText("orn.problem.application.core.dumped", text);
  }
  expectNothingRan();
  end();
}

TEST_F(Hooks, AnInterfaceWithoutALeaseIsTold) {
  begin();
  for (const char* reason : {"FAIL", "EXPIRE", "TIMEOUT"}) {
    dhcp({{"reason", reason}, {"interface", "br0"}});
    nextEvent("orn.problem.dhclient.lease.none");
  }
  dhcp({{"reason", "PREINIT"}, {"interface", "br0"}});
  dhcp({});
  dhcp({{"reason", "EXPIRE"}, {"interface", "br1"}});
  expectEvent(kUserLevel, "orn.problem.dhclient.lease.none", "Unable to obtain a DHCP lease on interface br1.");
  end();
}

TEST_F(Hooks, ALeaseWithoutAnExpiryTimeIsToldOncePerServer) {
  begin();
  const Environment lease{{"interface", "br0"}, {"new_dhcp_server_identifier", "192.0.2.1"}};
  const auto with = [&](Environment more) {
    more.insert(lease.begin(), lease.end());
    return more;
  };
  dhcp(with({{"reason", "BOUND"}, {"new_dhcp_lease_time", "3600"}}));
  dhcp(with({{"reason", "BOUND"}}));
  expectEvent(kUserLevel, "orn.problem.dhclient.lease.offered.noexpiry",
              "No expiry time on offered DHCP lease from 192.0.2.1.");
  dhcp(with({{"reason", "RENEW"}}));
  dhcp({{"reason", "REBOOT"}, {"new_dhcp_server_identifier", "192.0.2.2"}});
  expectEvent(kUserLevel, "orn.problem.dhclient.lease.offered.noexpiry",
              "No expiry time on offered DHCP lease from 192.0.2.2.");
  end();
}

TEST_F(Hooks, WhatSourcesTheLeaseHookGoesOnAsBefore) {
  begin();
  const Outcome outcome =
      shell(R"(set -eu; emit=mine; . "$HOOKS/dhcp-lease"; echo "$? $emit"; command -v emit || echo no function)",
            {{"reason", "EXPIRE"}, {"interface", "br0"}});
  EXPECT_EQ(outcome.output, "0 mine\nno function\n");
  nextEvent("orn.problem.dhclient.lease.none");
  end();
}

TEST_F(Hooks, ATimeDaemonThatGaveUpIsTold) {
  begin();
  shell(R"("$HOOKS/time-correction" - <<'END'
2026-01-01T00:00:00Z Selected source 192.0.2.1
2026-01-01T00:00:00Z System clock wrong by 2000.250000 seconds
2026-01-01T00:00:00Z Adjustment of 2000.250 seconds exceeds the allowed maximum of 1000.000 seconds (exiting)
2026-01-01T00:00:00Z chronyd exiting
END
)");
  expectEvent(kUserLevel, "orn.problem.ntpd.clock.correction.error",
              "NTP daemon stopped.  Time correction 2000 > 1000 seconds.   Manually set the time and restart ntpd.");
  shell(R"("$HOOKS/time-correction" - <<'END'
Jan  1 00:00:00 host ntpd[77]: CLOCK: time correction of -1767225600 seconds exceeds sanity limit (1000); set clock manually to the correct UTC time.
END
)");
  expectEvent(
      kUserLevel, "orn.problem.ntpd.clock.correction.error",
      "NTP daemon stopped.  Time correction 1767225600 > 1000 seconds.   Manually set the time and restart ntpd.");
  shell(R"(echo "2026-01-01T00:00:00 ntpd[77]: CLOCK: Panic: offset too big: -5000.125" | "$HOOKS/time-correction" -)");
  expectEvent(kUserLevel, "orn.problem.ntpd.clock.correction.error",
              "NTP daemon stopped.  Time correction 5000 > 1000 seconds.   Manually set the time and restart ntpd.");
  program("journalctl", R"([ "$1" = --sync ] ||
  echo "CLOCK: time correction of 9999999999 seconds exceeds sanity limit (1000); set clock manually to the correct UTC time."
)");
  shell(R"("$HOOKS/time-correction")", {{"INVOCATION_ID", "0123abcd"}});
  expectEvent(
      kUserLevel, "orn.problem.ntpd.clock.correction.error",
      "NTP daemon stopped.  Time correction 2147483647 > 1000 seconds.   Manually set the time and restart ntpd.");
  end();
}

TEST_F(Hooks, ATimeDaemonThatEndedOtherwiseIsNotTold) {
  begin();
  shell(R"("$HOOKS/time-correction" - <<'END'
Adjustment of 2000.250 seconds exceeds the allowed maximum of 1000.000 seconds (ignored)
Adjustment of $(id) seconds exceeds the allowed maximum of `id` seconds (exiting)
time correction of 99999999999 seconds exceeds sanity limit (1000)
END
"$HOOKS/time-correction"; "$HOOKS/time-correction" - </dev/null)");
  end();
}

TEST_F(Hooks, SuspendedLogActionsAreToldByTheirNames) {
  begin();
  shell(R"("$HOOKS/rsyslog-failure" <<'END'
action 'remote:loghost.example' resumed (module 'builtin:omfwd') [v8.2302.0 try https://www.rsyslog.com/e/2359 ]
action 'spool' suspended (module 'builtin:omfile'), retry 0. There should be messages before this one giving the reason for suspension. [v8.2302.0 try https://www.rsyslog.com/e/2007 ]
action 'remote:loghost.example' suspended (module 'builtin:omfwd'), retry 0. There should be messages before this one giving the reason for suspension. [v8.2302.0 try https://www.rsyslog.com/e/2007 ]
action 'storage:messages' (module 'builtin:omfile') message lost, could not be processed. Check for additional error messages before this one. [v8.2302.0 try https://www.rsyslog.com/e/2027 ]
action 'storage:messages' (module 'builtin:omfile') message lost, could not be processed. Check for additional error messages before this one. [v8.2302.0 try https://www.rsyslog.com/e/2027 ]
action 'remote:loghost.example' suspended (module 'builtin:omfwd'), retry 0. There should be messages before this one giving the reason for suspension. [v8.2302.0 try https://www.rsyslog.com/e/2007 ]
END
)");
  expectEvent(kUserLevel, "orn.problem.lsyslogd.remote.failure",
              "The host \"loghost.example\" cannot be reached; logs are no longer being sent to it.");
  expectEvent(kUserLevel, "orn.problem.lsyslogd.storage.failure",
              "Logging to storage has failed.  Logs are no longer being stored locally on this host.");
  std::string lines;
  for (const std::string& text : hostileTexts()) lines += "action 'remote:" + text + "' suspended (module 'x')\n";
  const std::string input = file("lines", lines);
  shell(R"("$HOOKS/rsyslog-failure" <"$1")", {}, {input});
  for (const std::string& text : hostileTexts()) {
    if (text.find('\n') != std::string::npos) continue;  // two lines, neither of them rsyslogd's
    expectText("orn.problem.lsyslogd.remote.failure", text.substr(0, text.find('\'')));
  }
  expectNothingRan();
  end();
}

TEST_F(Hooks, ALogFailureThatCouldNotBeToldIsToldByTheNextMessage) {
  begin();
  const std::string late =
      program("late", "[ -e tried ] || { touch tried; exit 1; }\nexec '" + std::string(KELCTL_PROGRAM) + "' \"$@\"\n");
  shell(R"sh(for n in 1 2 3; do echo "action 'storage:a' suspended (module 'x')"; done | "$HOOKS/rsyslog-failure")sh",
        {{"KELCTL", late}});
  expectEvent(kUserLevel, "orn.problem.lsyslogd.storage.failure",
              "Logging to storage has failed.  Logs are no longer being stored locally on this host.");
  end();
}

/// The hooks in a stack of the real PAM, which sees no configuration but the workspace's.
class PamHooks : public Hooks {
 protected:
  void SetUp() override {
    Hooks::SetUp();
    if (IsSkipped()) return;
    const Outcome able = shell(R"(touch owned
{ command -v pamtester && chown nobody owned && unshare -m mount -t tmpfs none /run; } >able.out 2>&1 && echo able; :)");
    if (able.output != "able\n")
      GTEST_SKIP() << "needs root and pamtester: " << fileContent(workspace().root() + "/able.out");
    std::filesystem::create_directories(workspace().root() + "/pam.d");
    std::filesystem::create_directories(workspace().root() + "/security");
  }
  /// Puts a stack in force for the service "sshd"; @HOOKS@ and @KELCTL@ stand for what they say.
  void stack(std::string lines) {
    for (const auto& [name, value] : Environment{{"@HOOKS@", KELD_HOOKS}, {"@KELCTL@", kelctl_}}) {
      for (auto at = lines.find(name); at != std::string::npos; at = lines.find(name)) {
        lines.replace(at, name.size(), value);
      }
    }
    file("pam.d/sshd", lines);
  }
  Outcome pamtester(const std::string& user, const std::string& operations) {
    return shell(
        "unshare -m sh -c 'mount --bind pam.d /etc/pam.d && mount --bind security /etc/security && "
        "mount -t tmpfs none /run && mkdir /run/faillock && for n in $1; do "
        "pamtester -I rhost=192.0.2.7 sshd \"$0\" $n; done; :' \"$@\"",
        {}, {user, operations});
  }
};

TEST_F(PamHooks, ASessionIsToldFromItsBeginningToItsEnd) {
  stack(R"(auth required pam_permit.so
session optional pam_exec.so quiet @HOOKS@/pam-session @KELCTL@
session required pam_permit.so
)");
  begin();
  const Outcome outcome = pamtester("nobody", "open_session close_session");
  expectEvent(kUserLevel, "orn.audit.ssh.session.opened", "SSH session was opened for 'nobody@192.0.2.7'.");
  expectEvent(kUserLevel, "orn.audit.ssh.session.closed", "SSH session was closed for 'nobody@192.0.2.7'.");
  EXPECT_NE(outcome.output.find("session has successfully been closed"), std::string::npos) << outcome.output;
  end();
}

constexpr const char* kFaillockStack = R"(auth required pam_faillock.so preauth
auth [success=4 default=ignore] pam_deny.so
auth required pam_faillock.so authfail
auth [default=ignore] pam_exec.so quiet @HOOKS@/pam-session @KELCTL@
auth [default=ignore] pam_exec.so quiet @HOOKS@/pam-faillock @KELCTL@
auth requisite pam_deny.so
auth required pam_permit.so
)";

class FaillockHooks : public PamHooks {
 protected:
  /// Fails to log in as the user, again and again, under this faillock.conf(5).
  void failures(const std::string& user, int count, const std::string& configuration) {
    file("security/faillock.conf", configuration + "nodelay\n");
    stack(kFaillockStack);
    std::string operations;
    for (int n = 0; n < count; ++n) operations += "authenticate ";
    pamtester(user, operations);
  }
  void expectFailed(const std::string& user) {
    expectEvent(kUserLevel, "orn.audit.ssh.session.failed", "SSH login has failed for '" + user + "@192.0.2.7'.");
  }
  void expectFailures(const std::string& user) {
    expectEvent(kUserLevel, "orn.audit.account.loginfailures",
                "Multiple remote login failures detected for ORNi local user account '" + user + "'.");
  }
  void expectLocked(const std::string& user, const std::string& rest) {
    expectEvent(kUserLevel, "orn.audit.account.locked",
                "Remote access for ORNi local user account '" + user + "' has been locked for " + rest +
                    " failed login attempts.");
  }
};

TEST_F(FaillockHooks, LoginsThatFailAreToldAndTheLockOnceHoweverManyFollow) {
  begin();
  failures("nobody", 6, "# of this test\ndeny = 4\nunlock_time=90\n");
  expectFailed("nobody");
  expectFailed("nobody");
  expectFailures("nobody");
  expectFailed("nobody");
  expectFailed("nobody");
  expectLocked("nobody", "90 seconds after 4");
  expectFailed("nobody");
  expectFailed("nobody");
  end();
}

TEST_F(FaillockHooks, RootIsNotLockedUnlessThatIsSwitchedOn) {
  begin();
  failures("root", 4, "deny = 3\n");
  expectFailed("root");
  expectFailed("root");
  expectFailures("root");
  expectFailed("root");
  expectFailed("root");
  failures("root", 2, "deny 2 # of root, too\neven_deny_root\nunlock_time = never\nroot_unlock_time = 30\n");
  expectFailed("root");
  expectFailed("root");
  expectLocked("root", "30 seconds after 2");
  end();
}

TEST_F(FaillockHooks, WhereNothingIsEverLockedNoLockIsTold) {
  begin();
  failures("nobody", 1, "deny = 0\n");
  expectFailed("nobody");
  failures("no-such-user", 1, "deny = 0\n");
  expectFailed("no-such-user");
  end();
}

TEST_F(FaillockHooks, ALockThatCouldNotBeToldIsToldByTheNextFailure) {
  const std::string kelctl = kelctl_;
  kelctl_ = program("late", "case \"$*\" in *account.locked*) [ -e '" + workspace().root() + "/tried' ] || { touch '" +
                                workspace().root() + "/tried'; exit 1; } ;; esac\nexec '" + kelctl + "' \"$@\"\n");
  begin();
  failures("nobody", 3, "deny = 1\n");
  expectFailed("nobody");
  expectFailed("nobody");
  expectLocked("nobody", "600 seconds after 1");
  expectFailed("nobody");
  end();
}

TEST_F(PamHooks, ALoginThatSucceedsIsNoFailedOneAndDoesNotNeedTheDaemon) {
  stack(R"(auth [success=2 default=ignore] pam_permit.so
auth [default=ignore] pam_exec.so quiet @HOOKS@/pam-session @KELCTL@
auth requisite pam_deny.so
auth required pam_permit.so
session required pam_exec.so quiet @HOOKS@/pam-session @KELCTL@
)");
  const Outcome absent = pamtester("nobody", "authenticate open_session");
  EXPECT_NE(absent.output.find("successfully authenticated"), std::string::npos) << absent.output << absent.error;
  EXPECT_NE(absent.output.find("successfully opened a session"), std::string::npos) << absent.output << absent.error;
  begin();
  pamtester("nobody", "authenticate");
  end();
}

/// Every hook once, with what makes it emit; "$1" is the kelctl of those that trust no environment.
constexpr const char* kEveryHook = R"sh(set -e
export PAM_SERVICE=sshd PAM_TYPE=auth PAM_USER=operator PAM_RHOST=192.0.2.7 reason=FAIL interface=br0
"$HOOKS/pam-session" "$1"
"$HOOKS/pam-faillock" "$1"
"$HOOKS/host-state" stop
echo memory | "$HOOKS/core-pattern" . 1 2 backupd
INVOCATION_ID=0 "$HOOKS/coredump-stored"
"$HOOKS/dhcp-lease"
echo 'time correction of 2000 seconds exceeds sanity limit (1000)' | "$HOOKS/time-correction" -
echo "action 'storage:a' suspended (module 'x')" | "$HOOKS/rsyslog-failure"
)sh";

TEST_F(Hooks, WithoutADaemonEachEndsWithSuccess) {
  stopping(" 62 reboot.target start waiting\n", "why");
  program("journalctl", "echo 17\n");
  shell(kEveryHook, {}, {kelctl_});
}

TEST_F(Hooks, AKelctlThatNeverEndsHoldsUpNoCaller) {
  std::filesystem::remove(bin_ + "/timeout");
  const std::string endless = program("endless", "exec tail -f /dev/null\n");
  shell(R"("$HOOKS/pam-session" "$1" & "$HOOKS/dhcp-lease" & wait)",
        {{"KELCTL", endless},
         {"PAM_SERVICE", "sshd"},
         {"PAM_TYPE", "open_session"},
         {"reason", "FAIL"},
         {"interface", "br0"}},
        {endless});
}

TEST_F(Hooks, AJournalOrALoginManagerThatNeverAnswersHoldsUpNoCaller) {
  stopping(" 62 reboot.target start waiting\n");
  std::filesystem::remove(bin_ + "/timeout");
  for (const char* name : {"journalctl", "loginctl"}) program(name, "trap '' TERM\nwhile :; do sleep 1; done\n");
  const auto started = std::chrono::steady_clock::now();
  shell(R"("$HOOKS/coredump-stored" & "$HOOKS/time-correction" & "$HOOKS/host-state" stop & wait)",
        {{"INVOCATION_ID", "0123abcd"}, {"KELCTL", "false"}});
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(10));
}

}  // namespace
}  // namespace e2e
