#include "eventListener.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "failure.h"
#include "localConnection.h"

namespace {

using kelctl::connectStream;
using kelctl::EventListener;
using kelctl::Failure;
using kelctl::runPath;
using std::chrono::steady_clock;
using Step = EventListener::Step;

/// How long a test waits for what must come.
constexpr std::chrono::seconds kDeadline{30};

class EventListenerTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (std::filesystem::temp_directory_path() / "kelctl-XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    directory_ = pattern;
    ::setenv("KORVEL_RUN_DIR", (directory_ / "run").c_str(), 1);
    ::setenv("KORVEL_CONF_DIR", (directory_ / "conf").c_str(), 1);
  }
  void TearDown() override {
    ::unsetenv("KORVEL_RUN_DIR");
    ::unsetenv("KORVEL_CONF_DIR");
    std::filesystem::remove_all(directory_);
  }

  static std::string path() { return runPath("hagd-vprob.sock"); }

  static platform::UniqueFd sender(std::string_view bytes) {
    platform::UniqueFd fd;
    EXPECT_EQ(connectStream(path(), &fd), 0);
    EXPECT_EQ(::send(fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    return fd;
  }
  /// What the next connection that ends has brought.
  static std::string receive(EventListener& listener) {
    std::string bytes;
    const Step step = listener.next(bytes, steady_clock::now() + kDeadline, {});
    return step == Step::record ? bytes : "<step " + std::to_string(static_cast<int>(step)) + ">";
  }

  std::filesystem::path directory_;
};

TEST_F(EventListenerTest, MakesAnOwnerOnlySocketAndRemovesIt) {
  {
    const EventListener listener(path());
    struct stat facts {};
    ASSERT_EQ(::lstat(path().c_str(), &facts), 0);
    EXPECT_TRUE(S_ISSOCK(facts.st_mode));
    EXPECT_EQ(facts.st_mode & 0777U, 0600U);
    ASSERT_EQ(::stat((directory_ / "run").c_str(), &facts), 0);
    EXPECT_EQ(facts.st_mode & 0777U, 0700U);
  }
  EXPECT_TRUE(std::filesystem::is_empty(directory_ / "run"));
}

TEST_F(EventListenerTest, ReplacesASocketThatNobodyListensAt) {
  {
    const EventListener first(path());
    std::filesystem::create_hard_link(path(), directory_ / "kept");
  }
  std::filesystem::rename(directory_ / "kept", path());
  EventListener listener(path());
  sender("one").reset();
  EXPECT_EQ(receive(listener), "one");
}

TEST_F(EventListenerTest, RefusesAPlaceWhereSomebodyListens) {
  EventListener first(path());
  EXPECT_THROW(EventListener{path()}, Failure);
  EXPECT_EQ(receive(first), "") << "the probe";
  sender("one").reset();
  EXPECT_EQ(receive(first), "one");
}

TEST_F(EventListenerTest, RefusesAPlaceWhereAFileIs) {
  std::filesystem::create_directories(directory_ / "run");
  std::ofstream(path()) << "mine";
  EXPECT_THROW(EventListener{path()}, Failure);
  EXPECT_TRUE(std::filesystem::is_regular_file(path()));
}

TEST_F(EventListenerTest, LeavesAnothersSocketAlone) {
  auto first = std::make_unique<EventListener>(path());
  std::filesystem::remove(path());
  const EventListener second(path());
  first.reset();
  EXPECT_TRUE(std::filesystem::exists(path()));
}

TEST_F(EventListenerTest, GivesRecordsInTheOrderOfTheirSenders) {
  EventListener listener(path());
  for (const char* bytes : {"one", "two", "three"}) sender(bytes).reset();
  EXPECT_EQ(receive(listener), "one");
  EXPECT_EQ(receive(listener), "two");
  EXPECT_EQ(receive(listener), "three");
}

TEST_F(EventListenerTest, ServesOthersWhileASenderStalls) {
  EventListener listener(path());
  platform::UniqueFd stalled = sender("slow");
  sender("quick").reset();
  EXPECT_EQ(receive(listener), "quick");
  stalled.reset();
  EXPECT_EQ(receive(listener), "slow");
}

TEST_F(EventListenerTest, RefusesAConnectionThatBringsTooMuch) {
  EventListener listener(path());
  const platform::UniqueFd endless = sender(std::string(EventListener::kMaxConnectionBytes + 1, 'x'));
  std::string bytes;
  EXPECT_EQ(listener.next(bytes, steady_clock::now() + kDeadline, {}), Step::refused);
  sender("one").reset();
  EXPECT_EQ(receive(listener), "one");
}

TEST_F(EventListenerTest, EndsWhenTheTimeIsOver) {
  EventListener listener(path());
  std::string bytes;
  EXPECT_EQ(listener.next(bytes, steady_clock::now(), {}), Step::expired);
}

TEST_F(EventListenerTest, EndsWhenAWatchedDescriptorIsReady) {
  EventListener listener(path());
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  const platform::UniqueFd readEnd(ends[0]);
  platform::UniqueFd(ends[1]).reset();
  std::string bytes;
  const std::vector<pollfd> watched{pollfd{readEnd.get(), POLLIN, 0}};
  EXPECT_EQ(listener.next(bytes, steady_clock::now() + kDeadline, watched), Step::stopped);
}

}  // namespace
