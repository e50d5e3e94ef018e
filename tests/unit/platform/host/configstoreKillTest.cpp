// A writer of the configuration store is killed again and again; its readers never see half a write.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>
#include <string>

#include "configstore/read.h"
#include "hostFixture.h"
#include "platform/configstore.h"

namespace {

/// The writer's objects hold this many values, all of one text, another with each write.
constexpr int kValues = 40;
constexpr int kKills = 25;
/// Looks at the store before a kill: so far into its work a writer may get.
constexpr int kMostLooks = 20;

class ConfigurationKilled : public HostTest {};

[[noreturn]] void writeForEver(int first) {
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
  std::uniform_int_distribution<int> looks(0, kMostLooks);
  int seen = 0;
  for (int kill = 0; kill < kKills && !HasFatalFailure(); ++kill) {
    const pid_t writer = ::fork();
    ASSERT_GE(writer, 0);
    if (writer == 0) writeForEver(kill * 1'000'000);
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
