#include "endToEnd.h"

#include <iostream>

namespace e2e {

std::string noPrivateDev;

void EndToEnd::SetUp() {
  if (!noPrivateDev.empty()) GTEST_SKIP() << "no private /dev on this machine: " << noPrivateDev;
  workspace_ = std::make_unique<Workspace>();
  log_ = std::make_unique<SystemLog>();
}

void EndToEnd::TearDown() {
  if (!HasFailure() || log_ == nullptr) return;
  constexpr std::size_t kShown = 60;
  const std::vector<LogLine> lines = log_->lines();
  std::cerr << "the system log's last lines:\n";
  for (std::size_t n = lines.size() > kShown ? lines.size() - kShown : 0; n < lines.size(); ++n) {
    std::string shown = lines[n].raw.substr(0, 300);
    if (shown.empty() || shown.back() != '\n') shown += '\n';
    std::cerr << "  " << shown;
  }
}

void Serving::SetUp() {
  EndToEnd::SetUp();
  if (IsSkipped()) return;
  daemon_ = std::make_unique<Daemon>(workspace());
  daemon_->startAndServe();
}

void Serving::TearDown() {
  if (daemon_ != nullptr && !daemon_->hasEnded()) {
    EXPECT_TRUE(daemon_->terminate().with(0));
  }
  EndToEnd::TearDown();
}

std::vector<TraceLine> EndToEnd::settle(Daemon& daemon, const Emitter& emitter) {
  const std::string id = "kel.user.marker" + std::to_string(++markers_);
  emitter.send(id);
  std::vector<TraceLine> lines = daemon.trace().readThrough("IN", id);
  lines.pop_back();
  return lines;
}

std::string observationLine(const std::string& thread, std::uint64_t stampUs, const std::string& id,
                            const std::string& message) {
  return "[" + thread + "] " + std::to_string(stampUs) + "us: [" + id + "] " + message;
}

}  // namespace e2e
