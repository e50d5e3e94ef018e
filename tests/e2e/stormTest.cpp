// Observations of every kind by the hundred thousand: nothing stops, and nothing grows but what must.
#include <gtest/gtest.h>

#include <filesystem>

#include "daemon.h"
#include "emitter.h"
#include "eventReceiver.h"
#include "keldCorrelator.h"
#include "stormSize.h"

namespace e2e {
namespace {

using support::i, support::l, support::L, support::null, support::s, support::u;

constexpr const char* kModel = R"({
  "options": {"PageRetire/ApeiLoggingEnabled": 1, "Cpu/CPUOfflineThreshold": 3},
  "storage": {"paths": {"path0": "disk0", "path1": "disk0"},
              "devices": {"disk0": {"redundancyState": 2, "disk": true, "partitions": [{"number": 1, "volume": "one"}]}}},
  "vms": [{"worldId": 1, "groupId": 12, "name": "web01"}],
  "cpu": {"vendor": "GenuineIntel", "cores": 4, "pcpus": 8, "offlineEnabled": true},
  "pageRetire": {"status": {"0x1234": 0, "0x1235": 1}},
  "datastorePaths": {"/cvfs/swap": "one: swap"}})";

/// How many in a turn of kinds() inject a machine check.
constexpr std::size_t kInjectionKinds = 2;

/// What stands for each correlator: what it translates, what it judges, what it cannot read and what it
/// does not know. The names in them are few, so that what is kept by name has its end.
std::vector<Batch> kinds() {
  const Arguments uuid = {i(1), i(2), i(3), i(4), i(5), i(6), i(7), i(8), i(9), s("text")};
  const Arguments machineCheck = {L(0), L(0x4400000000000110), L(0), L(0), L(2), L(0x1234000), L(0), L(1)};
  const Arguments retiredPage = {L(0), L(0x0400000000000000), L(0), L(0), L(2), L(0x1235000), L(0), L(9)};
  using Kinds = std::vector<std::pair<std::string, Arguments>>;
  const Kinds judgedAlone = {
      {"kel.scsi.scsipath.por", {s("disk0")}},
      {"kel.scsi.scsipath.add", {s("path1")}},
      {"kel.scsi.scsipath.remove", {s("path1")}},
      {"kel.scsi.device.io.latency.high", {s("disk0"), L(1), L(2)}},
      {"kel.scsi.device.io.latency.high", {s("disk0")}},
      {"kel.storage.apd.timeout", {s("disk0"), i(140)}},
      {"kel.iscsi.target.login.error", {s("hba"), s("target"), u(0x1f)}},
      {"kel.iscsi.connection.error", {}},
      {"kel.vscsi.shared.vdsk.add.failure.max.count", {u(8)}},
      {"kel.vscsi.shared.vdsk.add.failure.max.count", {s("no number")}},
      {"kel.clock.correction.adjtime.sync", {}},
      {"kel.clock.correction.adjtime.unsync", {}},
      {"kel.clock.unknown", {}},
      {"kel.cpu.smp.ht.invalid", {u(1), u(2)}},
      {"kel.pageretire.selectedmpnthreshold.host.exceeded", {L(101)}},
      {"kel.cvfs.heartbeat.timedout", uuid},
      {"kel.cvfs.extent.offline", {null(), s("fs")}},
      {"kel.hardware.nvd.health.life.pctused", {i(0x10), s("A1"), i(95), i(90)}},
      {"kel.uw.core.dumped", {s("hagd-worker"), i(11), s("/core")}},
      {"kel.uw.core.dumped", {s("service"), i(11), s("/core"), s("key")}},
      {"kel.vm.kill.unexpected.vmtrack", {s("web01")}},
      {"kel.vm.unknown", {}},
      {"kel.migrate.skyhop.default.heap.create.failed", {}},
      {"kel.memfs.ramdisk.full", {s("file"), s("ramdisk")}},
      {"kel.memfs.unknown", {}},
      {"kel.vfat.filesystem.full", {s("volume"), s("uuid")}},
      {"kel.sched.latency.abort", {s("web01")}},
      {"kel.sched.latency.abort", {}},
      {"kel.user.ssh.session.opened", {s("root"), s("10.0.0.1")}},
      {"kel.user.dhclient.lease.offered.noexpiry", {s("10.0.0.2")}},
      {"kel.user.lsyslogd.storage.logdir.invalid", {s("/a"), s("/b")}},
      {"kel.user.hagd.host.reboot.reason", {s("no reason"), s("root")}},
      {"kel.user.coredump.capacity.insufficient", {l(-1)}},
      {"kel.user.unknown", {}},
      {"kel.external.warning", {s("agent"), s("link"), s("text")}},
      {"kel.user.external.info", {s("agent"), null(), s("text")}},
      {"kel.dstor.net.noip", {s("qknic0")}},
      {"kel.dstor.net.created", {s("qknic1")}},
      {"kel.dstor.net.no.connectivity", {s("qknic1")}},
      {"kel.dstor.clmd.enabled", {}},
      {"kel.dstor.dom.errorfixed", {s("component"), s("group")}},
      {"kel.dstor.dom.resynctimeout", {s("component")}},
      {"kel.dstor.clmd.unloaded", {}},
      {"kel.hcm.event.disk.removal", {s("disk 3")}},
  };
  const Kinds askingTheHost = {
      {"kel.scsi.scsipath.pathstate.dead", {s("path0"), s("on")}},
      {"kel.scsi.scsipath.pathstate.on", {s("path0"), s("dead")}},
      {"kel.scsi.device.state.permanentloss", {s("disk0")}},
      {"kel.cpu.mce.log4", machineCheck},
      {"kel.cpu.mce.log4", retiredPage},
      {"kel.pageretire.mce.injected", {L(0x10), i(1)}},
      {"kel.pageretire.mce.injected", {L(0x11), i(2)}},
      {"kel.pageretire.platform.retire.request", {s("unit"), s("log")}},
      {"kel.swap.systemSwap.isPDL.cannot.remove", {s("/cvfs/swap")}},
      {"kel.swap.systemSwap.isPDL.removed", {s("/cvfs/swap")}},
      {"kel.user.account.locked", {s("root"), i(900), i(5)}},
      {"kel.user.orncli.host.reboot.reason", {s("orncli:update"), s("root")}},
  };
  // The modelled host reads its file at each question, so it is asked by fewer.
  std::vector<Batch> records;
  for (int round = 0; round < 4; ++round) {
    for (const auto& [id, arguments] : judgedAlone) records.push_back(record(id, arguments));
  }
  for (const auto& [id, arguments] : askingTheHost) records.push_back(record(id, arguments));
  return records;
}

std::size_t threads(pid_t pid) {
  std::size_t count = 0;
  for ([[maybe_unused]] const auto& task :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
    ++count;
  }
  return count;
}

class Storm : public testing::Test {
 protected:
  void SetUp() override { workspace_.setModel(kModel); }

  /// Sends observations of all kinds in turn, many to a batch. The time for it is bounded by the test's.
  void send(const Emitter& emitter, std::size_t count) {
    constexpr std::size_t kBatchBytes = 6000;
    Batch batch;
    for (std::size_t n = 0; n < count; ++n) {
      const Batch& next = kinds_[sent_++ % kinds_.size()];
      if (batch.size() + next.size() > kBatchBytes) {
        emitter.send(batch);
        batch.clear();
      }
      batch.insert(batch.end(), next.begin(), next.end());
    }
    emitter.send(batch);
  }

  Workspace workspace_;
  std::vector<Batch> kinds_ = kinds();
  std::size_t sent_ = 0;
};

TEST_F(Storm, EveryCorrelatorOutlivesItAndMemoryStaysFlat) {
  // What takes half a minute at most.
  const std::size_t size = stormSize(kSanitized ? 20'000 : 100'000);
  EventReceiver agent(workspace_.eventSocket());
  Daemon daemon(workspace_);
  daemon.startAndServe();
  // A trace client that does not read is kept for, line by line.
  daemon.trace().hangUp();
  const std::size_t threadsBefore = threads(daemon.pid());
  const Emitter emitter = Emitter::toContext(workspace_);

  send(emitter, size / 2);
  ASSERT_TRUE(daemon.comesToRest(Deadline(std::chrono::minutes(10))));
  const std::size_t half = daemon.memoryKiB("VmRSS");
  send(emitter, size - size / 2);
  ASSERT_TRUE(daemon.comesToRest(Deadline(std::chrono::minutes(10))));
  const std::size_t whole = daemon.memoryKiB("VmRSS");
  std::cout << size << " observations; resident " << half << " KiB after half of them, " << whole << " KiB after all\n";
  RecordProperty("residentKiB", static_cast<int>(whole));

  // The trace client's writer has ended with its connection.
  // What stores reasons has begun with the first of them.
  EXPECT_LE(threads(daemon.pid()), threadsBefore + 1);
  EXPECT_GE(threads(daemon.pid()), 2 + keld::correlators().size());  // main, timers and theirs
  if (!kSanitized) {
    // Injected machine checks are kept for a minute; everything else has its end.
    constexpr std::size_t kInjectionBytes = 256, kSlackKiB = 512;
    const std::size_t injections = size / kinds_.size() * kInjectionKinds;
    EXPECT_LE(whole, half + injections * kInjectionBytes / 1024 + kSlackKiB);
  }
  const Ending ending = daemon.terminate();
  EXPECT_TRUE(ending.with(0)) << ending.text() << daemon.standardError();
  EXPECT_EQ(daemon.standardError(), "");
  EXPECT_GE(agent.count(), 900U);
}

}  // namespace
}  // namespace e2e
