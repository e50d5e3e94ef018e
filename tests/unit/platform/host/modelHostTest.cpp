#include "model/modelHost.h"

#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <thread>

#include "hostFixture.h"

namespace platform {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr const char* kWholeModel = R"(
{ "build":   {"kernel": "build 17"},
  "options": {"Net/LinkFlappingThreshold": 3},
  "portGroups": {"Production": "switch0", "Backup": "switch1"},
  "storage": {"paths": {"path-0:0:1": "naa.600"},
              "devices": {"naa.600": {"redundancyState": 2, "disk": true,
                          "partitions": [{"number": 1, "volume": "datastore1"}, {"number": 2, "error": 2},
                                         {"number": 3}]}}},
  "vms":     [{"worldId": 4711, "groupId": 12, "name": "web01"}, {"worldId": 4712, "groupId": 13, "name": "web02"}],
  "cpu":     {"vendor": "GenuineIntel", "cores": 4, "pcpus": 8, "offlineEnabled": true},
  "pageRetire": {"status": {"0x1234": 1}},
  "datastorePaths": {"/cvfs/volumes/5f/sys.swp": "datastore1: sys.swp"})";

/// The whole model, with `rest` (",\"key\": …" or nothing) added.
std::string wholeModel(const std::string& rest = "") {
  return kWholeModel + rest + "}";
}

class Model : public HostTest {
 protected:
  ModelHost host_{model_.directory() + "/host.json"};
};

TEST_F(Model, AnswersWhatTheFileSays) {
  model_.write(wholeModel());
  EXPECT_EQ(host_.describe(), "model:" + model_.directory() + "/host.json");
  EXPECT_TRUE(host_.buildMatches());
  EXPECT_EQ(host_.kernelBuild(), "build 17");
  EXPECT_EQ(host_.optionValue("Net/LinkFlappingThreshold").value, 3);
  EXPECT_EQ(host_.optionValue("Net/Other").value, std::nullopt);
  EXPECT_EQ(host_.portGroup("Production").value.virtualSwitch, "switch0");
  EXPECT_EQ(host_.portGroup("Production").value.name, "Production");
  EXPECT_EQ(host_.portGroups().value.size(), 2U);
  EXPECT_EQ(host_.vmNameOfGroup(13).value, "web02");
  EXPECT_EQ(host_.deviceOfPath("path-0:0:1").value, "naa.600");
  EXPECT_EQ(host_.storageDevice("naa.600").value.redundancyState, 2);
  EXPECT_TRUE(host_.openVolumes().ok());
  EXPECT_EQ(host_.volumeOfPartition("naa.600", 1).value, "datastore1");
  EXPECT_EQ(host_.datastorePath("/cvfs/volumes/5f/sys.swp").value, "datastore1: sys.swp");
  EXPECT_EQ(host_.vmByWorldId(4711).value.groupId, 12);
  EXPECT_EQ(host_.vmName(4711).value, "web01");
  EXPECT_EQ(host_.cpuCounts().value.cores, 4U);
  EXPECT_EQ(host_.cpuCounts().value.pcpus, 8U);
  EXPECT_EQ(host_.cpuVendor().value, "GenuineIntel");
  EXPECT_TRUE(host_.cpuOfflineEnabled().value);
  EXPECT_EQ(host_.pageStatus(0x1234).value, 1U);
}

TEST_F(Model, AKeyWithASlashAtItsEndStandsForThePathsBelowIt) {
  model_.write(R"({"datastorePaths": {"/": "root: ", "/data/": "datastore1: vm/", "/data/deep/": "datastore2: ",
                                      "/data/none/": "", "/data/own": "datastore3: x"}})");
  const auto form = [&](const std::string& path) { return host_.datastorePath(path).value; };
  EXPECT_EQ(form("/data/a/b c"), "datastore1: vm/a/b c");
  EXPECT_EQ(form("/data/deep/a"), "datastore2: a") << "the longest key counts";
  EXPECT_EQ(form("/data/deeper"), "datastore1: vm/deeper");
  EXPECT_EQ(form("/database"), "root: database");
  EXPECT_EQ(form("/data/own"), "datastore3: x") << "a path's own key goes before them";
  EXPECT_EQ(form("/data/a/"), "datastore1: vm/a/");
  for (const char* const path : {"/data", "/data/", "/", "/data/deep", "/data/none", "/data/none/a", "/data//a",
                                 "/data/../a", "//a", "a", "data/a", ""}) {
    EXPECT_EQ(host_.datastorePath(path).outcome.status, ENOENT) << path;
  }
}

TEST_F(Model, WithoutAKeyOfTheRootAPathBelowNoKeyHasNoForm) {
  model_.write(R"({"datastorePaths": {"/data/": "datastore1: "}})");
  for (const char* const path : {"/other/a", "/", "/datafile", "x/y"}) {
    EXPECT_EQ(host_.datastorePath(path).outcome.status, ENOENT) << path;
  }
}

TEST_F(Model, WhatTheFileDoesNotSayCannotBeReadButForTheDefaults) {
  EXPECT_TRUE(host_.buildMatches());
  EXPECT_EQ(host_.pageRetireThreshold().value, 100U);
  EXPECT_TRUE(host_.openChannel(0).ok());
  EXPECT_EQ(host_.systemUuid().outcome.status, ENOENT);
  EXPECT_EQ(host_.portGroup("Production").outcome.status, ENOENT);
  EXPECT_TRUE(host_.portGroups().ok());
  EXPECT_THAT(host_.portGroups().value, IsEmpty());
  EXPECT_EQ(host_.vmNameOfGroup(1).outcome.status, ESRCH);
  EXPECT_EQ(host_.vmByWorldId(1).outcome.status, ESRCH);
  EXPECT_EQ(host_.vmName(1).outcome.status, ESRCH);
  EXPECT_EQ(host_.deviceOfPath("p").outcome.status, ENOENT);
  EXPECT_EQ(host_.storageDevice("d").outcome.status, ENOENT);
  EXPECT_EQ(host_.volumeOfPartition("d", 1).outcome.status, ENOENT);
  EXPECT_EQ(host_.datastorePath("/x").outcome.status, ENOENT);
  EXPECT_EQ(host_.cpuCounts().outcome.status, ENOENT);
  EXPECT_EQ(host_.cpuVendor().outcome.status, ENOENT);
  EXPECT_EQ(host_.cpuOfflineEnabled().outcome.status, ENOENT);
  EXPECT_EQ(host_.pageStatus(1).outcome.status, ENOENT);
}

TEST_F(Model, APartitionFailsAsItSays) {
  model_.write(wholeModel());
  EXPECT_EQ(host_.volumeOfPartition("naa.600", 2).outcome.status, 2);
  EXPECT_EQ(host_.volumeOfPartition("naa.600", 3).outcome.status, ENOENT);
  EXPECT_EQ(host_.volumeOfPartition("naa.600", 4).outcome.status, ENOENT);
}

TEST_F(Model, TheFileIsReadAfreshAtEachQuery) {
  model_.write(R"({"portGroups": {"Production": "switch0"}})");
  EXPECT_EQ(host_.portGroup("Production").value.virtualSwitch, "switch0");
  model_.write(R"({"portGroups": {"Production": "switch9"}})");
  EXPECT_EQ(host_.portGroup("Production").value.virtualSwitch, "switch9");
}

TEST_F(Model, NoContextHasAChannel) {
  for (std::uint32_t number = 0; number < 24; ++number) {
    const auto channel = host_.openChannel(number);
    EXPECT_TRUE(channel.ok());
    EXPECT_EQ(channel.value, nullptr);
  }
}

TEST_F(Model, ActionsAreWrittenOneLineEach) {
  model_.write(wholeModel());
  EXPECT_TRUE(host_.nicDown("vmnic0").ok());
  EXPECT_TRUE(host_.cpuOffline(3).ok());
  EXPECT_TRUE(host_.pageRetire(0x1234, 1, "NiceRetire").ok());
  EXPECT_TRUE(host_.vmKill(4711).ok());
  EXPECT_TRUE(host_.swapReconfigure().ok());
  host_.optionWasSet("Misc/KelAsyncEnable", 1);
  EXPECT_THAT(model_.actions(),
              ElementsAre(R"({"action":"nic.down","nic":"vmnic0"})", R"({"action":"cpu.offline","cpu":3})",
                          R"({"action":"page.retire","page":4660,"count":1,"mode":"NiceRetire"})",
                          R"({"action":"vm.kill","worldId":4711,"name":"web01"})", R"({"action":"swap.reconfigure"})",
                          R"({"action":"option.set","option":"Misc/KelAsyncEnable","value":1})"));
  struct stat facts {};
  ASSERT_EQ(::stat((model_.runDirectory() + "/host-actions.jsonl").c_str(), &facts), 0);
  EXPECT_EQ(facts.st_mode & 07777, 0600U);
}

TEST_F(Model, ANameThatIsNoUtf8StillGivesALineOfJson) {
  EXPECT_TRUE(host_
                  .nicDown("a\xff"
                           "b\"\n")
                  .ok());
  EXPECT_THAT(model_.actions(), ElementsAre("{\"action\":\"nic.down\",\"nic\":\"a\xEF\xBF\xBD"
                                            "b\\\"\\n\"}"));
}

TEST_F(Model, AVmThatIsNotThereIsNotKilled) {
  EXPECT_EQ(host_.vmKill(1).status, ESRCH);
  EXPECT_THAT(model_.actions(), IsEmpty());
}

TEST_F(Model, AnActionThatCannotBeWrittenFails) {
  std::filesystem::remove_all(model_.runDirectory());
  std::ofstream(model_.runDirectory()) << "a file";
  EXPECT_EQ(host_.nicDown("vmnic0").status, ENOTDIR);
  EXPECT_THAT(logged_, ElementsAre(HasSubstr("host-actions.jsonl")));
  std::filesystem::remove(model_.runDirectory());
  EXPECT_TRUE(host_.nicDown("vmnic0").ok()) << "a missing directory is made";
}

TEST_F(Model, ConcurrentActionsKeepTheirLinesWhole) {
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int n = 0; n < 50; ++n) EXPECT_TRUE(host_.nicDown("vmnic0").ok());
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_THAT(model_.actions(),
              ::testing::AllOf(::testing::SizeIs(200), ::testing::Each(R"({"action":"nic.down","nic":"vmnic0"})")));
}

struct FailureCase {
  const char* name;
  std::function<Outcome(ModelHost&)> operation;
};

class ModelFailure : public Model, public ::testing::WithParamInterface<FailureCase> {};

TEST_P(ModelFailure, TheNamedOperationFailsAndNoActionIsWritten) {
  const auto& [name, operation] = GetParam();
  model_.write(wholeModel());
  const Outcome unprovoked = operation(host_);
  EXPECT_TRUE(unprovoked.ok() || unprovoked.status == ENOENT) << unprovoked.status;
  std::filesystem::remove(model_.runDirectory() + "/host-actions.jsonl");

  model_.write(wholeModel(std::string(R"(,"failures": {")") + name + R"(": 77})"));
  EXPECT_EQ(operation(host_).status, 77);
  EXPECT_THAT(model_.actions(), IsEmpty());

  model_.write(wholeModel(std::string(R"(,"failures": {")") + name + R"(": "worn out"})"));
  EXPECT_EQ(operation(host_).text, "worn out");
  EXPECT_NE(operation(host_).status, 0);
  EXPECT_THAT(model_.actions(), IsEmpty());

  model_.write(wholeModel(R"(,"failures": {"something.else": 77})"));
  EXPECT_NE(operation(host_).status, 77);
}

template <typename Query>
std::function<Outcome(ModelHost&)> asking(Query query) {
  return [query](ModelHost& host) { return query(host).outcome; };
}

INSTANTIATE_TEST_SUITE_P(
    EveryName, ModelFailure,
    ::testing::Values(FailureCase{"nic.down", [](ModelHost& h) { return h.nicDown("vmnic0"); }},
                      FailureCase{"cpu.offline", [](ModelHost& h) { return h.cpuOffline(1); }},
                      FailureCase{"page.retire", [](ModelHost& h) { return h.pageRetire(1, 1, "NiceRetire"); }},
                      FailureCase{"vm.kill", [](ModelHost& h) { return h.vmKill(4711); }},
                      FailureCase{"swap.reconfigure", [](ModelHost& h) { return h.swapReconfigure(); }},
                      FailureCase{"option.read:Net/LinkFlappingThreshold",
                                  asking([](ModelHost& h) { return h.optionValue("Net/LinkFlappingThreshold"); })},
                      FailureCase{"context.open:7", asking([](ModelHost& h) { return h.openChannel(7); })},
                      FailureCase{"portGroup.lookup", asking([](ModelHost& h) { return h.portGroup("Production"); })},
                      FailureCase{"path.lookup", asking([](ModelHost& h) { return h.deviceOfPath("path-0:0:1"); })},
                      FailureCase{"device.lookup", asking([](ModelHost& h) { return h.storageDevice("naa.600"); })},
                      FailureCase{"volumes.open", [](ModelHost& h) { return h.openVolumes(); }},
                      FailureCase{"vm.lookup", asking([](ModelHost& h) { return h.vmByWorldId(4711); })},
                      FailureCase{"vm.name", asking([](ModelHost& h) { return h.vmNameOfGroup(12); })},
                      FailureCase{"vm.name", asking([](ModelHost& h) { return h.vmName(4711); })},
                      FailureCase{"cpu.info", asking([](ModelHost& h) { return h.cpuCounts(); })},
                      FailureCase{"vm.lookup", asking([](ModelHost& h) { return h.vms(); })},
                      FailureCase{"path.lookup", asking([](ModelHost& h) { return h.storagePaths(); })},
                      FailureCase{"device.lookup", asking([](ModelHost& h) { return h.storageDevices(); })},
                      FailureCase{"cpu.list", asking([](ModelHost& h) { return h.cpuVendor(); })},
                      FailureCase{"offlineEnabled.read", asking([](ModelHost& h) { return h.cpuOfflineEnabled(); })},
                      FailureCase{"page.status", asking([](ModelHost& h) { return h.pageStatus(0x1234); })},
                      FailureCase{"pageRetire.threshold", asking([](ModelHost& h) { return h.pageRetireThreshold(); })},
                      FailureCase{"store.create", [](ModelHost& h) { return h.storeTrouble("store.create"); }},
                      FailureCase{"store.write", [](ModelHost& h) { return h.storeTrouble("store.write"); }},
                      FailureCase{"option.set", [](ModelHost& h) { return h.storeTrouble("option.set"); }},
                      FailureCase{"uuid.read", asking([](ModelHost& h) { return h.systemUuid(); })}));

TEST_F(Model, AContextOpensUnlessItsOwnNumberFails) {
  model_.write(R"({"failures": {"context.open:1": 5}})");
  EXPECT_TRUE(host_.openChannel(0).ok());
  EXPECT_EQ(host_.openChannel(1).outcome.status, 5);
  EXPECT_TRUE(host_.openChannel(11).ok());
}

TEST_F(Model, AnUnusableFileFailsEveryQueryAndIsMentionedOnce) {
  const std::string file = model_.directory() + "/host.json";
  std::filesystem::remove(file);
  EXPECT_EQ(host_.portGroup("Production").outcome.status, ENOENT);
  EXPECT_EQ(host_.nicDown("vmnic0").status, ENOENT);
  EXPECT_EQ(host_.nicDown("vmnic0").text, "model " + file + ": No such file or directory");
  EXPECT_EQ(host_.openChannel(0).outcome.status, ENOENT);
  EXPECT_EQ(host_.storeTrouble("store.write").status, ENOENT);
  EXPECT_FALSE(host_.buildMatches());
  model_.write("{ not json");
  EXPECT_EQ(host_.optionValue("Net/LinkFlappingThreshold").outcome.status, EINVAL);
  EXPECT_EQ(host_.optionValue("Net/LinkFlappingThreshold").outcome.text, "not JSON");
  EXPECT_THAT(model_.actions(), IsEmpty());
  EXPECT_THAT(logged_, ElementsAre(HasSubstr(file)));
  model_.write("{}");
  EXPECT_TRUE(host_.openChannel(0).ok());
}

TEST_F(Model, AnOversizedFileIsNotRead) {
  model_.write("{}");
  std::filesystem::resize_file(model_.directory() + "/host.json", kModelFileBytes + 1);
  EXPECT_EQ(host_.portGroup("Production").outcome.status, EFBIG);
}

TEST_F(Model, ADirectoryInTheFilesPlaceIsAFailure) {
  const ModelHost directory(model_.directory());
  EXPECT_EQ(directory.portGroup("Production").outcome.status, EINVAL);
}

TEST_F(Model, ARelativePathSurvivesAChangeOfDirectory) {
  const std::filesystem::path before = std::filesystem::current_path();
  model_.write(R"({"portGroups": {"Production": "switch0"}})");
  std::filesystem::current_path(model_.directory());
  const ModelHost relative("host.json");
  std::filesystem::current_path(before);
  EXPECT_TRUE(relative.portGroup("Production").ok());
  EXPECT_EQ(relative.describe(), "model:host.json");
}

}  // namespace
}  // namespace platform
