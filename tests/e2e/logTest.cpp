// Lines in the system log.
#include <ctime>
#include <regex>

#include "endToEnd.h"

namespace e2e {
namespace {

using std::chrono::milliseconds;
using std::chrono::system_clock;

class Log : public EndToEnd {};

system_clock::time_point readAsUtc(const std::string& stamp) {
  std::tm fields{};
  if (::strptime(stamp.c_str(), "%Y-%m-%dT%H:%M:%S", &fields) == nullptr) throw HarnessError("no stamp: " + stamp);
  return system_clock::from_time_t(::timegm(&fields)) + milliseconds(std::stoi(stamp.substr(20, 3)));
}

TEST_F(Log, ALineCarriesTheLocalTimeToTheMillisecond) {
  // Five hours and three quarters east of Greenwich, without a data base of zones.
  constexpr std::chrono::minutes kEast{345};
  Daemon daemon(workspace());
  daemon.setEnvironment("TZ", "KLD-05:45");
  const auto before = std::chrono::floor<milliseconds>(system_clock::now());
  daemon.startAndServe();
  ASSERT_TRUE(daemon.terminate().with(0));
  const LogLine line = log().waitFor("Exiting. rc:0");
  const auto after = system_clock::now();
  EXPECT_TRUE(std::regex_match(line.stamp, std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z)"))) << line.raw;
  EXPECT_GE(readAsUtc(line.stamp) - kEast, before);
  EXPECT_LE(readAsUtc(line.stamp) - kEast, after);
}

TEST_F(Log, LinesAreOfInformationalPriorityAndEachIsOneDatagram) {
  const EventReceiver agent(workspace().eventSocket());
  Daemon daemon(workspace());
  daemon.startAndServe();
  Emitter::toContext(workspace()).send("kel.net.firewall.disabled");
  daemon.trace().waitFor("OUT", "orn.audit.net.firewall.disabled");
  ASSERT_TRUE(daemon.terminate().with(0));
  log().waitFor("Exiting. rc:0");
  for (const LogLine& line : log().lines()) {
    constexpr int kSeverity = 7, kInformational = 6;
    EXPECT_EQ(line.priority & kSeverity, kInformational) << line.raw;
    if (line.stamp.empty()) continue;
    EXPECT_TRUE(line.lineFeed) << line.raw;
    EXPECT_EQ(line.text.find('\n'), std::string::npos) << line.raw;
  }
}

TEST_F(Log, AnObservationWithAnEntryIsLoggedOnceBeforeItsHandlerRuns) {
  const EventReceiver agent(workspace().eventSocket());
  Daemon daemon(workspace());
  daemon.startAndServe();
  Emitter::toContext(workspace())
      .send(record("kel.net.firewall.enabled", {support::s("qk0")}, "Firewall is on for %s.", 1'767'225'600'000'001));
  const TraceLine out = daemon.trace().waitFor("OUT", "orn.audit.net.firewall.enabled");
  ASSERT_TRUE(daemon.terminate().with(0));
  log().waitFor("Exiting. rc:0");
  std::vector<std::string> lines;
  for (const std::string& text : log().texts()) {
    if (text.find("us: [") != std::string::npos) lines.push_back(text);
  }
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "[netCorrelator] 1767225600000001us: [kel.net.firewall.enabled] Firewall is on for qk0.",
                       "[netCorrelator] " + out.stamp +
                           "us: [orn.audit.net.firewall.enabled] Firewall has been enabled for port qk0"}));
}

TEST_F(Log, AnUnknownObservationOfAGroupIsTracedButNotLoggedHoweverOften) {
  const EventReceiver agent(workspace().eventSocket());
  Daemon daemon(workspace());
  daemon.startAndServe();
  const Emitter emitter = Emitter::toContext(workspace());
  emitter.send("kel.net.unknown");
  emitter.send("kel.net.unknown");
  emitter.send("kel.net.firewall.disabled");
  const auto before = daemon.trace().readThrough("OUT", "orn.audit.net.firewall.disabled");
  EXPECT_EQ(
      std::count_if(before.begin(), before.end(), [](const TraceLine& line) { return line.id == "kel.net.unknown"; }),
      2);
  log().waitFor(observationLine("netCorrelator", kStampUs, "kel.net.firewall.disabled", "kel.net.firewall.disabled"));
  EXPECT_EQ(log().count([](const LogLine& line) { return line.text.find("[kel.net.unknown]") != std::string::npos; }),
            0U);
}

TEST_F(Log, TwoIdenticalObservationsAreHandledAlike) {
  const EventReceiver agent(workspace().eventSocket());
  Daemon daemon(workspace());
  daemon.startAndServe();
  const Emitter emitter = Emitter::toContext(workspace());
  emitter.send("kel.net.firewall.disabled");
  emitter.send("kel.net.firewall.disabled");
  daemon.trace().waitFor("OUT", "orn.audit.net.firewall.disabled");
  daemon.trace().waitFor("OUT", "orn.audit.net.firewall.disabled");
  const std::string line =
      observationLine("netCorrelator", kStampUs, "kel.net.firewall.disabled", "kel.net.firewall.disabled");
  log().waitFor(line, 2);
  EXPECT_EQ(log().count(line), 2U);
}

TEST_F(Log, AnObservationThatLacksItsArgumentsIsLoggedAndDropped) {
  EventReceiver agent(workspace().eventSocket());
  Daemon daemon(workspace());
  daemon.startAndServe();
  const Emitter emitter = Emitter::toContext(workspace());
  emitter.send(record("kel.net.firewall.enabled", {}, "lacks its port"));
  emitter.send("kel.net.firewall.disabled");
  EXPECT_EQ(agent.waitForCount(1)[0].name, "orn.audit.net.firewall.disabled");
  log().waitFor(observationLine("netCorrelator", kStampUs, "kel.net.firewall.enabled", "lacks its port"));
}

TEST_F(Log, IdentifiersThatOnlyResembleAGroupReachNoCorrelator) {
  EventReceiver agent(workspace().eventSocket());
  Daemon daemon(workspace());
  daemon.startAndServe();
  const Emitter emitter = Emitter::toContext(workspace());
  for (const char* id : {"kel.netx.firewall.disabled", "kel.net", "kel.ne.firewall.disabled", "net.firewall.disabled",
                         "kel.net-firewall.disabled", "KEL.NET.firewall.disabled"}) {
    emitter.send(id);
    EXPECT_EQ(daemon.trace().waitFor("IN", id).rest, ",");
  }
  emitter.send("kel.net.firewall.disabled");
  const EventRecord record = agent.waitForCount(1)[0];
  EXPECT_EQ(record.name, "orn.audit.net.firewall.disabled");
  log().waitFor(observationLine("netCorrelator", record.timestampUs, record.name, "Firewall has been disabled."));
  EXPECT_EQ(log().count([](const LogLine& line) { return line.text.find("us: [") != std::string::npos; }), 2U);
}

TEST_F(Log, ATemplateThatAsksForMoreThanItHasStaysHarmless) {
  const EventReceiver agent(workspace().eventSocket());
  Daemon daemon(workspace());
  daemon.startAndServe();
  const Emitter emitter = Emitter::toContext(workspace());
  emitter.send(record("kel.net.firewall.disabled", {}, "%s%n%d %"));
  log().waitFor("the observation's line", [](const LogLine& line) {
    return line.text.find("us: [kel.net.firewall.disabled] ") != std::string::npos;
  });
  settle(daemon, emitter);
}

}  // namespace
}  // namespace e2e
