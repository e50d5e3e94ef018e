// What every end-to-end test starts from.
#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "daemon.h"
#include "emitter.h"
#include "eventReceiver.h"
#include "systemLog.h"
#include "workspace.h"

namespace e2e {

/// Set by main() before the tests run: why there is no private /dev, or empty.
extern std::string noPrivateDev;

/// A workspace and a system log; skips where the machine allows no private /dev.
class EndToEnd : public testing::Test {
 protected:
  void SetUp() override;
  /// A failed test shows what was logged.
  void TearDown() override;

  [[nodiscard]] const Workspace& workspace() const { return *workspace_; }
  SystemLog& log() { return *log_; }

  /// Sends a harmless observation on the same connection and waits until the daemon has read it, and
  /// so everything before it. Returns the lines that were traced meanwhile, without the marker's own.
  std::vector<TraceLine> settle(Daemon& daemon, const Emitter& emitter);

 private:
  std::unique_ptr<Workspace> workspace_;
  std::unique_ptr<SystemLog> log_;
  unsigned markers_ = 0;
};

/// The same with a daemon that serves; it ends in order, at the end of the test where not before.
class Serving : public EndToEnd {
 protected:
  void SetUp() override;
  void TearDown() override;

  [[nodiscard]] Daemon& daemon() const { return *daemon_; }

 private:
  std::unique_ptr<Daemon> daemon_;
};

/// The line of an observation or event in the system log.
std::string observationLine(const std::string& thread, std::uint64_t stampUs, const std::string& id,
                            const std::string& message);

}  // namespace e2e
