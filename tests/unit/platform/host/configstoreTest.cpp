#include "platform/configstore.h"

#include <cerrno>
#include <filesystem>
#include <memory>

#include "configstore/database.h"
#include "configstore/read.h"
#include "host/options.h"
#include "hostFixture.h"

namespace {

using platform::listStoredObjects;
using platform::readStoredObject;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

class Configuration : public HostTest {
 protected:
  using Values = std::vector<std::pair<const char*, const char*>>;

  static int store(const char* name, const Values& values, const char* initial = "{}", const char* instance = "") {
    ConfigStore::Object* object = nullptr;
    int status = ConfigStore::CreateObject(name, "qkernel", "orn", instance, initial, &object);
    for (const auto& [key, value] : values) {
      if (status == 0) status = ConfigStore::SetValueStr(object, key, value);
    }
    ConfigStore::Store* opened = nullptr;
    if (status == 0) status = ConfigStore::GetStore(0, &opened);
    if (status == 0) status = ConfigStore::SetCachedData(opened, object);
    ConfigStore::DestroyConfigStoreObject(object);
    ConfigStore::DestroyStore(opened);
    return status;
  }
};

TEST_F(Configuration, AnObjectIsReadBackInTheOrderItWasSet) {
  EXPECT_EQ(store("reboot_reason", {{"type", "REBOOT"}, {"user", "root"}, {"reason", "because \xE2\x82\xAC"}}), 0);
  const auto object = readStoredObject("reboot_reason");
  ASSERT_TRUE(object.ok());
  EXPECT_EQ(object.value.name, "reboot_reason");
  EXPECT_EQ(object.value.component, "qkernel");
  EXPECT_EQ(object.value.product, "orn");
  EXPECT_EQ(object.value.instance, "");
  EXPECT_THAT(object.value.values,
              ElementsAre(Pair("type", "REBOOT"), Pair("user", "root"), Pair("reason", "because \xE2\x82\xAC")));
}

TEST_F(Configuration, StoringReplacesTheWholeObject) {
  ASSERT_EQ(store("reboot_reason", {{"type", "REBOOT"}, {"user", "root"}}), 0);
  ASSERT_EQ(store("reboot_reason", {{"type", "POWEROFF"}}), 0);
  EXPECT_THAT(readStoredObject("reboot_reason").value.values, ElementsAre(Pair("type", "POWEROFF")));
  EXPECT_EQ(listStoredObjects().value.size(), 1U);
}

TEST_F(Configuration, SettingAKeyAgainKeepsItsPlace) {
  ASSERT_EQ(store("object", {{"a", "1"}, {"b", "2"}, {"a", "3"}}, R"({"z": "0"})"), 0);
  EXPECT_THAT(readStoredObject("object").value.values, ElementsAre(Pair("z", "0"), Pair("a", "3"), Pair("b", "2")));
}

TEST_F(Configuration, ObjectsDifferInAnyOfTheirNames) {
  ASSERT_EQ(store("object", {{"k", "second"}}, "{}", "2"), 0);
  ASSERT_EQ(store("object", {{"k", "first"}}, "{}", "1"), 0);
  ASSERT_EQ(store("another", {}), 0);
  std::vector<std::string> names;
  for (const auto& object : listStoredObjects().value) names.push_back(object.name + "/" + object.instance);
  EXPECT_THAT(names, ElementsAre("another/", "object/1", "object/2"));
  EXPECT_THAT(readStoredObject("object").value.values, ElementsAre(Pair("k", "first")));
  EXPECT_THAT(readStoredObject("another").value.values, IsEmpty());
}

TEST_F(Configuration, NothingIsStoredUntilItIsHandedOver) {
  ConfigStore::Object* object = nullptr;
  ASSERT_EQ(ConfigStore::CreateObject("object", "qkernel", "orn", "", "{}", &object), 0);
  ASSERT_EQ(ConfigStore::SetValueStr(object, "k", "v"), 0);
  ConfigStore::DestroyConfigStoreObject(object);
  EXPECT_EQ(readStoredObject("object").outcome.status, ENOENT);
  EXPECT_FALSE(std::filesystem::exists(platform::databasePath()));
}

TEST_F(Configuration, AnObjectCanBeRemoved) {
  EXPECT_EQ(platform::deleteStoredObject("object").status, ENOENT);
  ASSERT_EQ(store("object", {{"k", "v"}}), 0);
  ASSERT_EQ(store("other", {{"k", "v"}}), 0);
  EXPECT_TRUE(platform::deleteStoredObject("object").ok());
  EXPECT_EQ(readStoredObject("object").outcome.status, ENOENT);
  EXPECT_TRUE(readStoredObject("other").ok());
  EXPECT_EQ(platform::deleteStoredObject("object").status, ENOENT);
}

TEST_F(Configuration, AnObjectIsFoundByAllItsNames) {
  ASSERT_EQ(store("object", {{"k", "first"}}, "{}", "1"), 0);
  ASSERT_EQ(store("object", {{"k", "second"}}, "{}", "2"), 0);
  EXPECT_THAT(readStoredObject("object", "qkernel", "orn", "2").value.values, ElementsAre(Pair("k", "second")));
  EXPECT_EQ(readStoredObject("object", "qkernel", "orn", "").outcome.status, ENOENT);
  EXPECT_EQ(readStoredObject("object", "other", "orn", "1").outcome.status, ENOENT);
  EXPECT_EQ(readStoredObject("object", "qkernel", "other", "1").outcome.status, ENOENT);
}

TEST_F(Configuration, AnUnchangedObjectIsRemoved) {
  ASSERT_EQ(store("object", {{"k", "v"}, {"l", "w"}}, "{}", "1"), 0);
  ASSERT_EQ(store("object", {{"k", "v"}, {"l", "w"}}, "{}", "2"), 0);
  const auto known = readStoredObject("object", "qkernel", "orn", "2");
  ASSERT_TRUE(known.ok());
  EXPECT_TRUE(platform::deleteUnchangedObject(known.value).ok());
  EXPECT_EQ(readStoredObject("object", "qkernel", "orn", "2").outcome.status, ENOENT);
  EXPECT_THAT(readStoredObject("object", "qkernel", "orn", "1").value.values,
              ElementsAre(Pair("k", "v"), Pair("l", "w")));
  EXPECT_EQ(platform::deleteUnchangedObject(known.value).status, ENOENT);
}

TEST_F(Configuration, AChangedObjectIsNotRemoved) {
  using Changed = std::vector<std::pair<std::string, std::string>>;
  ASSERT_EQ(store("object", {{"k", "v"}, {"l", "w"}}), 0);
  const auto known = readStoredObject("object");
  const std::pair<Values, Changed> changes[] = {{{{"k", "v"}, {"l", "x"}}, {{"k", "v"}, {"l", "x"}}},
                                                {{{"l", "w"}, {"k", "v"}}, {{"l", "w"}, {"k", "v"}}},
                                                {{{"k", "v"}}, {{"k", "v"}}},
                                                {{}, {}}};
  for (const auto& [values, left] : changes) {
    ASSERT_EQ(store("object", values), 0);
    EXPECT_EQ(platform::deleteUnchangedObject(known.value).status, ESTALE);
    EXPECT_EQ(readStoredObject("object").value.values, left);
  }
}

TEST_F(Configuration, OfAStoreThatIsNotThereNothingIsRemoved) {
  EXPECT_EQ(platform::deleteUnchangedObject({"object", "qkernel", "orn", "", {}}).status, ENOENT);
  EXPECT_FALSE(std::filesystem::exists(platform::databasePath()));
}

TEST_F(Configuration, AStoreIsMadeWithWhatIsMissingOfItsPath) {
  const std::string deep = model_.directory() + "/a/b/c";
  const ScopedVariable state("KORVEL_STATE_DIR", deep.c_str());
  ASSERT_EQ(store("object", {{"k", "v"}}), 0);
  EXPECT_TRUE(readStoredObject("object").ok());
  std::size_t files = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(deep)) ++files;
  EXPECT_EQ(files, 1U);
}

TEST_F(Configuration, ProvokedFailuresAreReturned) {
  model_.write(R"({"failures": {"store.create": 12}})");
  ConfigStore::Object* object = nullptr;
  EXPECT_EQ(ConfigStore::CreateObject("object", "qkernel", "orn", "", "{}", &object), 12);
  EXPECT_EQ(object, nullptr);
  model_.write("{}");
  ASSERT_EQ(store("object", {{"k", "old"}}), 0);
  model_.write(R"({"failures": {"store.write": 28}})");
  EXPECT_EQ(store("object", {{"k", "new"}}), 28);
  EXPECT_THAT(readStoredObject("object").value.values, ElementsAre(Pair("k", "old")));
}

TEST_F(Configuration, BadCallsAreRefused) {
  ConfigStore::Object* object = nullptr;
  EXPECT_EQ(ConfigStore::CreateObject(nullptr, "", "", "", "{}", &object), EINVAL);
  EXPECT_EQ(ConfigStore::CreateObject("", "", "", "", "{}", &object), EINVAL);
  EXPECT_EQ(ConfigStore::CreateObject("o", "", "", "", nullptr, &object), EINVAL);
  EXPECT_EQ(ConfigStore::CreateObject("o", "", "", "", "[]", &object), EINVAL);
  EXPECT_EQ(ConfigStore::CreateObject("o", "", "", "", R"({"k": 1})", &object), EINVAL);
  EXPECT_EQ(ConfigStore::CreateObject("o", "", "", "", "{}", nullptr), EINVAL);
  EXPECT_EQ(object, nullptr);
  EXPECT_EQ(ConfigStore::SetValueStr(nullptr, "k", "v"), EINVAL);
  EXPECT_EQ(ConfigStore::SetCachedData(nullptr, nullptr), EINVAL);
  ConfigStore::Store* opened = nullptr;
  EXPECT_EQ(ConfigStore::GetStore(1, &opened), EINVAL);
  EXPECT_EQ(ConfigStore::GetStore(0, nullptr), EINVAL);
  ConfigStore::DestroyStore(nullptr);
  ConfigStore::DestroyConfigStoreObject(nullptr);
}

TEST_F(Configuration, AnObjectIsBounded) {
  EXPECT_EQ(store("object", {{"k", std::string(65537, 'x').c_str()}}), E2BIG);
  EXPECT_EQ(store("object", {{"k", std::string(65536, 'x').c_str()}}), 0);
  ConfigStore::Object* object = nullptr;
  ASSERT_EQ(ConfigStore::CreateObject("object", "", "", "", "{}", &object), 0);
  int status = 0;
  for (int i = 0; i < 5000 && status == 0; ++i) {
    status = ConfigStore::SetValueStr(object, std::to_string(i).c_str(), "v");
  }
  EXPECT_EQ(status, E2BIG);
  ConfigStore::DestroyConfigStoreObject(object);
}

TEST_F(Configuration, AStoreThatCannotBeOpenedIsAnError) {
  std::filesystem::remove_all(model_.directory() + "/state");
  std::ofstream(model_.directory() + "/state") << "a file";
  ConfigStore::Store* opened = nullptr;
  EXPECT_EQ(ConfigStore::GetStore(0, &opened), ENOTDIR);
  EXPECT_EQ(opened, nullptr);
}

TEST_F(Configuration, ADamagedStoreIsAnErrorForReadersAndWriters) {
  std::ofstream(platform::databasePath()) << std::string(8192, 'x');
  EXPECT_NE(store("object", {{"k", "v"}}), 0);
  EXPECT_FALSE(listStoredObjects().ok());
  EXPECT_FALSE(readStoredObject("object").ok());
  EXPECT_FALSE(platform::deleteStoredObject("object").ok());
}

TEST_F(Configuration, OptionsAndObjectsShareTheStore) {
  ASSERT_EQ(store("object", {{"k", "v"}}), 0);
  ASSERT_TRUE(platform::setOption("Net/LinkFlappingThreshold", 3).ok());
  EXPECT_TRUE(readStoredObject("object").ok());
  EXPECT_EQ(platform::readOption("Net/LinkFlappingThreshold").value.value, 3);
}

TEST_F(Configuration, SeveralStoresMayBeOpenAtOnce) {
  ConfigStore::Store* first = nullptr;
  ConfigStore::Store* second = nullptr;
  ASSERT_EQ(ConfigStore::GetStore(0, &first), 0);
  ASSERT_EQ(ConfigStore::GetStore(0, &second), 0);
  ConfigStore::Object* object = nullptr;
  ASSERT_EQ(ConfigStore::CreateObject("object", "", "", "", R"({"k": "v"})", &object), 0);
  EXPECT_EQ(ConfigStore::SetCachedData(first, object), 0);
  EXPECT_EQ(ConfigStore::SetCachedData(second, object), 0);
  ConfigStore::DestroyConfigStoreObject(object);
  ConfigStore::DestroyStore(first);
  ConfigStore::DestroyStore(second);
}

}  // namespace
