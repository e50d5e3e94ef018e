#include "story.h"

#include <csignal>
#include <ctime>

namespace e2e {
namespace {

std::string clockText(int seconds) {
  constexpr std::time_t kBeginning = 1'767'225'600;  // 2026-01-01 00:00:00
  const std::time_t time = kBeginning + seconds;
  std::tm fields{};
  ::gmtime_r(&time, &fields);
  std::string text(32, '\0');
  text.resize(std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &fields));
  return text;
}

}  // namespace

void Story::make() {
  agent_ = std::make_unique<EventReceiver>(workspace().eventSocket());
  daemon_ = std::make_unique<Daemon>(workspace());
}

void Story::begin(const std::string& model) {
  workspace().setModel(model);
  if (daemon_ == nullptr) make();
  daemon_->startAndServe();
  emitter_ = std::make_unique<Emitter>(Emitter::toContext(workspace()));
}

EventRecord Story::nextEvent(const std::string& name) {
  EventRecord record = agent_->waitForCount(++expected_).back();
  EXPECT_EQ(record.name, name);
  return record;
}

void Story::expectEvent(const std::string& thread, const std::string& name, const std::string& text) {
  const EventRecord record = nextEvent(name);
  if (record.name == name) log().waitFor(observationLine(thread, record.timestampUs, name, text));
}

void Story::end() {
  EXPECT_TRUE(daemon_->terminate().with(0));
  EXPECT_EQ(received(), expected_);
}

void Story::expectNotReached(const std::string& source, int line) {
  const Ending ending = daemon_->waitForEnd();
  EXPECT_FALSE(ending.exited);
  EXPECT_EQ(ending.status, SIGABRT) << ending.text();
  const std::string panic = "Keld - Panic: NOT_REACHED " + source + ":" + std::to_string(line) + "\n";
  EXPECT_EQ(daemon_->standardError().substr(0, panic.size()), panic);
  log().waitFor("Keld - Panic: ");
  log().waitFor("NOT_REACHED %s:%d");
  EXPECT_EQ(received(), expected_);
}

void ShiftedStory::SetUp() {
  if (const std::string why = FakeTime::missing(); !why.empty()) GTEST_SKIP() << why;
  Story::SetUp();
}

void ShiftedStory::beginAtZero(const std::string& model) {
  make();
  time_.emplace(workspace(), daemon(), clockText(0));
  begin(model);
}

void ShiftedStory::setTime(int seconds) const {
  time_->set(clockText(seconds));
}

}  // namespace e2e
