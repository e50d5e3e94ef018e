#include "host/facts.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>

#include "fakeNetlink.h"
#include "hostTree.h"
#include "linkMessages.h"
#include "linux/linuxHost.h"
#include "model/modelFile.h"
#include "model/modelHost.h"

namespace linktest {
namespace {

using nlohmann::json;
using platform::ModelHost;

/// A machine of two disks in force as the Linux host.
class LinuxFactsTest : public HostTree {
 public:
  LinuxFactsTest() {
    scsiDisk("sda", "8:0", "2:0:0:1");
    scsiDisk("sdb", "8:16", "2:0:0:2", "offline");
    partition("sda", "sda1", "8:1", 1);
    partition("sda", "sda2", "8:2", 2);
    mounts({"8:1 / /cvfs/volumes/5f /dev/sda1", "0:31 / /cvfs/volumes/5f/tmp tmpfs"});
    write("run/udev/data/b8:1", "E:ID_FS_LABEL=datastore1\n");
    write("etc/machine-id", "0123456789abcdef0123456789abcdef\n");
    write("proc/cpuinfo", "processor\t: 0\nvendor_id\t: GenuineIntel\n");
    netlink_->answer(
        {dumpPart({{.index = 9, .name = "br0", .kind = "bridge"}, {.index = 1, .name = "nic0", .master = 9}}) +
         dumpEnd()});
  }

 protected:
  [[nodiscard]] json facts() const { return platform::hostFacts(path("scratch")); }

  /// A model host on facts, through its file.
  [[nodiscard]] std::unique_ptr<ModelHost> modelOf(const json& facts) const {
    const std::string text = facts.dump();
    const auto parsed = platform::parseModelFile(text);
    EXPECT_TRUE(parsed.ok()) << parsed.outcome.text << ": " << text;
    write("model.json", text);
    return std::make_unique<ModelHost>(path("model.json"));
  }

  std::shared_ptr<FakeNetlink> netlink_ = std::make_shared<FakeNetlink>();
  platform::ScopedHost inForce_{platform::makeLinuxHost(roots(), netlink_)};
};

TEST_F(LinuxFactsTest, AModelOfThemAnswersAsTheMachineDoes) {
  const auto model = modelOf(facts());
  const platform::Host& machine = platform::currentHost();
  EXPECT_EQ(model->kernelBuild(), machine.kernelBuild());
  EXPECT_TRUE(model->buildMatches());
  ASSERT_TRUE(machine.systemUuid().ok());
  EXPECT_EQ(model->systemUuid().value, machine.systemUuid().value);
  EXPECT_EQ(model->portGroup("br0").value.virtualSwitch, "br0");
  EXPECT_EQ(model->storagePaths().value, (std::map<std::string, std::string>{{"sda", "sda"}, {"sdb", "sdb"}}));
  for (const char* const device : {"sda", "sdb", "sdc"}) {
    const auto ours = model->storageDevice(device);
    const auto theirs = machine.storageDevice(device);
    EXPECT_EQ(ours.outcome.status, theirs.outcome.status) << device;
    EXPECT_EQ(ours.value.redundancyState, theirs.value.redundancyState) << device;
    EXPECT_EQ(ours.value.disk, theirs.value.disk) << device;
    EXPECT_EQ(ours.value.partitions, theirs.value.partitions) << device;
  }
  EXPECT_EQ(model->volumeOfPartition("sda", 1).value, "datastore1");
  EXPECT_EQ(model->volumeOfPartition("sda", 2).outcome.status, ENOENT);
  EXPECT_TRUE(model->openVolumes().ok());
  EXPECT_EQ(model->cpuVendor().value, "GenuineIntel");
  EXPECT_EQ(model->pageRetireThreshold().value, 100U);
}

TEST_F(LinuxFactsTest, AModelOfThemNamesDatastoresAsTheMachineDoes) {
  const auto model = modelOf(facts());
  const platform::Host& machine = platform::currentHost();
  EXPECT_EQ(model->datastorePath("/cvfs/volumes/5f/a/sys.swp").value, "datastore1: a/sys.swp");
  for (const char* const path : {"/cvfs/volumes/5f/a/sys.swp", "/cvfs/volumes/5f", "/cvfs/volumes/5f/tmp/a", "/cvfs/a",
                                 "/cvfs/volumes/5f/../a", "/"}) {
    EXPECT_EQ(model->datastorePath(path).outcome.status, machine.datastorePath(path).outcome.status) << path;
    EXPECT_EQ(model->datastorePath(path).value, machine.datastorePath(path).value) << path;
  }
}

TEST_F(LinuxFactsTest, WhatCannotBeReadIsLeftOut) {
  for (const char* const name : {"proc/self/mountinfo", "proc/cpuinfo", "etc/machine-id"}) remove(name);
  const json known = facts();
  EXPECT_FALSE(known.contains("system"));
  EXPECT_FALSE(known.contains("datastorePaths"));
  EXPECT_FALSE(known.contains("scratch"));
  EXPECT_FALSE(known["cpu"].contains("vendor"));
  const auto model = modelOf(known);
  EXPECT_EQ(model->systemUuid().outcome.status, ENOENT);
  EXPECT_EQ(model->cpuVendor().outcome.status, ENOENT);
  EXPECT_EQ(model->openVolumes().status, ENOTSUP) << "a silent model would have none, which is another answer";
}

TEST_F(LinuxFactsTest, HoldTheOptionsInForce) {
  write("conf/options.conf", "Net/LinkFlappingThreshold = 3\n");
  const auto known = facts();
  EXPECT_EQ(known["options"]["Net/LinkFlappingThreshold"], 3);
  EXPECT_EQ(known["options"]["PageRetire/ThresholdInterval"], 10) << "a default";
}

}  // namespace
}  // namespace linktest
