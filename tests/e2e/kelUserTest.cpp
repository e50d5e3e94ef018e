// A host service that uses the library, and a daemon that comes and goes.
#include <cerrno>
#include <csignal>
#include <cstdlib>

#include "endToEnd.h"
#include "kel-user.h"

namespace e2e {
namespace {

constexpr int kLimitMilliseconds = 10000;
constexpr int kShortMilliseconds = 50;

class KelUser : public EndToEnd {
 protected:
  struct Close {
    void operator()(kel_user* handle) const { kel_user_close(handle); }
  };
  using Handle = std::unique_ptr<kel_user, Close>;

  void SetUp() override {
    EndToEnd::SetUp();
    if (IsSkipped()) return;
    ::setenv("KORVEL_RUN_DIR", workspace().runDirectory().c_str(), 1);
    startDaemon();
  }
  void TearDown() override {
    ::unsetenv("KORVEL_RUN_DIR");
    daemon_.reset();
    EndToEnd::TearDown();
  }
  void startDaemon() {
    daemon_ = std::make_unique<Daemon>(workspace());
    daemon_->startAndServe();
  }
  Daemon& daemon() { return *daemon_; }
  /// An end that the daemon has no part in.
  void killDaemon() {
    daemon_->signal(SIGKILL);
    daemon_->waitForEnd();
  }

  static Handle open(int limitMilliseconds = kLimitMilliseconds) {
    kel_user* made = nullptr;
    EXPECT_EQ(kel_user_open(limitMilliseconds, &made), 0);
    return Handle(made);
  }
  static int emit(const Handle& handle, const std::string& id) {
    return kel_user_emit(handle.get(), id.c_str(), nullptr, nullptr, 0);
  }
  static kel_user_counters counts(const Handle& handle) {
    kel_user_counters counters{};
    EXPECT_EQ(kel_user_counts(handle.get(), &counters), 0);
    return counters;
  }

 private:
  std::unique_ptr<Daemon> daemon_;
};

TEST_F(KelUser, WhatIsEmittedArrivesArgumentByArgument) {
  const Handle handle = open();
  const kel_user_arg args[] = {kel_user_string("a b"), kel_user_string(nullptr), kel_user_int32(-1),
                               kel_user_uint32(7),     kel_user_int64(-9),       kel_user_uint64(16)};
  const std::uint64_t stampUs = 17;
  const kel_user_observation one{"kel.user.typed", nullptr, args, std::size(args), &stampUs};
  ASSERT_EQ(kel_user_emit_batch(handle.get(), &one, 1, -1), 0);
  const TraceLine line = daemon().trace().next();
  EXPECT_EQ(line.raw.substr(line.time.size()), R"-(,IN,17,kel.user.typed,,"a b","(null)",-1,7,-9,16)-");
}

TEST_F(KelUser, WhileTheDaemonIsAwayObservationsAreDroppedAndCountedAndThenArriveAgain) {
  const Handle handle = open();
  ASSERT_EQ(emit(handle, "kel.user.before"), 0);
  daemon().trace().waitFor("IN", "kel.user.before");
  killDaemon();
  EXPECT_EQ(emit(handle, "kel.user.meanwhile"), ECONNREFUSED);
  EXPECT_EQ(counts(handle).dropped, 1U);
  startDaemon();
  EXPECT_TRUE(eventually([&] { return emit(handle, "kel.user.after") == 0; }));
  daemon().trace().waitFor("IN", "kel.user.after");
  EXPECT_EQ(counts(handle).sent, 2U);
  EXPECT_EQ(counts(handle).lost, 0U);
  EXPECT_EQ(counts(handle).reconnects, 1U);
}

TEST_F(KelUser, AnotherDaemonIsFoundAtOnceByWhoMissedTheChange) {
  const Handle handle = open();
  ASSERT_EQ(emit(handle, "kel.user.before"), 0);
  daemon().trace().waitFor("IN", "kel.user.before");
  killDaemon();
  startDaemon();
  EXPECT_EQ(emit(handle, "kel.user.after"), 0);
  daemon().trace().waitFor("IN", "kel.user.after");
  EXPECT_EQ(counts(handle).dropped, 0U);
}

TEST_F(KelUser, ANinthClientIsToldAndServedWhenAPlaceIsFree) {
  std::vector<Handle> eight(8);
  for (Handle& handle : eight) {
    handle = open();
    ASSERT_EQ(emit(handle, "kel.user.served"), 0);
  }
  const Handle ninth = open();
  EXPECT_EQ(emit(ninth, "kel.user.turned.away"), EUSERS);
  EXPECT_EQ(counts(ninth).dropped, 1U);
  eight.pop_back();
  EXPECT_TRUE(eventually([&] { return emit(ninth, "kel.user.ninth") == 0; }));
  daemon().trace().waitFor("IN", "kel.user.ninth");
  EXPECT_EQ(counts(ninth).lost, 0U);
  for (const Handle& handle : eight) EXPECT_EQ(emit(handle, "kel.user.served"), 0);
}

TEST_F(KelUser, WhatADaemonThatStandsStillHasTakenItReadsLater) {
  const Handle handle = open(kShortMilliseconds);
  daemon().signal(SIGSTOP);
  std::uint64_t sent = 0;
  int status = 0;
  while ((status = emit(handle, "kel.user.n" + std::to_string(sent))) == 0) ++sent;
  EXPECT_EQ(status, ETIMEDOUT);
  EXPECT_EQ(counts(handle).sent, sent);
  EXPECT_EQ(counts(handle).dropped, 1U);
  daemon().signal(SIGCONT);
  for (std::uint64_t n = 0; n < sent; ++n) {
    EXPECT_EQ(daemon().trace().next().id, "kel.user.n" + std::to_string(n));
  }
}

/// Whether the process handles SIGINT by now.
bool handlesInterrupts(const Program& program) {
  const std::string status = fileContent("/proc/" + std::to_string(program.pid()) + "/status");
  const std::string label = "\nSigCgt:";
  const std::size_t at = status.find(label);
  if (at == std::string::npos) return false;
  constexpr int kHexadecimal = 16;
  return ((std::stoull(status.substr(at + label.size()), nullptr, kHexadecimal) >> (SIGINT - 1)) & 1U) != 0;
}

class KelctlAtAFullQueue : public KelUser, public testing::WithParamInterface<const char*> {};

TEST_P(KelctlAtAFullQueue, EndsWithTheFirstInterrupt) {
  daemon().signal(SIGSTOP);
  Program kelctl(workspace(), KELCTL_PROGRAM, {"emit", GetParam(), "--repeat", "1000000"});
  kelctl.start();
  EXPECT_TRUE(eventually([&] { return handlesInterrupts(kelctl); }));
  EXPECT_TRUE(kelctl.comesToRest());
  kelctl.signal(SIGINT);
  EXPECT_TRUE(kelctl.waitForEnd().with(1));
  EXPECT_TRUE(kelctl.standardError().starts_with("kelctl: stopped by a signal after ")) << kelctl.standardError();
  daemon().signal(SIGCONT);
}

INSTANTIATE_TEST_SUITE_P(Contexts, KelctlAtAFullQueue, testing::Values("kel.user.x", "kel.unheard.x"),
                         [](const auto& context) { return context.index == 0 ? "User" : "Kernel"; });

}  // namespace
}  // namespace e2e
