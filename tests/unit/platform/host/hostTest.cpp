#include "host/host.h"

#include <atomic>
#include <stdexcept>
#include <thread>

#include "hostFixture.h"

namespace platform {
namespace {

class HostSeam : public HostTest {};

TEST_F(HostSeam, AHostIsMadeFromItsDescription) {
  EXPECT_EQ(makeHost("model:some/file.json")->describe(), "model:some/file.json");
  EXPECT_EQ(makeHost("linux")->describe(), "linux");
}

TEST_F(HostSeam, AnotherDescriptionIsRefusedWithAReason) {
  for (const char* const text : {"", "model:", "model", "Linux", "other:x"}) {
    EXPECT_THROW((void)makeHost(text), std::invalid_argument) << text;
  }
  try {
    (void)makeHost("nonsense");
  } catch (const std::invalid_argument& reason) {
    EXPECT_STREQ(reason.what(), "KORVEL_HOST is \"nonsense\"; it must be linux or model:FILE");
  }
}

TEST_F(HostSeam, ScopedHostsNestAndUndo) {
  Host& outer = currentHost();
  {
    const ScopedHost inner(makeHost("model:inner"));
    EXPECT_EQ(currentHost().describe(), "model:inner");
    {
      const ScopedHost innermost(makeHost("model:innermost"));
      EXPECT_EQ(currentHost().describe(), "model:innermost");
    }
    EXPECT_EQ(currentHost().describe(), "model:inner");
  }
  EXPECT_EQ(&currentHost(), &outer);
}

TEST_F(HostSeam, TheHostMayBeAskedFromManyThreads) {
  model_.write(R"({"portGroups": {"Production": "switch0"}})");
  std::vector<std::thread> threads;
  threads.reserve(4);
  std::atomic<int> answered{0};
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int n = 0; n < 50; ++n) answered += currentHost().portGroup("Production").ok() ? 1 : 0;
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(answered, 200);
}

}  // namespace
}  // namespace platform
