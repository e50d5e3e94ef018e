#include "linux/swap.h"

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <fstream>
#include <thread>

#include "hostTree.h"
#include "linux/childProcess.h"

namespace linktest {
namespace {

using platform::runProgram;
using platform::Swap;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

/// Longer than any run of these scripts on a loaded machine.
constexpr std::chrono::seconds kLong{30};

/// From here on this thread and what it starts have no pidfds.
bool denyPidfds() {
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_pidfd_open, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EMFILE),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog filter{sizeof program / sizeof program[0], program};
  return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0 &&
         ::syscall(SYS_pidfd_open, ::getpid(), 0) == -1;
}

class SwapTest : public HostTree {
 protected:
  void SetUp() override {
    if (!runsScripts()) GTEST_SKIP() << "scripts cannot be run from " << path("") << " (mounted noexec?)";
  }

  /// A program in place of swapon.
  std::string script(const std::string& lines) const {
    write("swapon", "#!/bin/sh\n" + lines + "\n");
    EXPECT_EQ(::chmod(path("swapon").c_str(), 0700), 0);
    return path("swapon");
  }
  [[nodiscard]] platform::LinuxRoots rootsWith(const std::string& swapon) const {
    platform::LinuxRoots all = roots();
    all.swapon = swapon;
    return all;
  }
};

TEST_F(SwapTest, AllSwapIsTakenIntoUseAfterTheRecord) {
  const std::string swapon = script("echo \"$@\" > " + path("arguments"));
  EXPECT_TRUE(Swap(rootsWith(swapon)).reconfigure().ok());
  EXPECT_EQ(read("arguments"), "-a\n");
  EXPECT_THAT(audit(), ElementsAre(AuditRecord{"swap.reconfigure", "system swap is placed anew: " + swapon + " -a"}));
}

TEST_F(SwapTest, WhatCannotBeRecordedIsNotDone) {
  const std::string swapon = script("touch " + path("ran"));
  breakAudit();
  EXPECT_EQ(Swap(rootsWith(swapon)).reconfigure().status, ENOTDIR);
  EXPECT_NE(::access(path("ran").c_str(), F_OK), 0);
}

TEST_F(SwapTest, AFailureHasTheProgramsFirstComplaint) {
  const std::string swapon = script("echo 'swapon: /swap: read swap header failed' >&2; echo more >&2; exit 255");
  const auto outcome = Swap(rootsWith(swapon)).reconfigure();
  EXPECT_EQ(outcome.status, EIO);
  EXPECT_EQ(outcome.text, swapon + " failed with exit status 255: swapon: /swap: read swap header failed");
}

TEST_F(SwapTest, AProgramThatDoesNotEndIsKilledAtTheDeadline) {
  const std::string swapon = script("sleep 600 & echo $! > " + path("pid") + "; echo waiting >&2; wait");
  // The program needs to have come as far as to say something before its time is over: a loaded machine
  // may take several tries.
  platform::Outcome outcome;
  for (int seconds = 1; seconds <= 32; seconds *= 2) {
    outcome = Swap(rootsWith(swapon), std::chrono::seconds(seconds)).reconfigure();
    if (outcome.text.ends_with("waiting")) break;
  }
  EXPECT_EQ(outcome.status, ETIMEDOUT);
  EXPECT_EQ(outcome.text, swapon + " did not end in time: waiting");
  // What it started gets the signal, too, and then has no command line any more, even unreaped.
  const std::string started = "/proc/" + std::to_string(std::stol(read("pid"))) + "/cmdline";
  const bool gone = soon([&] { return std::ifstream(started).peek() == std::ifstream::traits_type::eof(); });
  EXPECT_TRUE(gone) << started << " is still there";
}

TEST_F(SwapTest, WithoutPidfdsAProgramIsStillWaitedForAndKilledAtTheDeadline) {
  const std::string swapon = script("[ $1 = wait ] && exec sleep 600; echo no swap >&2; exit 7");
  bool denied = false;
  platform::Outcome failed;
  platform::Outcome late;
  std::thread([&] {
    denied = denyPidfds();
    if (!denied) return;
    failed = runProgram(swapon, {"fail"}, kLong);
    late = runProgram(swapon, {"wait"}, std::chrono::milliseconds(100));
  }).join();
  if (!denied) GTEST_SKIP() << "no system call can be denied here";
  EXPECT_EQ(failed.text, swapon + " failed with exit status 7: no swap");
  EXPECT_EQ(late.status, ETIMEDOUT);
  EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
}

TEST_F(SwapTest, ARecordedMachineDoesNotRunTheRealProgram) {
  const Swap swap(roots());
  EXPECT_EQ(swap.reconfigure().status, ENOTSUP);
  EXPECT_EQ(swap.planReconfigure().outcome.status, ENOTSUP);
  EXPECT_THAT(audit(), IsEmpty());
}

TEST_F(SwapTest, APlanNamesTheProgram) {
  EXPECT_EQ(Swap(rootsWith("/sbin/swapon")).planReconfigure().value, "run /sbin/swapon -a");
  EXPECT_THAT(audit(), IsEmpty());
}

TEST_F(SwapTest, AProgramThatIsNotThereCannotBeRun) {
  const auto outcome = Swap(rootsWith(path("nope"))).reconfigure();
  EXPECT_EQ(outcome.status, ENOENT);
  EXPECT_EQ(outcome.text, path("nope") + " cannot be run: No such file or directory");
}

TEST_F(SwapTest, AProgramEndedByASignalFailed) {
  const auto outcome = runProgram(script("kill -TERM $$"), {}, kLong);
  EXPECT_EQ(outcome.status, EIO);
  EXPECT_THAT(outcome.text, HasSubstr("was ended by signal 15"));
}

TEST_F(SwapTest, ManyComplaintsStopNobodyAndAreCut) {
  const auto outcome =
      runProgram(script("i=0; while [ $i -lt 3000 ]; do echo \"0123456789012345678901234567890123456789\" >&2; "
                        "i=$((i+1)); done; exit 1"),
                 {}, kLong);
  EXPECT_EQ(outcome.text, path("swapon") + " failed with exit status 1: 0123456789012345678901234567890123456789");
  const auto oneLine = runProgram(script("printf '%05000d\\n' 7 >&2; exit 1"), {}, kLong);
  EXPECT_LT(oneLine.text.size(), 400U);
}

TEST_F(SwapTest, AGrandchildThatKeepsStandardErrorHoldsNobodyUp) {
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_TRUE(runProgram(script("sleep 600 & echo $! > " + path("pid")), {}, kLong).ok());
  EXPECT_LT(std::chrono::steady_clock::now() - begin, kLong);
  ASSERT_EQ(::kill(static_cast<pid_t>(std::stol(read("pid"))), SIGKILL), 0);
}

TEST_F(SwapTest, AProgramHasNothingOfThisProcess) {
  ::setenv("KELD_TEST_SECRET", "x", 1);
  constexpr int kOutOfTheShellsWay = 100;
  // Not CLOEXEC, as a careless library's would be.
  const int inherited = ::fcntl(STDERR_FILENO, F_DUPFD, kOutOfTheShellsWay);
  ASSERT_GE(inherited, 0);
  sigset_t blocked;
  ::sigemptyset(&blocked);
  ::sigaddset(&blocked, SIGTERM);
  ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, &blocked, nullptr), 0);
  const auto before = ::signal(SIGPIPE, SIG_IGN);
  const auto outcome =
      runProgram(script("env > " + path("environment") + "; ls -l /proc/$$/fd > " + path("descriptors") +
                        "; grep -E 'SigBlk|SigIgn' /proc/self/status > " + path("signals")),
                 {}, kLong);
  ::signal(SIGPIPE, before);
  EXPECT_EQ(::pthread_sigmask(SIG_UNBLOCK, &blocked, nullptr), 0);
  ::close(inherited);
  ::unsetenv("KELD_TEST_SECRET");
  ASSERT_TRUE(outcome.ok()) << outcome.text;
  EXPECT_THAT(read("environment"), HasSubstr("LC_ALL=C\n"));
  EXPECT_THAT(read("environment"), Not(HasSubstr("KELD_TEST_SECRET")));
  EXPECT_THAT(read("descriptors"), Not(HasSubstr(" " + std::to_string(inherited) + " -> ")));
  // 32 and 33 are the C library's own, which posix_spawn leaves ignored.
  EXPECT_THAT(read("signals"), testing::AnyOf("SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n",
                                              "SigBlk:\t0000000000000000\nSigIgn:\t0000000180000000\n"));
}

TEST_F(SwapTest, ManyThreadsRunProgramsAtOnce) {
  const std::string one = script("[ \"$1\" = fail ] && exit 3; exit 0");
  std::vector<std::thread> threads;
  std::vector<platform::Outcome> outcomes(8);
  for (std::size_t i = 0; i < outcomes.size(); ++i) {
    threads.emplace_back([&, i] { outcomes[i] = runProgram(one, {i % 2 == 0 ? "fail" : "pass"}, kLong); });
  }
  for (std::thread& thread : threads) thread.join();
  for (std::size_t i = 0; i < outcomes.size(); ++i) EXPECT_EQ(outcomes[i].ok(), i % 2 != 0) << outcomes[i].text;
}

}  // namespace
}  // namespace linktest
