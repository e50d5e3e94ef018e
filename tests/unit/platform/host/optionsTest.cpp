#include "host/options.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <thread>

#include "configstore/database.h"
#include "hostFixture.h"

namespace platform {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class Options : public HostTest {};

constexpr const char* kFlapping = "Net/LinkFlappingThreshold";

TEST_F(Options, TheDefaultsHoldWhereNothingElseSpeaks) {
  const std::pair<const char*, std::int64_t> defaults[] = {{"PageRetire/PageErrorCorrThreshold", 2},
                                                           {"PageRetire/PageErrorCorrPeriod", 30},
                                                           {"PageRetire/ThresholdInterval", 10},
                                                           {"PageRetire/ApeiLoggingEnabled", 0},
                                                           {"Cpu/CPUOfflineThreshold", 0},
                                                           {"Net/LinkFlappingThreshold", 0},
                                                           {"Misc/KelAsyncEnable", 1}};
  for (const auto& [name, value] : defaults) {
    const auto option = readOption(name);
    ASSERT_TRUE(option.ok()) << name;
    EXPECT_EQ(option.value.value, value) << name;
    EXPECT_EQ(option.value.origin, "default") << name;
  }
  EXPECT_EQ(readOption("Net/Other").outcome.status, ENOENT);
}

TEST_F(Options, StoredBeatsHostBeatsFileBeatsDefault) {
  writeConf("options.conf", "Net/LinkFlappingThreshold = 3\n");
  EXPECT_EQ(readOption(kFlapping).value.value, 3);
  EXPECT_EQ(readOption(kFlapping).value.origin, "options.conf");
  model_.write(R"({"options": {"Net/LinkFlappingThreshold": 4}})");
  EXPECT_EQ(readOption(kFlapping).value.value, 4);
  EXPECT_EQ(readOption(kFlapping).value.origin, "host");
  EXPECT_TRUE(setOption(kFlapping, 5).ok());
  EXPECT_EQ(readOption(kFlapping).value.value, 5);
  EXPECT_EQ(readOption(kFlapping).value.origin, "stored");
  EXPECT_TRUE(setOption(kFlapping, -6).ok());
  EXPECT_EQ(readOption(kFlapping).value.value, -6);
}

TEST_F(Options, ReadingFailsWhereItWasMadeToEvenForAStoredValue) {
  ASSERT_TRUE(setOption(kFlapping, 5).ok());
  model_.write(R"({"failures": {"option.read:Net/LinkFlappingThreshold": 5}})");
  EXPECT_EQ(readOption(kFlapping).outcome.status, 5);
  EXPECT_TRUE(readOption("Misc/KelAsyncEnable").ok());
}

TEST_F(Options, SettingIsAnActionOfTheHost) {
  ASSERT_TRUE(setOption(kFlapping, 5).ok());
  EXPECT_THAT(model_.actions(),
              ElementsAre(R"({"action":"option.set","option":"Net/LinkFlappingThreshold","value":5})"));
}

TEST_F(Options, ASettingThatFailsChangesNothing) {
  model_.write(R"({"failures": {"option.set": 5}})");
  EXPECT_EQ(setOption(kFlapping, 5).status, 5);
  EXPECT_TRUE(model_.actions().empty());
  EXPECT_EQ(readOption(kFlapping).value.value, 0);
}

TEST_F(Options, AnythingOfTheFormGroupAndNameMayBeSet) {
  EXPECT_TRUE(setOption("Disk/Path/Deep", 1).ok());
  EXPECT_EQ(readOption("Disk/Path/Deep").value.value, 1);
  for (const std::string name : {"", "NoSlash", "/Name", "Group/", "Gr oup/Name", "A/b=c", "A/b\n"}) {
    EXPECT_EQ(setOption(name, 1).status, EINVAL) << name;
  }
  EXPECT_EQ(setOption("A/" + std::string(300, 'b'), 1).status, EINVAL);
  EXPECT_EQ(model_.actions().size(), 1U);
}

TEST_F(Options, ReadingMakesNoStore) {
  (void)readOption(kFlapping);
  (void)listOptions();
  EXPECT_FALSE(std::filesystem::exists(databasePath()));
}

TEST_F(Options, TheStoreIsTheOwnersAlone) {
  ASSERT_TRUE(setOption(kFlapping, 5).ok());
  struct stat facts {};
  ASSERT_EQ(::stat(databasePath().c_str(), &facts), 0);
  EXPECT_EQ(facts.st_mode & 07777, 0600U);
}

TEST_F(Options, ADamagedStoreFailsAndIsMentioned) {
  std::ofstream(databasePath()) << std::string(4096, 'x');
  EXPECT_NE(readOption(kFlapping).outcome.status, 0);
  EXPECT_NE(setOption(kFlapping, 1).status, 0);
  EXPECT_THAT(model_.actions(), IsEmpty());
}

TEST_F(Options, AStoreThatIsTakenAwayOrReplacedIsNoticed) {
  ASSERT_TRUE(setOption(kFlapping, 5).ok());
  EXPECT_EQ(readOption(kFlapping).value.value, 5);
  std::filesystem::rename(databasePath(), databasePath() + ".old");
  EXPECT_EQ(readOption(kFlapping).value.origin, "default");
  ASSERT_TRUE(setOption(kFlapping, 6).ok());
  EXPECT_EQ(readOption(kFlapping).value.value, 6);
  std::filesystem::rename(databasePath() + ".old", databasePath());
  EXPECT_EQ(readOption(kFlapping).value.value, 5);
}

TEST_F(Options, AValueSetByAnotherProcessIsSeenAtOnce) {
  ASSERT_TRUE(setOption(kFlapping, 1).ok());
  for (int value = 2; value < 6; ++value) {
    EXPECT_EQ(readOption(kFlapping).value.value, value - 1);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    // The child, too, reads with what its parent had open, and writes.
    if (child == 0) {
      const bool inherited = readOption(kFlapping).value.value == value - 1;
      _exit(inherited && setOption(kFlapping, value).ok() && readOption(kFlapping).value.value == value ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_EQ(status, 0);
    EXPECT_EQ(readOption(kFlapping).value.value, value);
  }
}

TEST_F(Options, ThreadsReadWhileOthersWrite) {
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int i = 0; i < 2; ++i) {
    threads.emplace_back([] {
      for (int n = 0; n < 10; ++n) EXPECT_TRUE(setOption(kFlapping, n).ok());
    });
    threads.emplace_back([] {
      for (int n = 0; n < 100; ++n) EXPECT_TRUE(readOption(kFlapping).ok());
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(readOption(kFlapping).value.value, 9);
}

TEST_F(Options, AnEmptyStoreHasNoValues) {
  std::ofstream(databasePath()) << "";
  EXPECT_EQ(readOption(kFlapping).value.origin, "default");
}

TEST_F(Options, TheLastLineOfTheFileCountsAndBadOnesAreLoggedOnce) {
  writeConf("options.conf",
            "# thresholds\n"
            "Net/LinkFlappingThreshold = 3\n"
            "Net/LinkFlappingThreshold = 7   # seven\n"
            "Misc/KelAsyncEnable = many\n"
            "NoGroup = 1\n"
            "PageRetire/ThresholdInterval 5\n"
            "PageRetire/PageErrorCorrPeriod = 9223372036854775808\n");
  for (int i = 0; i < 2; ++i) EXPECT_EQ(readOption(kFlapping).value.value, 7);
  EXPECT_EQ(readOption("Misc/KelAsyncEnable").value.origin, "default");
  EXPECT_THAT(logged_,
              ::testing::UnorderedElementsAre(HasSubstr("options.conf, line 4:"), HasSubstr("options.conf, line 5:"),
                                              HasSubstr("options.conf, line 6:"), HasSubstr("options.conf, line 7:")));
}

TEST_F(Options, TheListHasEveryKnownOptionByName) {
  writeConf("options.conf", "Zoo/FromFile = 1\n");
  model_.write(R"({"options": {"Abc/FromHost": 2, "Net/LinkFlappingThreshold": 3},
                   "failures": {"option.read:Misc/KelAsyncEnable": 5}})");
  ASSERT_TRUE(setOption("Mid/Stored", 4).ok());
  std::vector<std::string> lines;
  for (const OptionFacts& option : listOptions()) {
    lines.push_back(option.name + "=" + std::to_string(option.value) + " " + option.origin);
  }
  EXPECT_THAT(lines,
              ElementsAre("Abc/FromHost=2 host", "Cpu/CPUOfflineThreshold=0 default", "Mid/Stored=4 stored",
                          "Net/LinkFlappingThreshold=3 host", "PageRetire/ApeiLoggingEnabled=0 default",
                          "PageRetire/PageErrorCorrPeriod=30 default", "PageRetire/PageErrorCorrThreshold=2 default",
                          "PageRetire/ThresholdInterval=10 default", "Zoo/FromFile=1 options.conf"));
}

}  // namespace
}  // namespace platform
