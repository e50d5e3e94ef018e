#include "host/describe.h"

#include "host/options.h"
#include "hostFixture.h"
#include "model/modelFile.h"
#include "model/modelSections.h"

namespace platform {
namespace {

using nlohmann::json;

class Describe : public HostTest {
 protected:
  static json described() { return json::parse(describeHost().dump()); }
};

TEST_F(Describe, AModelShowsAllItsSections) {
  const char* const only = R"(
    "pageRetire": {"threshold": 7, "status": {"0x1234": 1}},
    "datastorePaths": {"/cvfs/volumes/5f/sys.swp": "datastore1: sys.swp"},
    "failures": {"nic.down": 5, "swap.reconfigure": "text of the failure"})";
  model_.write(std::string(R"({"build": {"kernel": "build 17"}, "system": {"uuid": ")") + std::string(110, '0') +
               R"(ff"}, "portGroups": {"Production": "switch0"},
    "storage": {"paths": {"path-0:0:1": "naa.600"},
                "devices": {"naa.600": {"redundancyState": 2, "disk": true,
                            "partitions": [{"number": 1, "volume": "datastore1"}, {"number": 2, "error": 2}]},
                            "naa.700": {}}},
    "vms":     [{"worldId": 4711, "groupId": 12, "name": "web01"}],
    "cpu":     {"vendor": "GenuineIntel", "cores": 4, "pcpus": 8, "offlineEnabled": true},)" +
               only + "}");
  const json all = described();
  EXPECT_EQ(all["host"], "model:" + model_.directory() + "/host.json");
  EXPECT_EQ(all["kernel"], json::parse(R"({"build": "build 17", "matches": true})"));
  EXPECT_EQ(all["system"]["uuid"], std::string(110, '0') + "ff");
  EXPECT_EQ(all["portGroups"], json::parse(R"([{"name": "Production", "virtualSwitch": "switch0", "uplinks": []}])"));
  EXPECT_EQ(all["storage"], json::parse(R"({"paths": {"path-0:0:1": "naa.600"},
    "devices": {"naa.600": {"redundancyState": 2, "disk": true, "partitions": [
                  {"number": 1, "volume": "datastore1"},
                  {"number": 2, "error": "No such file or directory", "status": 2}]},
                "naa.700": {"disk": false, "partitions": []}}})"));
  EXPECT_EQ(all["vms"], json::parse(R"([{"worldId": 4711, "groupId": 12, "name": "web01"}])"));
  EXPECT_EQ(all["cpu"], json::parse(R"({"vendor": "GenuineIntel", "cores": 4, "pcpus": 8, "offlineEnabled": true})"));
  EXPECT_EQ(all["pageRetire"], json::parse(R"({"threshold": 7})"));
  EXPECT_EQ(all["model"], json::parse(R"({"pageRetire": {"status": {"0x1234": 1}},
    "datastorePaths": {"/cvfs/volumes/5f/sys.swp": "datastore1: sys.swp"},
    "failures": {"nic.down": 5, "swap.reconfigure": "text of the failure"}})"));
}

TEST_F(Describe, OptionsShowTheirOrigin) {
  ASSERT_TRUE(setOption("Net/LinkFlappingThreshold", 3).ok());
  const json options = described()["options"];
  ASSERT_EQ(options.size(), 7U);
  EXPECT_EQ(options[2], json::parse(R"({"name": "Net/LinkFlappingThreshold", "value": 3, "origin": "stored"})"));
}

TEST_F(Describe, WhatCannotBeHadSaysWhy) {
  model_.write(R"({"failures": {"uuid.read": 5, "portGroup.lookup": "busy", "path.lookup": 5, "device.lookup": "gone",
                                "volumes.open": "no volumes", "vm.lookup": 13, "pageRetire.threshold": 5},
                   "cpu": {"vendor": "GenuineIntel"}})");
  const json inputOutput = json::parse(R"({"error": "Input/output error", "status": 5})");
  const json all = described();
  EXPECT_EQ(all["system"]["uuid"], inputOutput);
  EXPECT_EQ(all["portGroups"]["error"], "busy");
  EXPECT_EQ(all["storage"]["paths"], inputOutput);
  EXPECT_EQ(all["storage"]["devices"]["error"], "gone");
  EXPECT_EQ(all["storage"]["volumes"]["error"], "no volumes");
  EXPECT_EQ(all["vms"], json::parse(R"({"error": "Permission denied", "status": 13})"));
  EXPECT_EQ(all["cpu"]["vendor"], "GenuineIntel");
  for (const char* const count : {"cores", "pcpus"}) {
    EXPECT_EQ(all["cpu"][count]["error"], "the model does not count the processors");
  }
  EXPECT_EQ(all["cpu"]["offlineEnabled"]["status"], 2);
  EXPECT_EQ(all["pageRetire"]["threshold"], inputOutput);
}

TEST_F(Describe, AnUnusableModelIsStillDescribed) {
  model_.write("not a model");
  const json all = described();
  EXPECT_EQ(all["kernel"]["matches"], false);
  EXPECT_EQ(all["model"]["error"], "not JSON");
}

TEST_F(Describe, WhatIsDescribedReadsBackAsTheSameModel) {
  const std::string text =
      R"({"pageRetire":{"status":{"0xffffffffffffffff":1}},"datastorePaths":{"/a":"b: c"},"failures":{"nic.down":5}})";
  const json sections = json::parse(modelSections(parseModelFile(text).value).dump());
  const json again = json::parse(modelSections(parseModelFile(sections.dump()).value).dump());
  EXPECT_EQ(again, sections);
}

}  // namespace
}  // namespace platform
