// A thousand events in a period of sixty seconds, and no more.
#include "endToEnd.h"
#include "fakeTime.h"

namespace e2e {
namespace {

class RateLimit : public EndToEnd {};

TEST_F(RateLimit, AThousandEventsPassThenNoneUntilSixtySecondsAfterTheFirst) {
  if (const std::string why = FakeTime::missing(); !why.empty()) GTEST_SKIP() << why;
  constexpr std::size_t kLimit = 1000;
  const std::string dropped = "Event rate limit reached. Dropping vprob: orn.audit.net.firewall.disabled";
  EventReceiver agent(workspace().eventSocket());
  Daemon daemon(workspace());
  const FakeTime time(workspace(), daemon, "2026-01-01 00:00:00");
  daemon.startAndServe();
  const Emitter emitter = Emitter::toContext(workspace());

  Batch hundred;
  for (int n = 0; n < 100; ++n) hundred = joined(hundred, record("kel.net.firewall.disabled"));
  for (int n = 0; n < 10; ++n) emitter.send(hundred);
  agent.waitForCount(kLimit);
  EXPECT_EQ(log().count(dropped), 0U);

  emitter.send("kel.net.firewall.disabled");
  log().waitFor(dropped);
  time.set("2026-01-01 00:00:59");
  emitter.send("kel.net.firewall.disabled");
  log().waitFor(dropped, 2);

  time.set("2026-01-01 00:01:00");
  emitter.send("kel.net.firewall.enabled", {support::s("qk0")});
  EXPECT_EQ(agent.waitForCount(kLimit + 1).back().name, "orn.audit.net.firewall.enabled");
  EXPECT_EQ(log().count(dropped), 2U);
  EXPECT_TRUE(daemon.terminate().with(0));
  EXPECT_EQ(agent.count(), kLimit + 1);
}

}  // namespace
}  // namespace e2e
