// A correlator on a manual clock: send observations, let time pass, read what was posted and why.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "keldCorrelator.h"
#include "manualTime.h"
#include "observation.h"
#include "recordingDecisions.h"
#include "recordingPost.h"

namespace support {

/// What a correlator is given in a scenario.
struct Scenario {
  ManualClock clock;
  ManualTimers timers{clock};
  RecordingPost post;
  RecordingLog log;
  RecordingDecisions decisions;
  keld::Services services{clock, post, timers, nullptr, &decisions};
};

/// Drives one correlator through a scenario. Dispatch is the daemon's own.
class Driver {
 public:
  Driver(Scenario& scenario, keld::HandlerTable handlers, keld::Handler fallback = keld::ignoreObservation)
      : scenario_(scenario), handlers_(std::move(handlers)), fallback_(std::move(fallback)) {}
  /// Drives a correlator that keeps no thread of its own.
  Driver(Scenario& scenario, const keld::CorrelatorInfo& info) : Driver(scenario, info.make(scenario.services)) {}
  Driver(Scenario& scenario, std::unique_ptr<keld::Correlator> correlator)
      : scenario_(scenario),
        correlator_(std::move(correlator)),
        handlers_(correlator_->handlers()),
        fallback_(correlator_->fallback()) {}

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
  std::unique_ptr<keld::Correlator> correlator_;
  keld::HandlerTable handlers_;
  keld::Handler fallback_;
};

}  // namespace support
