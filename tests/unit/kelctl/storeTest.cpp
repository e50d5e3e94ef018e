// kelctl store, and boot-report as far as it needs no daemon, on a store of the test's own.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "command.h"
#include "configstore/database.h"
#include "failure.h"
#include "host/uniqueFd.h"
#include "modelHost.h"
#include "platform/configstore.h"

namespace {

using kelctl::kDone;
using kelctl::kFailed;
using kelctl::kUsage;
using kelctl::Words;
using Json = nlohmann::ordered_json;

struct Result {
  int status;
  std::string out;
  std::string error;
};

class StoreCommand : public testing::Test {
 protected:
  using Values = std::vector<std::pair<const char*, const char*>>;

  static void store(const char* name, const Values& values, const char* instance = "") {
    ConfigStore::Object* object = nullptr;
    ASSERT_EQ(ConfigStore::CreateObject(name, "qkernel", "orn", instance, "{}", &object), 0);
    for (const auto& [key, value] : values) ASSERT_EQ(ConfigStore::SetValueStr(object, key, value), 0);
    ConfigStore::Store* opened = nullptr;
    ASSERT_EQ(ConfigStore::GetStore(0, &opened), 0);
    EXPECT_EQ(ConfigStore::SetCachedData(opened, object), 0);
    ConfigStore::DestroyConfigStoreObject(object);
    ConfigStore::DestroyStore(opened);
  }
  static void storeReason() {
    store("reboot_reason", {{"type", "REBOOT"},
                            {"user", "root"},
                            {"subsystem", "hagd"},
                            {"timestamp", "Thu, 01 Jan 26 00:00:00 +0000"},
                            {"reason", "planned upgrade"}});
  }
  static Result run(const Words& words) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int status = kelctl::runTool(words);
    return {status, testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr()};
  }
  static void expectFailure(const Words& words, const std::string& reason) {
    const Result result = run(words);
    EXPECT_EQ(result.status, kFailed) << testing::PrintToString(words);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.error, "kelctl: " + reason + "\n");
  }

  support::ModelHost host_;
};

TEST_F(StoreCommand, PrintsValuesInTheirStoredOrder) {
  storeReason();
  const Result result = run({"store", "get", "reboot_reason"});
  EXPECT_EQ(result.status, kDone);
  EXPECT_EQ(result.out,
            "type = REBOOT\nuser = root\nsubsystem = hagd\ntimestamp = Thu, 01 Jan 26 00:00:00 +0000\n"
            "reason = planned upgrade\n");
}

TEST_F(StoreCommand, PrintsThemAsOneJsonObject) {
  storeReason();
  const Json shown = Json::parse(run({"store", "get", "reboot_reason", "--json"}).out);
  const Json expected = Json::parse(
      R"({"type": "REBOOT", "user": "root", "subsystem": "hagd", "timestamp": "Thu, 01 Jan 26 00:00:00 +0000",
          "reason": "planned upgrade"})");
  EXPECT_EQ(shown.dump(), expected.dump());
}

TEST_F(StoreCommand, PrintsOneValueAlone) {
  storeReason();
  EXPECT_EQ(run({"store", "get", "reboot_reason", "subsystem"}).out, "hagd\n");
  EXPECT_EQ(run({"store", "get", "reboot_reason", "subsystem", "--json"}).out, "\"hagd\"\n");
  EXPECT_EQ(run({"store", "get", "--json", "reboot_reason", "subsystem"}).out, "\"hagd\"\n");
}

TEST_F(StoreCommand, WhatIsNotThereIsAFailureThatSaysSo) {
  expectFailure({"store", "get", "reboot_reason"}, "the configuration store has no object 'reboot_reason'");
  expectFailure({"store", "delete", "reboot_reason"}, "the configuration store has no object 'reboot_reason'");
  EXPECT_FALSE(std::filesystem::exists(platform::databasePath()));
  storeReason();
  expectFailure({"store", "get", "nope"}, "the configuration store has no object 'nope'");
  expectFailure({"store", "get", "reboot_reason", "colour"}, "object 'reboot_reason' has no value 'colour'");
}

TEST_F(StoreCommand, ListsObjectsWithTheirNames) {
  EXPECT_EQ(run({"store", "list"}).out, "");
  EXPECT_EQ(run({"store", "list", "--json"}).out, "[]\n");
  store("other", {{"k", "v"}}, "first");
  storeReason();
  EXPECT_EQ(run({"store", "list"}).out,
            "other  # qkernel, orn, first; 1 value\nreboot_reason  # qkernel, orn; 5 values\n");
  const Json shown = Json::parse(run({"store", "list", "--json"}).out);
  ASSERT_EQ(shown.size(), 2U);
  EXPECT_EQ(shown[0].dump(),
            R"({"name":"other","component":"qkernel","product":"orn","instance":"first","values":{"k":"v"}})");
}

TEST_F(StoreCommand, DeletesAnObject) {
  storeReason();
  store("other", {});
  const Result result = run({"store", "delete", "reboot_reason"});
  EXPECT_EQ(result.status, kDone);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(run({"store", "list"}).out, "other  # qkernel, orn; 0 values\n");
}

TEST_F(StoreCommand, HostileTextReachesNoTerminal) {
  store("a\x1b[2J", {{"k\n", "v\x1b]0;t\x07"}, {"b", "\xff"}});
  EXPECT_EQ(run({"store", "list"}).out, "a\\x1b[2J  # qkernel, orn; 2 values\n");
  EXPECT_EQ(run({"store", "get", "a\x1b[2J"}).out, "k\\n = v\\x1b]0;t\\x07\nb = \xff\n");
  EXPECT_EQ(run({"store", "get", "a\x1b[2J", "k\n"}).out, "v\\x1b]0;t\\x07\n");
  EXPECT_EQ(run({"store", "get", "a\x1b[2J", "--json"}).out,
            "{\n  \"k\\n\": \"v\\u001b]0;t\\u0007\",\n  \"b\": \"\xEF\xBF\xBD\"\n}\n");
  expectFailure({"store", "get", "\x1b"}, "the configuration store has no object '\\x1b'");
}

TEST_F(StoreCommand, ADamagedStoreIsAFailure) {
  std::ofstream(platform::databasePath()) << std::string(8192, 'x');
  for (const Words& words : {Words{"store", "list"},
                             {"store", "get", "reboot_reason"},
                             {"store", "delete", "reboot_reason"},
                             {"boot-report", "--dry-run"}}) {
    const Result result = run(words);
    EXPECT_EQ(result.status, kFailed) << testing::PrintToString(words);
    EXPECT_NE(result.error.find("file is not a database"), std::string::npos) << result.error;
  }
}

TEST_F(StoreCommand, WrongUsageIsRefused) {
  for (const Words& words : {Words{"store"},
                             {"store", "nope"},
                             {"store", "get"},
                             {"store", "delete"},
                             {"store", "delete", "a", "b"},
                             {"store", "delete", "a", "--json"},
                             {"store", "list", "a"},
                             {"store", "get", "a", "b", "c"},
                             {"boot-report", "x"},
                             {"boot-report", "--timeout", "0"},
                             {"boot-report", "--timeout", "x"}}) {
    const Result result = run(words);
    EXPECT_EQ(result.status, kUsage) << testing::PrintToString(words);
    EXPECT_EQ(result.out, "");
  }
}

TEST_F(StoreCommand, ADryRunOfTheBootReportPrintsTheObservationAndChangesNothing) {
  EXPECT_EQ(run({"boot-report", "--dry-run"}).out, "kelctl emit kel.user.host.reboot.reason.unavailable\n");
  storeReason();
  EXPECT_EQ(run({"boot-report", "--dry-run"}).out,
            "kelctl emit kel.user.host.reboot.reason.management s:root s:hagd 's:Thu, 01 Jan 26 00:00:00 +0000' "
            "'s:planned upgrade'\n");
  EXPECT_EQ(run({"store", "get", "reboot_reason"}).status, kDone);
  EXPECT_FALSE(std::filesystem::exists(host_.runDirectory() + "/boot-reported"));
}

TEST_F(StoreCommand, TheBootReportTakesOnlyTheDaemonsRecord) {
  store("reboot_reason", {{"reason", "of another instance"}}, "0");
  EXPECT_EQ(run({"boot-report", "--dry-run"}).out, "kelctl emit kel.user.host.reboot.reason.unavailable\n");
}

TEST_F(StoreCommand, OneBootReportRunsAtATime) {
  storeReason();
  const platform::UniqueFd other(::open(host_.runDirectory().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_EQ(::flock(other.get(), LOCK_EX), 0);
  expectFailure({"boot-report"}, "another boot-report is at work");
  EXPECT_EQ(run({"store", "get", "reboot_reason", "user"}).out, "root\n");
}

TEST_F(StoreCommand, WithoutADaemonTheRecordStays) {
  storeReason();
  const std::string socket = host_.runDirectory() + "/kel/user.sock";
  expectFailure({"boot-report", "--timeout", "0.05"},
                "cannot reach keld at " + socket + ": No such file or directory; is keld running?");
  std::filesystem::remove_all(host_.runDirectory());
  expectFailure({"boot-report", "--timeout", "0.05"},
                "cannot use " + host_.runDirectory() + ": No such file or directory; is keld running?");
  EXPECT_EQ(run({"store", "get", "reboot_reason", "user"}).out, "root\n");
}

}  // namespace
