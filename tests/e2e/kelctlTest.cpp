// The operator's tool against a daemon that runs.
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>

#include "endToEnd.h"

namespace e2e {
namespace {

class Kelctl : public EndToEnd {
 protected:
  Outcome kelctl(const std::vector<std::string>& arguments) { return run(workspace(), KELCTL_PROGRAM, arguments); }
  void emit(std::vector<std::string> words) {
    words.insert(words.begin(), "emit");
    const Outcome outcome = kelctl(words);
    EXPECT_TRUE(outcome.ending.with(0)) << outcome.error;
  }
};

TEST_F(Kelctl, WhatItEmitsReachesTheDaemonArgumentByArgument) {
  Daemon daemon(workspace());
  daemon.startAndServe();
  emit({"kel.unheard.typed", "s:a b", "n:", "i:-1", "u:4294967295", "l:-9", "L:0x10", "d:0.5", "s:", "--time", "17"});
  const TraceLine line = daemon.trace().next();
  EXPECT_EQ(line.raw.substr(line.time.size()), R"-(,IN,17,kel.unheard.typed,,"a b","(null)",-1,-1,-9,16,???,"")-");
  emit({"kel.user.typed", "i:1"});
  EXPECT_EQ(daemon.trace().next().rest, ",,1");
}

TEST_F(Kelctl, ItStandsInForTheManagementAgent) {
  Program events(workspace(), KELCTL_PROGRAM, {"events", "--json", "--count", "2", "--timeout", "30"});
  events.start();
  // The socket takes its place once it is listened at.
  ASSERT_TRUE(eventually([&] { return std::filesystem::exists(workspace().eventSocket()); }));
  Daemon daemon(workspace());
  daemon.startAndServe();
  emit({"kel.net.lacp.lag.transition.down", "s:lag1", "s:msw1"});
  emit({"kel.net.fence.port.fail", "s:port-1", "s:dvs", "i:0xbad0007", "i:501"});
  EXPECT_TRUE(events.waitForEnd().with(0)) << events.standardError();

  std::istringstream lines(events.standardOutput());
  std::vector<nlohmann::json> shown;
  for (std::string line; std::getline(lines, line);) shown.push_back(nlohmann::json::parse(line));
  ASSERT_EQ(shown.size(), 2U);
  EXPECT_EQ(shown[0]["kind"], "problem");
  EXPECT_EQ(shown[0]["event"], "orn.problem.net.lacp.lag.transition.down");
  EXPECT_EQ(shown[0]["text"], "LAG lag1 on MSW msw1 is down.");
  EXPECT_EQ(shown[0]["args"], nlohmann::json::parse(R"(["lag1", "msw1"])"));
  EXPECT_EQ(shown[1]["event"], "orn.problem.net.fence.port.badfenceid");
  EXPECT_EQ(shown[1]["text"],
            "Qkernel fails to set fenceId 501 on distributed virtual port port-1 on switch dvs, "
            "reason: invalid fenceId");
  EXPECT_EQ(shown[1]["args"], nlohmann::json::parse(R"([501, "port-1", "dvs"])"));
}

TEST_F(Kelctl, AnAgentThatWaitsInVainEndsWithOne) {
  const Outcome outcome = kelctl({"events", "--count", "1", "--timeout", "1"});
  EXPECT_TRUE(outcome.ending.with(1)) << outcome.ending.text();
}

TEST_F(Kelctl, ItShowsTheHistoryOfTheTrace) {
  Daemon daemon(workspace());
  daemon.startAndServe();
  emit({"kel.unheard.shown", "s:x"});
  daemon.trace().waitFor("IN", "kel.unheard.shown");
  const Outcome outcome = kelctl({"trace", "--history"});
  EXPECT_TRUE(outcome.ending.with(0)) << outcome.error;
  EXPECT_NE(outcome.output.find("kel.unheard.shown"), std::string::npos) << outcome.output;
}

TEST_F(Kelctl, WithoutADaemonItFailsWithOneAndSaysSo) {
  const Outcome outcome = kelctl({"emit", "kel.unheard.lost"});
  EXPECT_TRUE(outcome.ending.with(1)) << outcome.ending.text();
  EXPECT_NE(outcome.error, "");
}

}  // namespace
}  // namespace e2e
