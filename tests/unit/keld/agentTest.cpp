#include "keldAgent.h"

#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "correlatorHarness.h"
#include "keldAgentStarter.h"
#include "keldLogAll.h"

namespace {

/// What the agents of a test have done, in order. Agents' entries are plain functions.
class Journal {
 public:
  void add(const std::string& entry) {
    const std::lock_guard lock(mutex_);
    entries_.push_back(entry);
  }
  std::vector<std::string> take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(entries_, {});
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> entries_;
};

Journal& journal() {
  static Journal journal;
  return journal;
}

void runUntilStopped(keld::AgentContext& context, const char* group) {
  struct Ended {
    const char* group;
    ~Ended() { journal().add(std::string("ended ") + group); }
  };
  const Ended ended{group};
  keld::runCorrelator(context, group, group,
                      [](const Kel* kel) {
                        const char* id = nullptr;
                        Kel_GetID(kel, &id);
                        journal().add(id);
                      },
                      {});
}

void first(keld::AgentContext& context) {
  runUntilStopped(context, "first");
}
void second(keld::AgentContext& context) {
  runUntilStopped(context, "second");
}
std::atomic<int> handledLate = 0;

// As a cancellation does that was begun while the agent still waited.
void cancelledInItsHandler(keld::AgentContext& context) {
  keld::runCorrelator(context, "first", "first",
                      [](const Kel* /*kel*/) {
                        constexpr int kCancellationSignal = 32;
                        syscall(SYS_tgkill, getpid(), gettid(), kCancellationSignal);
                        journal().add("handled to the end");
                        ++handledLate;
                        handledLate.notify_all();
                      },
                      {});
}
void throwsException(keld::AgentContext& /*context*/) {
  throw std::runtime_error("out of luck");
}
void throwsOther(keld::AgentContext& /*context*/) {
  throw 42;
}
void throwsWhileSubscribed(keld::AgentContext& context) {
  keld::AgentScope agent(context.streams);
  const char* groups[] = {"net"};
  if (agent.initialise("thrower", groups, {}) == 0) throw std::runtime_error("late");
}

class AgentTest : public testing::Test {
 protected:
  void SetUp() override {
    journal().take();
    ASSERT_EQ(streams.initialise(), 0);
  }

  support::Scenario scenario;
  keld::TraceServer trace{scenario.clock};
  keld::StreamList streams{trace};
  keld::AgentRegistry agents{streams, scenario.services};
};

TEST_F(AgentTest, agentsAreStoppedInReverseOrderOfStart) {
  agents.start(first);
  agents.start(second);
  EXPECT_EQ(agents.count(), 2U);
  agents.stopAll();
  EXPECT_EQ(journal().take(), (std::vector<std::string>{"ended second", "ended first"}));
  EXPECT_EQ(agents.count(), 0U);
}

TEST_F(AgentTest, anAgentIsSubscribedWhenItsStartReturns) {
  agents.start(first);
  const auto record = support::rawRecord("kel.first.early");
  ASSERT_EQ(streams.fanOut(record.data(), record.size()), 0);
  // A second record that fills the pipe is written only once the agent has read the first.
  const auto filler = support::rawRecord("kel.first.filler", {support::s(std::string(200'000, 'x'))});
  ASSERT_EQ(streams.fanOut(filler.data(), filler.size()), 0);
  EXPECT_EQ(journal().take().front(), "kel.first.early");
  agents.stopAll();
}

TEST_F(AgentTest, cleanUpIsLoggedWhenAnAgentIsCancelled) {
  agents.start(first);
  agents.stopAll();
  EXPECT_TRUE(scenario.log.has("Done cleaning up agent.\n"));
}

TEST_F(AgentTest, aCancellationThatArrivesLateWaitsForTheHandlersEnd) {
  keld::AgentRegistry others{streams, scenario.services};
  others.start(first);
  others.stopAll();  // the C library takes the signal from its first use on
  journal().take();
  const int before = handledLate;
  agents.start(cancelledInItsHandler);
  const auto record = support::rawRecord("kel.first.one");
  ASSERT_EQ(streams.fanOut(record.data(), record.size()), 0);
  handledLate.wait(before);
  agents.stopAll();
  EXPECT_TRUE(scenario.log.has("Done cleaning up agent.\n"));
  EXPECT_EQ(journal().take(), (std::vector<std::string>{"handled to the end"}));
}

TEST_F(AgentTest, theThirtyThirdAgentIsRefused) {
  for (int n = 0; n < 32; ++n) agents.start(first);
  EXPECT_EQ(agents.count(), 32U);
  agents.start(first);
  EXPECT_EQ(agents.count(), 32U);
  EXPECT_TRUE(scenario.log.has("Failed to start agent. Already reached max limit of 32 agents.\n"));
  agents.stopAll();
}

std::string entryWord(keld::AgentEntry entry) {
  char text[16];
  std::snprintf(text, sizeof text, "%#x", static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(entry)));
  return text;
}

TEST_F(AgentTest, anExceptionOutOfAnAgentEndsItsThreadWithALine) {
  agents.start(throwsException);
  agents.start(throwsOther);
  agents.stopAll();
  EXPECT_TRUE(scenario.log.has("Exception (out of luck) in agent function(" + entryWord(throwsException) + ").\n"));
  EXPECT_TRUE(scenario.log.has("Unknown exception in agent function(" + entryWord(throwsOther) + ").\n"));
}

TEST_F(AgentTest, anExceptionRemovesTheStreamToo) {
  agents.start(throwsWhileSubscribed);
  EXPECT_TRUE(scenario.log.has("Done cleaning up agent.\n"));
  // With a stream left behind and nobody reading it, this would block for ever.
  const auto filler = support::rawRecord("kel.net.filler", {support::s(std::string(200'000, 'x'))});
  EXPECT_EQ(streams.fanOut(filler.data(), filler.size()), 0);
  agents.stopAll();
}

TEST_F(AgentTest, theLoggerAgentFailsForItsElevenGroups) {
  agents.start(keld::runLogAll);
  agents.stopAll();
  EXPECT_EQ(scenario.log.take(),
            (std::vector<std::string>{"Done cleaning up agent.\n",
                                      "Failed to initialize agent LogAllLogger (error code: 1) \n"}));
}

TEST_F(AgentTest, aCorrelatorThatCannotBeInitialisedIsAbsentWhileOthersRun) {
  agents.start(keld::runLogAll);
  agents.start(first);
  const auto record = support::rawRecord("kel.first.x");
  EXPECT_EQ(streams.fanOut(record.data(), record.size()), 0);
  const auto filler = support::rawRecord("kel.first.filler", {support::s(std::string(200'000, 'x'))});
  EXPECT_EQ(streams.fanOut(filler.data(), filler.size()), 0);
  EXPECT_EQ(journal().take().front(), "kel.first.x");
  agents.stopAll();
}

TEST_F(AgentTest, theTestAgentsStartWithTheTestFlagOnly) {
  EXPECT_EQ(keld::startAgents(agents, false), 0);
  const std::uint32_t ordinary = agents.count();
  agents.stopAll();
  keld::AgentRegistry withTests{streams, scenario.services};
  EXPECT_EQ(keld::startAgents(withTests, true), 0);
  EXPECT_EQ(withTests.count(), ordinary + 2);
  withTests.stopAll();
}

}  // namespace
