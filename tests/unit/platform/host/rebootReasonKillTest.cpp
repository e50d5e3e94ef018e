// The last reboot's reason is recorded again and again, and its writer killed at any moment.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <iostream>
#include <random>
#include <string>

#include "configstore/read.h"
#include "host/uniqueFd.h"
#include "hostFixture.h"
#include "platform/configstore.h"

namespace {

using std::chrono::microseconds;
using std::chrono::steady_clock;
using Values = std::vector<std::pair<std::string, std::string>>;

constexpr int kKills = 200;
/// A writer lives for as long as so many writes take, at most.
constexpr int kMostWrites = 3;
/// On a disk that is busy, writers do not finish; they are killed all the same.
constexpr microseconds kLongestLife{60'000};

/// The record of this number; its values belong together. The reason takes from less than a page of the
/// database to many.
Values recordOf(int number) {
  constexpr std::size_t kReasonBytes[] = {16, 3000, 20000, 300};
  const std::string text = std::to_string(number);
  std::string reason = text + ":";
  reason.append(kReasonBytes[number % 4], static_cast<char>('a' + number % 26));
  return {{"type", number % 2 == 0 ? "REBOOT" : "POWEROFF"},
          {"user", "user" + text},
          {"subsystem", "subsystem" + text},
          {"timestamp", "time" + text},
          {"reason", reason}};
}

/// As the daemon does it. Returns 0 or an errno value.
int recordReason(int number) {
  ConfigStore::Object* object = nullptr;
  int status = ConfigStore::CreateObject("reboot_reason", "qkernel", "orn", "", "{}", &object);
  for (const auto& [key, value] : recordOf(number)) {
    if (status == 0) status = ConfigStore::SetValueStr(object, key.c_str(), value.c_str());
  }
  ConfigStore::Store* store = nullptr;
  if (status == 0) status = ConfigStore::GetStore(0, &store);
  if (status == 0) status = ConfigStore::SetCachedData(store, object);
  ConfigStore::DestroyConfigStoreObject(object);
  ConfigStore::DestroyStore(store);
  return status;
}

class RebootReasonKilled : public HostTest {
 protected:
  /// A process that records reasons from number `first` on, and reports each number once it is stored.
  struct Writer {
    pid_t pid = -1;
    platform::UniqueFd stored;
  };

  static Writer startWriter(int first) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return {};
    Writer writer{::fork(), platform::UniqueFd(ends[0])};
    const platform::UniqueFd report(ends[1]);
    if (writer.pid != 0) return writer;
    for (int number = first;; ++number) {
      if (recordReason(number) != 0) _exit(1);
      if (::write(report.get(), &number, sizeof number) != sizeof number) _exit(2);
    }
  }
  /// Lets the writer live for a while, kills it, and returns the last number that it had stored for
  /// certain, `before` where there is none.
  static int kill(const Writer& writer, microseconds after, int before) {
    const timespec wait{0, std::chrono::nanoseconds(after).count()};
    (void)::ppoll(nullptr, 0, &wait, nullptr);
    ::kill(writer.pid, SIGKILL);
    int status = 0;
    EXPECT_EQ(::waitpid(writer.pid, &status, 0), writer.pid);
    EXPECT_TRUE(WIFSIGNALED(status)) << "the writer failed by itself: " << WEXITSTATUS(status);
    int number = before;
    while (::read(writer.stored.get(), &number, sizeof number) == sizeof number) {
    }
    return number;
  }
  /// What a fresh reader finds is one whole record: the last one stored, or the one being stored.
  static void expectWhole(int stored, int& found) {
    const auto record = platform::readStoredObject("reboot_reason");
    ASSERT_TRUE(record.ok()) << record.outcome.text;
    ASSERT_EQ(platform::listStoredObjects().value.size(), 1U);
    ASSERT_EQ(record.value.values.size(), 5U);
    const std::string& user = record.value.values[1].second;
    ASSERT_TRUE(user.starts_with("user")) << user;
    found = std::stoi(user.substr(4));
    EXPECT_EQ(record.value.values, recordOf(found));
    EXPECT_GE(found, stored);
    EXPECT_LE(found, stored + 1);
  }
  static microseconds timeOfOneWrite() {
    constexpr int kWrites = 8;
    const auto begun = steady_clock::now();
    for (int number = 0; number < kWrites; ++number) EXPECT_EQ(recordReason(number), 0);
    return std::chrono::duration_cast<microseconds>(steady_clock::now() - begun) / kWrites;
  }
};

TEST_F(RebootReasonKilled, AReaderFindsTheOldRecordOrTheNewOneAfterEachOfTwoHundredKills) {
  const std::random_device::result_type seed = std::random_device()();
  std::cout << "seed " << seed << '\n';
  std::mt19937 random(seed);
  const microseconds longest = std::min(timeOfOneWrite() * kMostWrites, kLongestLife);
  std::uniform_int_distribution<microseconds::rep> lives(0, longest.count());
  int found = 7;
  int inTheMiddle = 0;
  for (int n = 0; n < kKills && !HasFailure(); ++n) {
    const int before = found;
    const Writer writer = startWriter(before + 1);
    ASSERT_GT(writer.pid, 0);
    const int stored = kill(writer, microseconds(lives(random)), before);
    expectWhole(stored, found);
    if (found > stored) ++inTheMiddle;
  }
  std::cout << found - 7 << " records, " << inTheMiddle << " kills between storing and reporting\n";
  const int last = found + 1;
  EXPECT_EQ(recordReason(last), 0);
  expectWhole(last, found);
  EXPECT_EQ(found, last);
}

}  // namespace
