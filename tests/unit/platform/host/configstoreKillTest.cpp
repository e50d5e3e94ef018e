// A writer of the configuration store is killed again and again; its readers never see half a write.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>
#include <string>

#include "configstore/read.h"
#include "host/uniqueFd.h"
#include "hostFixture.h"
#include "platform/configstore.h"

namespace {

/// The writer's objects hold this many values, all of one text, another with each write.
constexpr int kValues = 40;
constexpr int kKills = 25;
/// How far into its work a writer may get: whole writes, then looks at the store before the kill.
constexpr int kMostWrites = 3;
constexpr int kMostLooks = 5;

class ConfigurationKilled : public HostTest {};

/// Writes a byte to `progress` after each object stored.
[[noreturn]] void writeForEver(int first, int progress) {
  ConfigStore::Store* store = nullptr;
  if (ConfigStore::GetStore(0, &store) != 0) _exit(1);
  for (int generation = first;; ++generation) {
    ConfigStore::Object* object = nullptr;
    if (ConfigStore::CreateObject("object", "", "", "", "{}", &object) != 0) _exit(1);
    for (int i = 0; i < kValues; ++i) {
      (void)ConfigStore::SetValueStr(object, std::to_string(i).c_str(), std::to_string(generation).c_str());
    }
    if (ConfigStore::SetCachedData(store, object) != 0) _exit(2);
    ConfigStore::DestroyConfigStoreObject(object);
    if (::write(progress, "", 1) != 1) _exit(3);
  }
}

/// Counts the objects that were seen; none may be half written.
void look(int& seen) {
  const auto objects = platform::listStoredObjects();
  ASSERT_TRUE(objects.ok()) << objects.outcome.text;
  if (objects.value.empty()) return;
  ++seen;
  ASSERT_EQ(objects.value.size(), 1U);
  const auto& values = objects.value.front().values;
  ASSERT_EQ(values.size(), static_cast<std::size_t>(kValues));
  for (const auto& value : values) ASSERT_EQ(value.second, values.front().second);
}

TEST_F(ConfigurationKilled, AReaderSeesTheOldObjectOrTheNewOne) {
  std::mt19937 random(20240229);
  std::uniform_int_distribution<int> writes(0, kMostWrites);
  std::uniform_int_distribution<int> looks(0, kMostLooks);
  int seen = 0;
  for (int kill = 0; kill < kKills && !HasFatalFailure(); ++kill) {
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    platform::UniqueFd progress(ends[0]);
    platform::UniqueFd report(ends[1]);
    const pid_t writer = ::fork();
    ASSERT_GE(writer, 0);
    if (writer == 0) writeForEver(kill * 1'000'000, report.get());
    report.reset();
    char byte = 0;
    for (int n = writes(random); n > 0; --n) ASSERT_EQ(::read(progress.get(), &byte, 1), 1);
    for (int n = looks(random); n > 0 && !HasFatalFailure(); --n) look(seen);
    ::kill(writer, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(writer, &status, 0), writer);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the writer failed by itself: " << WEXITSTATUS(status);
    look(seen);
  }
  EXPECT_GT(seen, 0);
}

}  // namespace
