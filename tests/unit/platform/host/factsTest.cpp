#include "host/facts.h"

#include <filesystem>

#include "host/options.h"
#include "hostFixture.h"
#include "model/modelFile.h"

namespace platform {
namespace {

using Json = nlohmann::json;

class Facts : public HostTest {
 protected:
  /// The facts, without a scratch partition.
  [[nodiscard]] Json facts() const { return hostFacts(model_.directory() + "/nowhere"); }
};

TEST_F(Facts, OfAModelledHostAreItsFileWithTheOptionsInForce) {
  const std::string model = R"({"portGroups": {"Production": "switch0"}, "options": {"Own/Option": 7},
      "vms": [{"worldId": 1}], "failures": {"nic.down": "text"}, "datastorePaths": {"/data/": "d: "}, "mine": [1, null]})";
  model_.write(model);
  Json expected = Json::parse(model);
  expected["options"] = optionsInForce();
  EXPECT_EQ(facts(), expected);
  EXPECT_EQ(facts()["options"]["Own/Option"], 7);
  EXPECT_EQ(facts()["options"]["PageRetire/PageErrorCorrPeriod"], 30) << "a default";
}

TEST_F(Facts, ShowAnOptionThatWasSetNotTheFiles) {
  model_.write(R"({"options": {"Net/LinkFlappingThreshold": 3}})");
  ASSERT_TRUE(setOption("Net/LinkFlappingThreshold", 5).ok());
  EXPECT_EQ(facts()["options"]["Net/LinkFlappingThreshold"], 5);
}

TEST_F(Facts, KeepAnOptionThatTheModelMakesUnreadable) {
  model_.write(R"({"options": {"A/b": 3}, "failures": {"option.read:A/b": 5}})");
  EXPECT_EQ(facts()["options"]["A/b"], 3);
  EXPECT_EQ(facts()["failures"]["option.read:A/b"], 5);
}

TEST_F(Facts, HaveNoNullThatAMergePatchCouldNotSet) {
  model_.write(R"({"remark": null, "more": {"a": null, "b": 1}})");
  EXPECT_FALSE(facts().contains("remark"));
  EXPECT_EQ(facts()["more"], Json::parse(R"({"b": 1})"));
}

TEST_F(Facts, OfAFileThatIsNoModelAreNone) {
  for (const char* const text : {"{", "[]", R"({"vms": 7})"}) {
    model_.write(text);
    EXPECT_EQ(facts(), Json::parse(R"({"options": {}})")) << text;
  }
}

TEST_F(Facts, NameTheTargetOfTheScratchLink) {
  const std::string link = model_.directory() + "/scratch";
  std::filesystem::create_symlink("/cvfs/volumes/5f-12", link);
  EXPECT_EQ(hostFacts(link)["scratch"], "/cvfs/volumes/5f-12");
  std::filesystem::remove(link);
  std::filesystem::create_directory(link);
  EXPECT_FALSE(hostFacts(link).contains("scratch")) << "a directory is no link";
  model_.write(R"({"scratch": "/elsewhere"})");
  EXPECT_FALSE(hostFacts(link).contains("scratch")) << "the daemon reads the link whatever the file says";
}

}  // namespace
}  // namespace platform
