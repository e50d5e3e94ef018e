// A correlator on a manual clock: send observations, let time pass, read what was posted.
#pragma once

#include <string>
#include <vector>

#include "keldFramework.h"
#include "manualTime.h"
#include "observation.h"
#include "recordingPost.h"

namespace support {

/// What a correlator is given in a scenario.
struct Scenario {
  ManualClock clock;
  ManualTimers timers{clock};
  RecordingPost post;
  RecordingLog log;
  keld::Services services{clock, post, timers};
};

/// Drives one correlator through a scenario. Dispatch is the daemon's own.
class Driver {
 public:
  Driver(Scenario& scenario, keld::HandlerTable handlers, keld::Handler fallback = keld::ignoreObservation)
      : scenario_(scenario), handlers_(std::move(handlers)), fallback_(std::move(fallback)) {}

  /// Dispatches one observation now.
  void observe(const std::string& id, const std::vector<KelEmit::Argument>& arguments = {}) {
    const KelPtr kel = observation(id, arguments);
    keld::dispatchObservation(fallback_, handlers_, kel.get());
  }
  /// Lets time pass, timers firing on the way.
  void pass(std::chrono::seconds time) { scenario_.timers.advance(time); }
  /// What was posted since the last call.
  std::vector<PostedEvent> events() { return scenario_.post.take(); }

 private:
  Scenario& scenario_;
  keld::HandlerTable handlers_;
  keld::Handler fallback_;
};

}  // namespace support
