#include "host/paths.h"

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "host/complaints.h"
#include "host/files.h"
#include "hostFixture.h"

namespace platform {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Pair;

class Paths : public HostTest {};
class Conf : public HostTest {};
class Files : public HostTest {};

mode_t modeOf(const std::string& path) {
  struct stat facts {};
  return ::stat(path.c_str(), &facts) == 0 ? facts.st_mode & 07777 : 0;
}

TEST_F(Paths, DefaultsHoldWhereTheEnvironmentIsSilentOrEmpty) {
  const ScopedVariable run("KORVEL_RUN_DIR", nullptr);
  const ScopedVariable state("KORVEL_STATE_DIR", "");
  const ScopedVariable conf("KORVEL_CONF_DIR", nullptr);
  const ScopedVariable host("KORVEL_HOST", nullptr);
  EXPECT_EQ(runDirectory(), "/var/run/korvel");
  EXPECT_EQ(stateDirectory(), "/var/lib/korvel");
  EXPECT_EQ(confDirectory(), "/etc/korvel");
  EXPECT_EQ(hostDescription(), "linux");
}

TEST_F(Paths, TheEnvironmentIsReadAtEachCall) {
  const ScopedVariable first("KORVEL_RUN_DIR", "/first");
  EXPECT_EQ(runDirectory(), "/first");
  const ScopedVariable second("KORVEL_RUN_DIR", "/second");
  EXPECT_EQ(runDirectory(), "/second");
}

TEST_F(Paths, APrivateDirectoryIsMadeWithItsParents) {
  const std::string path = model_.directory() + "/a/b/c";
  EXPECT_EQ(makePrivateDirectory(path), 0);
  EXPECT_EQ(modeOf(path), 0700U);
  EXPECT_EQ(modeOf(model_.directory() + "/a"), 0700U);
  EXPECT_EQ(makePrivateDirectory(path), 0) << "a directory that is there will do";
  EXPECT_EQ(makePrivateDirectory(path + "/"), 0);
}

TEST_F(Paths, AFileInADirectorysPlaceIsAnError) {
  std::ofstream(model_.directory() + "/file") << "x";
  EXPECT_EQ(makePrivateDirectory(model_.directory() + "/file"), ENOTDIR);
  EXPECT_EQ(makePrivateDirectory(model_.directory() + "/file/below"), ENOTDIR);
  EXPECT_EQ(makePrivateDirectory(""), ENOENT);
}

TEST_F(Paths, WithoutAGroupASocketIsItsOwnersAndADirectoryKeepsItsMode) {
  const std::string file = model_.directory() + "/socket";
  std::ofstream(file) << "";
  std::filesystem::permissions(file, std::filesystem::perms(0755));
  EXPECT_EQ(applyAccess(file, false), 0);
  EXPECT_EQ(modeOf(file), 0600U);
  const std::string directory = model_.runDirectory();
  std::filesystem::permissions(directory, std::filesystem::perms(0750));
  EXPECT_EQ(applyAccess(directory, true), 0);
  EXPECT_EQ(modeOf(directory), 0750U);
}

TEST_F(Paths, AGroupOfPlatformConfGetsAccess) {
  const group* const own = ::getgrgid(::getegid());
  if (own == nullptr) GTEST_SKIP() << "SKIPPED: the group " << ::getegid() << " of this process has no name";
  writeConf("platform.conf", std::string("access.group = ") + own->gr_name + "\n");
  const std::string file = model_.directory() + "/socket";
  std::ofstream(file) << "";
  EXPECT_EQ(applyAccess(file, false), 0);
  EXPECT_EQ(modeOf(file), 0660U);
  EXPECT_EQ(applyAccess(model_.runDirectory(), true), 0);
  EXPECT_EQ(modeOf(model_.runDirectory()), 01770U);
}

TEST_F(Paths, AnUnknownGroupLeavesASocketToItsOwner) {
  writeConf("platform.conf", "access.group = no-such-group-here\n");
  const std::string file = model_.directory() + "/socket";
  std::ofstream(file) << "";
  EXPECT_EQ(applyAccess(file, false), ENOENT);
  EXPECT_EQ(modeOf(file), 0600U);
}

TEST_F(Paths, AccessIsNeverGivenThroughASymbolicLink) {
  const std::string target = model_.directory() + "/target";
  std::ofstream(target) << "";
  std::filesystem::permissions(target, std::filesystem::perms(0644));
  std::filesystem::create_symlink(target, model_.directory() + "/link");
  EXPECT_NE(applyAccess(model_.directory() + "/link", false), 0);
  EXPECT_EQ(modeOf(target), 0644U);
}

TEST_F(Conf, SettingsAreKeysAndValuesWithoutTheBlanksAround) {
  const PlatformConf conf = PlatformConf::parse(
      "# who may talk to us\n"
      "\n"
      "  access.group = operators  # trailing\n"
      "portGroup VM Network = br0\r\n"
      "portGroup Storage=br1\n"
      "nics.exclude = usb* veth*",
      "platform.conf");
  EXPECT_EQ(conf.value("access.group"), "operators");
  EXPECT_EQ(conf.value("nics.exclude"), "usb* veth*");
  EXPECT_THAT(conf.named("portGroup"), ElementsAre(Pair("VM Network", "br0"), Pair("Storage", "br1")));
  EXPECT_EQ(conf.value("absent"), std::nullopt);
}

TEST_F(Conf, AKeyMayStandSeveralTimesAndTheLastCountsAsItsValue) {
  const PlatformConf conf = PlatformConf::parse("k = 1\nk = 2\n", "platform.conf");
  EXPECT_THAT(conf.values("k"), ElementsAre("1", "2"));
  EXPECT_EQ(conf.value("k"), "2");
}

TEST_F(Conf, ANameThatOnlyBeginsLikeThePrefixIsAnother) {
  const PlatformConf conf = PlatformConf::parse("portGroups = x\nportGroup = y\n", "platform.conf");
  EXPECT_THAT(conf.named("portGroup"), IsEmpty());
}

TEST_F(Conf, AHashInsideAWordIsNoComment) {
  EXPECT_EQ(PlatformConf::parse("k = a#b #c\n", "platform.conf").value("k"), "a#b");
}

TEST_F(Conf, ABadLineIsLoggedOnceWithItsNumberAndSkipped) {
  const std::string file = model_.directory() + "/conf/platform.conf";
  writeConf("platform.conf", "good = 1\nno equals sign\n= 3\nkey =\n");
  for (int load = 0; load < 2; ++load) EXPECT_EQ(PlatformConf::load().value("good"), "1");
  EXPECT_THAT(logged_,
              ElementsAre(HasSubstr(file + ", line 2:"), HasSubstr(file + ", line 3:"), HasSubstr(file + ", line 4:")));
}

TEST_F(Conf, AMissingFileIsAnEmptyConfiguration) {
  EXPECT_EQ(PlatformConf::load().value("access.group"), std::nullopt);
  EXPECT_THAT(logged_, IsEmpty());
}

TEST_F(Files, ReadingIsBoundedAndTakesRegularFilesOnly) {
  const std::string path = model_.directory() + "/text";
  std::ofstream(path) << "12345";
  EXPECT_EQ(readFile(path, 5).value, "12345");
  EXPECT_EQ(readFile(path, 4).outcome.status, EFBIG);
  EXPECT_EQ(readFile(path + "-absent", 4).outcome.status, ENOENT);
  EXPECT_EQ(readFile(model_.directory(), 4).outcome.status, EINVAL);
  EXPECT_EQ(readFile("/dev/zero", 4).outcome.status, EINVAL);
}

TEST_F(Files, AnAppendedLineMakesTheFileAndItsDirectory) {
  const std::string path = model_.directory() + "/new/lines";
  EXPECT_EQ(appendLine(path, "one"), 0);
  EXPECT_EQ(appendLine(path, "two"), 0);
  EXPECT_EQ(contentOf(path), "one\ntwo\n");
  EXPECT_EQ(modeOf(path), 0600U);
}

TEST_F(Files, AFullDiskIsAnError) {
  EXPECT_EQ(appendLine("/dev/full", "text"), ENOSPC);
}

TEST_F(Files, AStandingConditionIsMentionedOnce) {
  for (int i = 0; i < 3; ++i) logSparsely(model_.directory(), "trouble");
  EXPECT_THAT(logged_, ElementsAre("trouble"));
}

TEST_F(Files, ALogLineCannotBeForgedByAText) {
  platformLog("name: %s", "a\nkelplat: b\x1b");
  EXPECT_THAT(logged_, ElementsAre("name: a kelplat: b "));
}

}  // namespace
}  // namespace platform
