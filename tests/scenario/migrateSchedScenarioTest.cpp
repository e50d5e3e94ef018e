#include <gtest/gtest.h>

#include <string>

#include "scenarioTools.h"

namespace {

using scenario::Events;
using scenario::Lines;
using support::i;
using support::null;
using support::problem;
using support::s;

class MigrateScenario : public testing::Test {
 protected:
  support::Scenario scenario;
  support::Driver driver{scenario, keld::kMigrateCorrelator};
};

TEST_F(MigrateScenario, rowsGiveTheirEvents) {
  scenario::expectRows(
      scenario, driver,
      {{"kel.migrate.skyhop.default.heap.create.failed",
        {},
        problem("orn.problem.migrate.skyhop.default.heap.create.failed",
                "Failed to create default migration heap. This may be a result of severe host memory pressure, or "
                "virtual address space exhaustion. Migration may still be possible, but will be unreliable in cases of "
                "extreme host memory pressure.")},
       {"kel.migrate.skyhop.server.pending.cnx.listen.socket.shutdown",
        {s("Broken pipe")},
        problem("orn.problem.migrate.skyhop.server.pending.cnx.listen.socket.shutdown",
                "The ORNi host's Skyhop network server encountered an error while monitoring incoming network "
                "connections. Shutting down listener socket. Skyhops may no longer be possible with this host until "
                "Skyhop is manually re-enabled. Failure status: Broken pipe")},
       {"kel.migrate.skyhop.server.pending.cnx.listen.socket.shutdown",
        {null()},
        problem("orn.problem.migrate.skyhop.server.pending.cnx.listen.socket.shutdown",
                "The ORNi host's Skyhop network server encountered an error while monitoring incoming network "
                "connections. Shutting down listener socket. Skyhops may no longer be possible with this host until "
                "Skyhop is manually re-enabled. Failure status: unknown")}});
}

TEST_F(MigrateScenario, aStatusThatCannotBeReadPostsAndLogsNothing) {
  scenario::expectUnreadable(scenario, driver,
                             {{"kel.migrate.skyhop.server.pending.cnx.listen.socket.shutdown", {}, {}},
                              {"kel.migrate.skyhop.server.pending.cnx.listen.socket.shutdown", {i(5)}, {}}});
}

TEST_F(MigrateScenario, anUnknownObservationIsIgnoredSilently) {
  driver.observe("kel.migrate.unheard.of");
  EXPECT_EQ(driver.events(), Events{});
  EXPECT_EQ(scenario.log.take(), Lines{});
}

class SchedScenario : public testing::Test {
 protected:
  support::Scenario scenario;
  support::Driver driver{scenario, keld::kSchedCorrelator};
};

TEST_F(SchedScenario, rowsGiveTheirEvents) {
  scenario::expectRows(
      scenario, driver,
      {{"kel.sched.latency.abort",
        {s("web01")},
        problem("orn.problem.sched.latency.abort",
                "Unable to apply latency-sensitivity setting to virtual machine web01. No valid placement on the "
                "host.")},
       {"kel.sched.qos.cmt.notsupported",
        {s("web01")},
        problem("orn.problem.sched.qos.cmt.notsupported",
                "Unable to support L3 cache monitoring for virtual machine web01. No processor capabilities.")},
       {"kel.sched.qos.cmt.noresource",
        {s("web01")},
        problem("orn.problem.sched.qos.cmt.noresource",
                "Unable to support L3 cache monitoring for virtual machine web01. Out of resources.")},
       {"kel.sched.qos.cat.notsupported",
        {s("web01")},
        problem("orn.problem.sched.qos.cat.notsupported",
                "Unable to support L3 cache allocation for virtual machine web01. No processor capabilities.")},
       {"kel.sched.qos.cat.noresource",
        {s("web01")},
        problem("orn.problem.sched.qos.cat.noresource",
                "Unable to support L3 cache allocation for virtual machine web01. Out of resources.")}});
}

TEST_F(SchedScenario, aNameThatCannotBeReadIsLogged) {
  for (const char* id : {"kel.sched.latency.abort", "kel.sched.qos.cmt.notsupported", "kel.sched.qos.cmt.noresource",
                         "kel.sched.qos.cat.notsupported", "kel.sched.qos.cat.noresource"}) {
    scenario::expectUnreadable(scenario, driver,
                               {{id, {}, {"Failed to arg: 75\n"}}, {id, {i(1)}, {"Failed to arg: 22\n"}}});
  }
}

TEST_F(SchedScenario, anUnknownObservationIsIgnoredSilently) {
  driver.observe("kel.sched.unheard.of", {s("web01")});
  EXPECT_EQ(driver.events(), Events{});
  EXPECT_EQ(scenario.log.take(), Lines{});
}

}  // namespace
