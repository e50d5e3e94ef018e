// What tests of one daemon's doings over several observations start from.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "endToEnd.h"
#include "fakeTime.h"

namespace e2e {

/// A daemon, an emitter to its first context and a receiver of its events. Events are expected in their
/// order, so each that is found proves that none came before it.
class Story : public EndToEnd {
 protected:
  /// Starts the daemon on a model of the host.
  void begin(const std::string& model = "{}");
  Daemon& daemon() { return *daemon_; }

  void observe(const std::string& id, const Arguments& arguments = {}) { emitter_->send(id, arguments); }
  void observe(const Batch& batch) { emitter_->send(batch); }

  /// The next event is this one, with this text in the system log.
  void expectEvent(const std::string& thread, const std::string& name, const std::string& text);
  /// The next event has this name.
  EventRecord nextEvent(const std::string& name);
  /// Ends the daemon; no further event came.
  void end();

  /// The daemon aborts with the message for what cannot be, of this place in its sources.
  void expectNotReached(const std::string& source, int line);

  [[nodiscard]] std::size_t received() const { return agent_->count(); }
  /// Makes receiver and daemon, where the daemon is to be changed before begin().
  void make();

 private:
  std::unique_ptr<EventReceiver> agent_;
  std::unique_ptr<Daemon> daemon_;
  std::unique_ptr<Emitter> emitter_;
  std::size_t expected_ = 0;
};

/// A story whose clock stands where the test puts it; skipped where that cannot be.
class ShiftedStory : public Story {
 protected:
  void SetUp() override;
  /// Starts the daemon at second 0.
  void beginAtZero(const std::string& model = "{}");
  /// Seconds since the beginning, perhaps negative.
  void setTime(int seconds) const;

 private:
  std::optional<FakeTime> time_;
};

}  // namespace e2e
