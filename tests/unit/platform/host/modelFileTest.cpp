#include "model/modelFile.h"

#include <cerrno>

#include "hostFixture.h"

namespace platform {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Pair;

class ModelFileParse : public HostTest {};

TEST_F(ModelFileParse, EveryKeyOfTheFileIsRead) {
  const auto parsed = parseModelFile(R"(
{ "build":   {"matches": false, "kernel": "build 17"},
  "system":  {"uuid": ")" + std::string(110, '0') +
                                     R"(fF"},
  "options": {"Net/LinkFlappingThreshold": 3, "PageRetire/PageErrorCorrThreshold": -2},
  "portGroups": {"Production": "switch0"},
  "storage": {"paths": {"path-0:0:1": "naa.600"},
              "devices": {"naa.600": {"redundancyState": 2, "disk": true,
                          "partitions": [{"number": 1, "volume": "datastore1"}, {"number": 2, "error": 2}]}}},
  "vms":     [{"worldId": 4711, "groupId": 12, "name": "web01"}],
  "cpu":     {"vendor": "GenuineIntel", "cores": 4, "pcpus": 8, "offlineEnabled": true},
  "pageRetire": {"threshold": 7, "status": {"0x1234": 1, "0xFFFFFFFFFFFFFFFF": 65536}},
  "datastorePaths": {"/cvfs/volumes/5f/sys.swp": "datastore1: sys.swp"},
  "failures": {"nic.down": 5, "swap.reconfigure": "text of the failure"} })");
  ASSERT_TRUE(parsed.ok()) << parsed.outcome.text;
  const ModelFile& model = parsed.value;
  EXPECT_FALSE(model.buildMatches);
  EXPECT_EQ(model.kernelBuild, "build 17");
  EXPECT_EQ(model.systemUuid, std::string(55, '\0') + "\xff");
  EXPECT_THAT(model.options,
              ElementsAre(Pair("Net/LinkFlappingThreshold", 3), Pair("PageRetire/PageErrorCorrThreshold", -2)));
  EXPECT_THAT(model.portGroups, ElementsAre(Pair("Production", "switch0")));
  EXPECT_THAT(model.paths, ElementsAre(Pair("path-0:0:1", "naa.600")));
  const ModelDevice& device = model.devices.at("naa.600");
  EXPECT_EQ(device.redundancyState, 2);
  EXPECT_TRUE(device.disk);
  ASSERT_EQ(device.partitions.size(), 2U);
  EXPECT_EQ(device.partitions[0].number, 1U);
  EXPECT_EQ(device.partitions[0].volume, "datastore1");
  EXPECT_EQ(device.partitions[1].number, 2U);
  EXPECT_EQ(device.partitions[1].volume, std::nullopt);
  EXPECT_EQ(device.partitions[1].error, 2);
  ASSERT_EQ(model.vms.size(), 1U);
  EXPECT_EQ(model.vms[0].worldId, 4711);
  EXPECT_EQ(model.vms[0].groupId, 12);
  EXPECT_EQ(model.vms[0].name, "web01");
  EXPECT_EQ(model.cpu.vendor, "GenuineIntel");
  EXPECT_EQ(model.cpu.cores, 4U);
  EXPECT_EQ(model.cpu.pcpus, 8U);
  EXPECT_EQ(model.cpu.offlineEnabled, true);
  EXPECT_EQ(model.pageRetireThreshold, 7U);
  EXPECT_THAT(model.pageStatus, ElementsAre(Pair(0x1234U, 1U), Pair(0xFFFFFFFFFFFFFFFFU, 65536U)));
  EXPECT_THAT(model.datastorePaths, ElementsAre(Pair("/cvfs/volumes/5f/sys.swp", "datastore1: sys.swp")));
  EXPECT_EQ(model.failureOf("nic.down").status, 5);
  EXPECT_EQ(model.failureOf("swap.reconfigure").text, "text of the failure");
  EXPECT_NE(model.failureOf("swap.reconfigure").status, 0);
  EXPECT_TRUE(model.failureOf("vm.kill").ok());
}

TEST_F(ModelFileParse, EveryKeyIsOptional) {
  const auto parsed = parseModelFile("{}");
  ASSERT_TRUE(parsed.ok());
  EXPECT_TRUE(parsed.value.buildMatches);
  EXPECT_EQ(parsed.value.systemUuid, std::nullopt);
  EXPECT_EQ(parsed.value.pageRetireThreshold, std::nullopt);
}

TEST_F(ModelFileParse, AValueOfTheWrongKindIsRefusedByItsPlace) {
  const std::pair<const char*, const char*> cases[] = {
      {R"([])", "the file"},
      {R"({"build": 1})", "build:"},
      {R"({"build": {"matches": 1}})", "build.matches:"},
      {R"({"system": {"uuid": "00"}})", "system.uuid:"},
      {R"({"options": {"A/b": 1.5}})", "options.A/b:"},
      {R"({"options": {"A/b": 9223372036854775808}})", "options.A/b:"},
      {R"({"options": {"A/b": "3"}})", "options.A/b:"},
      {R"({"portGroups": {"P": null}})", "portGroups.P:"},
      {R"({"portGroups": {"P": "a\u0000b"}})", "portGroups.P:"},
      {R"({"storage": {"devices": {"d": {"partitions": [{}, {"number": -1}]}}}})",
       "storage.devices.d.partitions[1].number:"},
      {R"({"vms": {}})", "vms:"},
      {R"({"vms": [7]})", "vms[0]:"},
      {R"({"cpu": {"cores": 4294967296}})", "cpu.cores:"},
      {R"({"pageRetire": {"status": {"1234": 1}}})", "pageRetire.status.1234:"},
      {R"({"pageRetire": {"status": {"0x": 1}}})", "pageRetire.status.0x:"},
      {R"({"pageRetire": {"status": {"0x1g": 1}}})", "pageRetire.status.0x1g:"},
      {R"({"pageRetire": {"status": {"0x10000000000000000": 1}}})", "pageRetire.status.0x10000000000000000:"},
      {R"({"failures": {"nic.down": true}})", "failures.nic.down:"},
  };
  for (const auto& [text, place] : cases) {
    const auto parsed = parseModelFile(text);
    EXPECT_EQ(parsed.outcome.status, EINVAL) << text;
    EXPECT_THAT(parsed.outcome.text, ::testing::StartsWith(place)) << text;
  }
}

TEST_F(ModelFileParse, UuidDigitsAreCheckedToTheLast) {
  EXPECT_FALSE(parseModelFile(R"({"system": {"uuid": ")" + std::string(111, '0') + R"(g"}})").ok());
  EXPECT_FALSE(parseModelFile(R"({"system": {"uuid": ")" + std::string(113, '0') + R"("}})").ok());
  EXPECT_FALSE(parseModelFile(R"({"system": {"uuid": "-1)" + std::string(110, '0') + R"("}})").ok());
}

TEST_F(ModelFileParse, DamagedAndOversizedTextsAreRefused) {
  for (const std::string& text : {std::string(), std::string("{"), std::string("{\"vms\": [}"), std::string("\xff\xfe"),
                                  std::string("{} {}"), std::string("\0", 1)}) {
    EXPECT_EQ(parseModelFile(text).outcome.status, EINVAL) << text;
  }
  EXPECT_EQ(parseModelFile(std::string(kModelFileBytes + 1, ' ')).outcome.status, EFBIG);
}

TEST_F(ModelFileParse, NestingIsBounded) {
  const auto nested = [](std::size_t depth) {
    return R"({"x": )" + std::string(depth - 1, '[') + std::string(depth - 1, ']') + "}";
  };
  EXPECT_TRUE(parseModelFile(nested(kModelFileDepth)).ok());
  EXPECT_EQ(parseModelFile(nested(kModelFileDepth + 1)).outcome.text, "nested too deep");
  EXPECT_TRUE(parseModelFile(R"({"portGroups": {"P": ")" + std::string(200, '[') + R"("}})").ok())
      << "brackets in a text do not nest";
}

TEST_F(ModelFileParse, AnUnknownKeyIsIgnoredAndMentionedOnce) {
  const std::string text = R"({"misspelt )" + model_.directory() + R"(": 1, "cpu": {"cores": 2}})";
  for (int i = 0; i < 2; ++i) EXPECT_EQ(parseModelFile(text).value.cpu.cores, 2U);
  EXPECT_THAT(logged_, ElementsAre(HasSubstr("misspelt")));
}

}  // namespace
}  // namespace platform
