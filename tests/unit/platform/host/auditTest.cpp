#include "platform/audit.h"

#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "hostFixture.h"

namespace {

using nlohmann::json;

class Audit : public HostTest {
 protected:
  [[nodiscard]] std::vector<json> records() const {
    std::ifstream in(statePath("audit.jsonl"));
    std::vector<json> all;
    for (std::string line; std::getline(in, line);) all.push_back(json::parse(line, nullptr, false));
    return all;
  }
};

TEST_F(Audit, ARecordIsOneJsonLine) {
  const auto before = std::chrono::system_clock::now();
  EXPECT_EQ(KrvAudit_Log("nic.down", "alice", "vmnic0: \"flapping\"\n", true), 0);
  const std::vector<json> all = records();
  ASSERT_EQ(all.size(), 1U);
  EXPECT_EQ(all[0].size(), 5U);
  EXPECT_EQ(all[0]["record"], "nic.down");
  EXPECT_EQ(all[0]["user"], "alice");
  EXPECT_EQ(all[0]["text"], "vmnic0: \"flapping\"\n");
  EXPECT_EQ(all[0]["flag"], true);
  const auto time = std::chrono::microseconds(all[0]["time_us"].get<std::int64_t>());
  EXPECT_GE(time, std::chrono::floor<std::chrono::microseconds>(before.time_since_epoch()));
  EXPECT_LE(time, std::chrono::system_clock::now().time_since_epoch());
  struct stat facts {};
  ASSERT_EQ(::stat(statePath("audit.jsonl").c_str(), &facts), 0);
  EXPECT_EQ(facts.st_mode & 07777, 0600U);
}

TEST_F(Audit, WithoutAUserTheProcesssOwnIsRecorded) {
  EXPECT_EQ(KrvAudit_Log("record", nullptr, "text", false), 0);
  const passwd* const own = ::getpwuid(::geteuid());
  EXPECT_EQ(records().at(0)["user"], own != nullptr ? std::string(own->pw_name) : std::to_string(::geteuid()));
  EXPECT_EQ(records().at(0)["flag"], false);
}

TEST_F(Audit, BytesThatAreNoUtf8AreReplaced) {
  EXPECT_EQ(KrvAudit_Log("a\xff"
                         "b",
                         "\xc3", "\xed\xa0\x80", false),
            0);
  const std::vector<json> all = records();
  ASSERT_EQ(all.size(), 1U);
  ASSERT_TRUE(all[0].is_object());
  EXPECT_EQ(all[0]["record"],
            "a\xEF\xBF\xBD"
            "b");
}

TEST_F(Audit, RecordsAreAppended) {
  for (int i = 0; i < 3; ++i) EXPECT_EQ(KrvAudit_Log("record", "u", std::to_string(i).c_str(), false), 0);
  EXPECT_EQ(records().size(), 3U);
  EXPECT_EQ(records().at(2)["text"], "2");
}

TEST_F(Audit, NullsAreNoCrash) {
  EXPECT_EQ(KrvAudit_Log(nullptr, nullptr, nullptr, false), EINVAL);
  EXPECT_EQ(KrvAudit_Log("record", "u", nullptr, false), 0);
  EXPECT_EQ(records().at(0)["text"], "");
}

TEST_F(Audit, ATrailThatCannotBeWrittenIsAnError) {
  std::filesystem::remove_all(model_.directory() + "/state");
  std::ofstream(model_.directory() + "/state") << "a file";
  EXPECT_EQ(KrvAudit_Log("record", "u", "text", false), ENOTDIR);
  EXPECT_EQ(logged_.size(), 1U);
}

TEST_F(Audit, ConcurrentProcessesWriteWholeLines) {
  constexpr int kProcesses = 4;
  constexpr int kRecords = 100;
  std::vector<pid_t> children;
  for (int child = 0; child < kProcesses; ++child) {
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      int failures = 0;
      for (int i = 0; i < kRecords; ++i) {
        const std::string text(static_cast<std::size_t>(i) * 97, static_cast<char>('a' + child));
        failures += KrvAudit_Log("record", "u", text.c_str(), false) == 0 ? 0 : 1;
      }
      _exit(failures == 0 ? 0 : 1);
    }
    children.push_back(pid);
  }
  for (const pid_t pid : children) {
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0);
  }
  const std::vector<json> all = records();
  EXPECT_EQ(all.size(), static_cast<std::size_t>(kProcesses * kRecords));
  for (const json& record : all) ASSERT_TRUE(record.is_object()) << "a torn line";
}

}  // namespace
