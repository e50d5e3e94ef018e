// What is known of a correlator before it runs: how to start it and what it translates.
#pragma once

#include <memory>
#include <span>
#include <string_view>

#include "keldAgent.h"
#include "keldFramework.h"
#include "keldRow.h"

namespace keld {

/// A correlator's state and judgement. All calls, and those of its handlers, are made by one thread
/// at a time.
class Correlator {
 public:
  Correlator() = default;
  Correlator(const Correlator&) = delete;
  Correlator& operator=(const Correlator&) = delete;
  virtual ~Correlator() = default;

  /// The handlers of the group's observations; they refer to this object.
  [[nodiscard]] virtual HandlerTable handlers() = 0;
  /// The handler of the group's other observations.
  [[nodiscard]] virtual Handler fallback() { return ignoreObservation; }
};

struct CorrelatorInfo {
  const char* nameWord;
  std::span<const char* const> groups;
  std::span<const char* const> identifiers;
  AgentEntry entry;
  std::span<const Row> rows;
  std::span<const Judged> judged;
  /// Makes the correlator for `services`, which outlive it; nullptr where it needs its own thread.
  std::unique_ptr<Correlator> (*make)(Services& services) = nullptr;
  /// Every way in which its state can decide.
  std::span<const Decision* const> decisions = {};
};

/// The entry function of a correlator that needs nothing but its stream.
template <const CorrelatorInfo& kInfo>
void runPlain(AgentContext& context) {
  const std::unique_ptr<Correlator> correlator = kInfo.make(context.services);
  runCorrelator(context, kInfo.nameWord, kInfo.groups, kInfo.identifiers, correlator->fallback(),
                correlator->handlers());
}

/// Makes a correlator of a class that takes the services.
template <typename Class>
std::unique_ptr<Correlator> makeCorrelator(Services& services) {
  return std::make_unique<Class>(services);
}

/// A correlator without state: each of its rows is one event.
template <const auto& kRows, OnUnreadable kHow>
class RowCorrelator final : public Correlator {
 public:
  explicit RowCorrelator(Services& services) : post_(services.post) {}
  [[nodiscard]] HandlerTable handlers() override {
    HandlerTable handlers;
    addRows<kRows>(handlers, post_, kHow);
    return handlers;
  }

 private:
  Post& post_;
};

extern const CorrelatorInfo kScsiCorrelator;
extern const CorrelatorInfo kApdCorrelator;
extern const CorrelatorInfo kIscsiCorrelator;
extern const CorrelatorInfo kCvfsCorrelator;
extern const CorrelatorInfo kUserLevelCorrelator;
extern const CorrelatorInfo kHardwareCorrelator;
extern const CorrelatorInfo kCpuCorrelator;
extern const CorrelatorInfo kUserWorldCorrelator;
extern const CorrelatorInfo kSwapCorrelator;
extern const CorrelatorInfo kVmCorrelator;
extern const CorrelatorInfo kGenericCorrelator;
extern const CorrelatorInfo kMigrateCorrelator;
extern const CorrelatorInfo kPageRetireCorrelator;
extern const CorrelatorInfo kMemfsCorrelator;
extern const CorrelatorInfo kVfatCorrelator;
extern const CorrelatorInfo kClockCorrelator;
extern const CorrelatorInfo kSchedCorrelator;
extern const CorrelatorInfo kVscsiCorrelator;
extern const CorrelatorInfo kDstorCorrelator;
extern const CorrelatorInfo kHcmCorrelator;

/// Every correlator in the order in which the daemon starts them.
std::span<const CorrelatorInfo* const> correlators();

}  // namespace keld
