// A daemon that is recorded while hours pass, and the replay of what was recorded: both come to the same.
#include <gmock/gmock.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <sstream>

#include "endToEnd.h"
#include "fakeTime.h"
#include "rowTable.h"

namespace e2e {
namespace {

using nlohmann::json;
using support::i, support::L, support::s;
using testing::SizeIs;

constexpr int kHour = 3600;
/// Where the stories begin: behind the hold-offs of the translations.
constexpr int kBegin = 2 * kHour;

constexpr std::uint64_t kAddressValid = std::uint64_t{1} << 58;
constexpr std::uint64_t kLevelOneCache = 0x0101;

const std::string kLinkDown = "orn.problem.net.qnic.linkstate.down";
const std::string kSynchronised = "orn.problem.clock.correction.adjtime.sync";
const std::string kCrash = "orn.problem.application.core.dumped";
const std::string kRootFailure = "orn.problem.memfs.failure";
const std::string kFull = "orn.problem.vfat.filesystem.full.other";
const std::string kLease = "orn.problem.dhclient.lease.offered.noexpiry";
const std::string kLogDirectory = "orn.problem.lsyslogd.storage.logdir.invalid";
const std::string kErrorFixed = "orn.problem.kel.dstor.dom.errorfixed";
const std::string kChanges = "orn.problem.storage.connectivity.pathstatechanges";

/// A host for all stories, whose devices have this redundancy.
std::string host(int redundancyState) {
  const std::string device =
      R"({"redundancyState": )" + std::to_string(redundancyState) +
      R"(, "disk": true, "partitions": [{"number": 1, "volume": "datastore1"}, {"number": 2, "volume": "datastore1"}]})";
  return R"({"options": {"PageRetire/ThresholdInterval": 10, "PageRetire/ApeiLoggingEnabled": 1,)"
         R"( "Net/LinkFlappingThreshold": 3, "Cpu/CPUOfflineThreshold": 3},)"
         R"( "pageRetire": {"threshold": 100, "status": {"0x1234": 0}},)"
         R"( "cpu": {"vendor": "GenuineIntel", "cores": 4, "pcpus": 8, "offlineEnabled": true},)"
         R"( "portGroups": {"Production": "vSwitch0", "Backup": "vSwitch0"},)"
         R"( "vms": [{"worldId": 4711, "groupId": 12, "name": "web01"}],)"
         R"( "storage": {"paths": {"path-a": "naa.600", "path-b": "naa.600", "path-c": "naa.bare"},)"
         R"( "devices": {"naa.600": )" +
         device + R"(, "naa.bare": )" + device + "}}}";
}

/// How often each event was posted.
using Events = std::map<std::string, int>;

/// A daemon and a capture of it on a clock of their own, which the test sets. The time since the machine's
/// start is the machine's, so that setting the clock is what it is on a host: time does not pass by it. The
/// kernel's clock is not set, so no timer of its tells the capture; it sees the step with the next line.
class LiveAndReplay : public EndToEnd {
 protected:
  void SetUp() override {
    if (const std::string why = FakeTime::missing(); !why.empty()) GTEST_SKIP() << why;
    EndToEnd::SetUp();
  }

  void begin(const std::string& model) {
    workspace().setModel(model);
    agent_ = std::make_unique<EventReceiver>(workspace().eventSocket());
    daemon_ = std::make_unique<Daemon>(workspace());
    capture_ = std::make_unique<Program>(workspace(), KELCTL_PROGRAM,
                                         std::vector<std::string>{"capture", path(), "--facts-every", "0.000001"});
    shift(*capture_);
    shift(*daemon_);
    daemon_->startAndServe();
    emitter_ = std::make_unique<Emitter>(Emitter::toContext(workspace()));
    capture_->start();
    ASSERT_TRUE(eventually([&] {
      observe("kel.unheard.probe");
      return capture_->hasEnded() || fileContent(path()).find("kel.unheard.probe") != std::string::npos;
    })) << capture_->standardError();
  }

  void observe(const std::string& id, const Arguments& arguments = {}) { emitter_->send(id, arguments); }
  void observe(const Batch& batch) { emitter_->send(batch); }
  void expect(const std::string& event, int count = 1) { expected_[event] += count; }

  /// Returns once the capture holds what is expected.
  void settle() {
    const auto all = [](const Events& events) {
      int sum = 0;
      for (const auto& [event, count] : events) sum += count;
      return sum;
    };
    const bool came = eventually([&] { return all(recorded()) >= all(expected_); });
    EXPECT_TRUE(came && recorded() == expected_) << difference();
  }
  /// Returns once every correlator has done with all before.
  void finish() {
    const std::string n = std::to_string(++marks_);
    observe("kel.scsi.apd.event.descriptor.alloc.failed");
    expect("orn.problem.scsi.apd.event.descriptor.alloc.failed");
    observe("kel.cpu.mce.invalid");
    expect("orn.problem.cpu.mce.invalid");
    observe("kel.net.firewall.disabled");
    expect("orn.audit.net.firewall.disabled");
    observe("kel.pageretire.platform.retire.request", {s("FRU " + n), s("log")});
    expect("orn.problem.pageretire.platform.retire.request");
    observe("kel.uw.secpolicy.alldomains.level.changed", {s("permissive"), i(0)});
    expect("orn.audit.uw.secpolicy.alldomains.level.changed");
    observe("kel.memfs.ramdisk.full", {s("/var/mark" + n), s("var")});
    expect("orn.problem.memfs.ramdisk.full");
    observe("kel.vfat.filesystem.full", {s("mark"), s("mark" + n)});
    expect(kFull);
    observe("kel.user.panl.restarting.hostagents");
    expect("orn.audit.panl.hostagents.restart");
    observe("kel.dstor.dom.errorfixed", {s("mark"), s("mark" + n)});
    expect(kErrorFixed);
    observe("kel.clock.unheard" + n);
    log().waitFor("No system clock correlator for kel.clock.unheard" + n);
    settle();
  }
  void setHost(const std::string& model) {
    finish();
    workspace().setModel(model);
  }
  /// Sets the clock to so many seconds behind the real one. Timers that are due then fire when their thread
  /// wakes, which the setting of a shifted clock does not do: arming one more does.
  void setClock(int seconds) {
    finish();
    awaitNewSecond();
    time_->set("+" + std::to_string(seconds));
    ++steps_;
    observe("kel.net.qnic.linkstate.down", {s("wake" + std::to_string(marks_))});
    expect(kLinkDown);
    settle();
  }
  /// Timers count whole seconds: what is observed together shall be handled within one.
  static void awaitNewSecond() {
    const bool begun = eventually([] {
      const auto now = std::chrono::system_clock::now();
      return now - std::chrono::floor<std::chrono::seconds>(now) < std::chrono::milliseconds(200);
    });
    EXPECT_TRUE(begun);
  }

  /// Sends the first rows of a correlator's table, up to one that posts.
  void translate(const std::string& table) {
    SCOPED_TRACE(table);
    constexpr std::size_t kRows = 60;
    const auto rows = support::loadRows(std::string(KELD_TEST_DATA) + "/" + table + "-rows.tsv");
    const std::string* model = nullptr;
    for (std::size_t n = 0; n < rows.size() && (n < kRows || !rows[n - 1].posts()); ++n) {
      if (model == nullptr || rows[n].model != *model) {
        settle();
        workspace().setModel(rows[n].model);
        model = &rows[n].model;
      }
      observe(rows[n].id, rows[n].arguments);
      if (rows[n].posts()) expect(rows[n].event);
      for (const support::Row& further : rows[n].further) expect(further.event);
    }
    settle();
  }

  /// One record of the machine check log.
  void machineCheck(std::uint64_t status, std::uint64_t cpu, std::uint64_t address) {
    observe("kel.cpu.mce.log4", {L(11), L(status), L(12), L(13), L(cpu), L(address), L(14), L(1)});
  }
  void change(const std::string& path, const std::string& to, const std::string& from) {
    observe("kel.scsi.scsipath.pathstate." + to, {s(path), s(from)});
  }
  void changes(const std::string& path, int count) {
    for (int n = 0; n < count; ++n) change(path, "off", "dead");
  }
  void inject(int count) {
    for (int n = 0; n < count; ++n) observe("kel.pageretire.mce.injected", {L(0x123), i(4711)});
  }
  /// What is held back while it repeats, each for a time of its own.
  void repeat() {
    observe("kel.clock.correction.adjtime.sync");
    observe("kel.uw.core.dumped", {s("nightly"), i(0), s("/cores/nightly")});
    observe("kel.memfs.one");
    observe("kel.vfat.filesystem.full", {s("bootbank"), s("1234-5678")});
    observe("kel.user.dhclient.lease.offered.noexpiry", {s("192.0.2.77")});
    observe("kel.user.lsyslogd.storage.logdir.invalid", {s("/mine"), s("/default")});
    observe("kel.dstor.dom.errorfixed", {s("comp-1"), s("dg-1")});
  }
  void expectAll(std::initializer_list<std::string> events) {
    for (const std::string& event : events) expect(event);
  }

  void transitions();
  void pathLosses();

  /// Ends the capture, as its user would, and then the daemon.
  void end() {
    finish();
    capture_->signal(SIGINT);
    const Ending ending = capture_->waitForEnd();
    EXPECT_TRUE(ending.with(0)) << ending.text() << capture_->standardError();
    EXPECT_EQ(capture_->standardError(), "");
    EXPECT_TRUE(daemon_->terminate().with(0));
  }

  [[nodiscard]] std::string path() const { return workspace().root() + "/live.capture"; }
  [[nodiscard]] Outcome replay(const std::vector<std::string>& options) const {
    std::vector<std::string> arguments{"replay", path()};
    arguments.insert(arguments.end(), options.begin(), options.end());
    return run(workspace(), KELCTL_PROGRAM, arguments);
  }
  [[nodiscard]] std::size_t steps() const { return steps_; }

 private:
  void shift(Program& program) {
    program.setEnvironment("FAKETIME_DONT_FAKE_MONOTONIC", "1");
    program.setEnvironment("DONT_FAKE_MONOTONIC", "1");
    time_.emplace(workspace(), program, "+0");  // both look at the same file
  }
  /// The events that the capture holds by now.
  const Events& recorded() {
    std::ifstream file(path(), std::ios::binary);
    file.seekg(static_cast<std::streamoff>(read_));
    for (std::string line; std::getline(file, line) && !file.eof(); read_ += line.size() + 1) {
      const TraceLine entry = parseTraceLine(line);
      if (entry.direction == "OUT") ++recorded_[entry.id];
    }
    return recorded_;
  }
  std::string difference() {
    std::string text;
    Events all = recorded_;
    for (const auto& [event, count] : expected_) all[event] -= count;
    for (const auto& [event, count] : all) {
      if (count != 0)
        text += event + (count > 0 ? ": too many by " : ": too few by ") + std::to_string(std::abs(count)) + "\n";
    }
    return text;
  }

  std::unique_ptr<EventReceiver> agent_;
  std::unique_ptr<Daemon> daemon_;
  std::unique_ptr<Program> capture_;
  std::unique_ptr<Emitter> emitter_;
  std::optional<FakeTime> time_;
  Events expected_;
  Events recorded_;
  std::size_t read_ = 0;
  std::size_t steps_ = 0;
  int marks_ = 0;
};

void LiveAndReplay::transitions() {
  awaitNewSecond();
  observe(joined(record("kel.net.qnic.linkstate.down", {s("qnic0")}),
                 joined(record("kel.net.pg.uplink.transition.down", {s("qnic0"), s("Production"), i(1), i(3)}),
                        record("kel.net.pg.uplink.transition.down", {s("qnic0"), s("Backup"), i(0), i(3)}))));
  expectAll({"orn.problem.net.connectivity.lost", "orn.problem.net.redundancy.lost"});
  settle();
  awaitNewSecond();
  observe(joined(record("kel.net.pg.uplink.transition.up", {s("qnic0"), s("Production"), i(2)}),
                 record("kel.net.pg.uplink.transition.up", {s("qnic0"), s("Backup"), i(1)})));
  expectAll({"orn.clear.net.connectivity.restored", "orn.clear.net.redundancy.restored"});
  settle();
  // Down and up within the seven seconds after a watchdog's time-out is a reset.
  awaitNewSecond();
  observe(joined(record("kel.net.uplink.watchdog.timeout", {s("qnic1")}),
                 joined(record("kel.net.pg.uplink.transition.down", {s("qnic1"), s("Production"), i(1), i(2)}),
                        record("kel.net.pg.uplink.transition.up", {s("qnic1"), s("Production"), i(2)}))));
  expect("orn.problem.net.qnic.watchdog.reset");
  settle();
  // The fourth loss within the window is one too many; each is told of by itself.
  awaitNewSecond();
  for (int n = 0; n < 4; ++n) observe("kel.net.qnic.linkstate.down", {s("qnic2")});
  expect("orn.problem.net.qnic.linkstate.flapping");
  expect(kLinkDown, 4);
  settle();
  awaitNewSecond();
  observe("kel.net.dvport.uplink.transition.down", {s("qnic3"), s("dvs-1"), s("10"), i(1), i(2)});
  expect("orn.problem.net.dvport.redundancy.lost");
  settle();
}

void LiveAndReplay::pathLosses() {
  setHost(host(3));
  change("path-a", "dead", "on");
  expect("orn.problem.storage.redundancy.degraded");
  setHost(host(1));
  change("path-b", "off", "standby");
  expect("orn.problem.storage.connectivity.lost");
  setHost(host(2));
  change("path-b", "standby", "off");
  expect("orn.clear.storage.connectivity.restored");
  setHost(host(3));
  change("path-b", "on", "standby");  // it was usable already
  change("path-a", "on", "dead");
  expect("orn.clear.storage.redundancy.restored");
  changes("path-c", 15);
  expect(kChanges);
  for (int n = 0; n < 11; ++n) observe("kel.scsi.scsipath.por", {s(n == 0 ? "first" : "path-c")});
  expect("orn.problem.storage.connectivity.pathpor");
  finish();
}

/// The correlator of each event that the catalogue lists.
std::map<std::string, std::string> correlators(const Workspace& workspace) {
  const Outcome catalogue = run(workspace, KELCTL_PROGRAM, {"catalog", "--json"});
  EXPECT_TRUE(catalogue.ending.with(0)) << catalogue.error;
  std::map<std::string, std::string> of;
  for (const json& entry : json::parse(catalogue.output)) {
    for (const json& event : entry["events"]) of[event["event"]] = entry["correlator"];
  }
  return of;
}

/// The events of a trace and their arguments, in their order, by correlator.
using Posted = std::map<std::string, std::vector<std::string>>;
Posted postedIn(const std::string& trace, const std::map<std::string, std::string>& correlators) {
  Posted posted;
  std::istringstream lines(trace);
  for (std::string raw; std::getline(lines, raw);) {
    const TraceLine line = parseTraceLine(raw);
    if (line.direction == "OUT") posted[correlators.at(line.id)].push_back(line.id + line.rest);
  }
  return posted;
}

/// What was done to the host. Correlators do it side by side: the order between them is none.
std::multiset<std::string> actionsIn(const std::string& replayed) {
  std::multiset<std::string> actions;
  std::istringstream lines(replayed);
  for (std::string line; std::getline(lines, line);) {
    const json entry = json::parse(line);
    if (entry["kind"] != "action") continue;
    const json& action = entry["action"];
    // The audit trail and the store are no actions of a modelled host.
    if (action["action"] != "audit" && action["action"] != "store") actions.insert(action.dump());
  }
  return actions;
}

TEST_F(LiveAndReplay, AgreeForEveryCorrelatorWhileHoursPass) {
  begin(host(3));
  for (const char* table :
       {"net",  "scsi", "apd",     "iscsi", "vscsi", "clock", "cpu",  "pageretire", "cvfs", "hardware", "uw",
        "swap", "vm",   "migrate", "memfs", "vfat",  "sched", "user", "external",   "hcm",  "dstor"}) {
    translate(table);
    if (HasFailure()) return;
  }
  workspace().setModel(host(3));

  setClock(kBegin);
  repeat();
  expectAll({kSynchronised, kCrash, kRootFailure, kFull, kLease, kLogDirectory, kErrorFixed});
  machineCheck(kAddressValid, 2, 0x1234000);
  machineCheck(kAddressValid, 3, 0x1234fff);
  for (const std::uint64_t cpu : {4U, 5U, 5U}) machineCheck(kLevelOneCache, cpu, 0);
  inject(49);
  transitions();
  pathLosses();
  if (HasFailure()) return;

  // In another counting period two more errors of the page are too few, and three are enough.
  setClock(kBegin + 100);
  repeat();
  expect(kLogDirectory);
  machineCheck(kAddressValid, 2, 0x1234000);
  machineCheck(kAddressValid, 2, 0x1234000);
  finish();
  machineCheck(kAddressValid, 2, 0x1234000);
  changes("path-c", 15);
  inject(60);
  setClock(kBegin + 103);
  inject(1);
  expect("orn.problem.pageretire.mce.injected.2");

  setClock(kBegin + 250);  // no five minutes of quiet
  observe("kel.memfs.two");
  observe("kel.vfat.filesystem.full", {s("bootbank"), s("1234-5678")});
  setClock(kBegin + 700);
  repeat();
  expectAll({kRootFailure, kFull, kLogDirectory});
  changes("path-c", 11);  // all counts were dropped, and the first with them
  expect(kChanges);
  setClock(kBegin + 1300);
  repeat();
  expectAll({kRootFailure, kFull, kLease, kLogDirectory});
  setClock(kBegin + kHour - 600);
  repeat();
  expectAll({kRootFailure, kFull, kLease, kLogDirectory});
  setClock(kBegin + kHour + 100);
  repeat();
  expectAll({kSynchronised, kRootFailure, kFull, kLogDirectory, kErrorFixed});
  setClock(kBegin + 10 * kHour + 100);
  repeat();
  expectAll({kSynchronised, kCrash, kRootFailure, kFull, kLease, kLogDirectory, kErrorFixed});
  // Set back, the clock has to make up the time before anything of this is told again.
  setClock(kBegin + 9 * kHour);
  repeat();
  end();
  if (HasFailure()) return;

  const std::string captured = fileContent(path());
  EXPECT_GT(std::count(captured.begin(), captured.end(), '\n'), 1000);
  std::size_t stepLines = 0;
  for (std::size_t at = 0; (at = captured.find("\n#step ", at)) != std::string::npos; ++at) ++stepLines;
  EXPECT_EQ(stepLines, steps());

  const Outcome diff = replay({"--diff"});
  EXPECT_TRUE(diff.ending.with(0)) << diff.ending.text();
  EXPECT_EQ(diff.output, "");
  EXPECT_EQ(diff.error, "");

  // A host that lets its links flap would not have done the same.
  const Outcome other = replay({"--diff", "--option", "Net/LinkFlappingThreshold=0"});
  EXPECT_TRUE(other.ending.with(1)) << other.ending.text();
  EXPECT_THAT(other.output, testing::ContainsRegex("\n-[^\n]* orn\\.problem\\.net\\.qnic\\.linkstate\\.flapping,"));

  const auto catalogue = correlators(workspace());
  const Posted live = postedIn(captured, catalogue);
  EXPECT_THAT(live, SizeIs(21));
  const Outcome trace = replay({});
  EXPECT_TRUE(trace.ending.with(0)) << trace.error;
  const Posted replayed = postedIn(trace.output, catalogue);
  for (const auto& [correlator, events] : live) EXPECT_EQ(replayed.at(correlator), events) << correlator;

  std::multiset<std::string> done;
  for (const std::string& line : workspace().hostActions()) done.insert(json::parse(line).dump());
  for (const char* const action : {R"({"action":"nic.down","nic":"qnic2"})", R"({"action":"cpu.offline","cpu":5})",
                                   R"({"action":"page.retire","count":1,"mode":"NiceRetire","page":4660})",
                                   R"({"action":"vm.kill","name":"web01","worldId":4711})"}) {
    EXPECT_EQ(done.count(action), 1U) << action;
  }
  EXPECT_EQ(actionsIn(replay({"--json"}).output), done);
}

/// On a machine whose cores are all busy.
class ReplayedUnderLoad : public EndToEnd, public testing::WithParamInterface<const char*> {};

TEST_P(ReplayedUnderLoad, GivesTheSameBytesEachTimeInEachForm) {
  constexpr int kRounds = 5;
  constexpr int kAtOnce = 4;
  Program one(workspace(), "/bin/sh", {"-c", "while :; do :; done"});
  Program other(workspace(), "/bin/sh", {"-c", "while :; do :; done"});
  one.start();
  other.start();
  const std::string capture = std::string(KELD_GOLDEN_DIRECTORY "/") + GetParam() + ".capture";
  for (const std::vector<std::string>& form :
       {std::vector<std::string>{"--text"}, std::vector<std::string>{"--json"}, std::vector<std::string>{}}) {
    SCOPED_TRACE(testing::PrintToString(form));
    std::vector<std::string> words{"replay", capture};
    words.insert(words.end(), form.begin(), form.end());
    const std::string first = run(workspace(), KELCTL_PROGRAM, words).output;
    EXPECT_FALSE(first.empty());
    for (int round = 0; round < kRounds; ++round) {
      std::vector<std::unique_ptr<Program>> programs;
      for (int n = 0; n < kAtOnce; ++n) {
        programs.push_back(std::make_unique<Program>(workspace(), KELCTL_PROGRAM, words));
        programs.back()->start();
      }
      for (const auto& program : programs) {
        EXPECT_TRUE(program->waitForEnd().with(0)) << program->standardError();
        EXPECT_TRUE(program->standardOutput() == first) << "another output";
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Of, ReplayedUnderLoad,
                         testing::Values("a-bad-day-in-the-switch-room", "a-thousand-events-in-a-minute"),
                         [](const auto& capture) {
                           std::string name = capture.param;
                           std::replace(name.begin(), name.end(), '-', '_');
                           return name;
                         });

}  // namespace
}  // namespace e2e
