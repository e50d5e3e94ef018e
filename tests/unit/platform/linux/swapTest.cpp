#include "linux/swap.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
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

class SwapTest : public HostTree {
 protected:
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
  // The program needs to have come as far as to say something before its time is over.
  const auto outcome = Swap(rootsWith(swapon), std::chrono::seconds(3)).reconfigure();
  EXPECT_EQ(outcome.status, ETIMEDOUT);
  EXPECT_EQ(outcome.text, swapon + " did not end in time: waiting");
  // What it started gets the signal, too, and then has no command line any more, even unreaped.
  const std::string started = "/proc/" + std::to_string(std::stol(read("pid"))) + "/cmdline";
  while (std::ifstream(started).peek() != std::ifstream::traits_type::eof()) std::this_thread::yield();
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
  const auto outcome = runProgram(script("env > " + path("environment") + "; ls -l /proc/$$/fd > " +
                                         path("descriptors") + "; grep SigBlk /proc/$$/status > " + path("signals")),
                                  {}, kLong);
  EXPECT_EQ(::pthread_sigmask(SIG_UNBLOCK, &blocked, nullptr), 0);
  ::close(inherited);
  ::unsetenv("KELD_TEST_SECRET");
  ASSERT_TRUE(outcome.ok()) << outcome.text;
  EXPECT_THAT(read("environment"), HasSubstr("LC_ALL=C\n"));
  EXPECT_THAT(read("environment"), Not(HasSubstr("KELD_TEST_SECRET")));
  EXPECT_THAT(read("descriptors"), Not(HasSubstr(" " + std::to_string(inherited) + " -> ")));
  EXPECT_EQ(read("signals"), "SigBlk:\t0000000000000000\n");
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
