// The page-retirement correlator: how many pages await retirement, what the firmware asks for, and
// guests that keep using a bad page.
#pragma once

#include <cstdint>
#include <limits>
#include <set>
#include <span>

#include "keldCorrelator.h"
#include "keldInjectionLog.h"

namespace keld {

class PageRetireCorrelator final : public Correlator {
 public:
  /// Reads the host's threshold and interval; the daemon ends where they cannot be had.
  explicit PageRetireCorrelator(Services& services);

  [[nodiscard]] HandlerTable handlers() override;

 private:
  void thresholdExceeded(const Kel* observation);
  void notRetiredHigh(const Kel* observation);
  void firmwareRequest(const Kel* observation);
  void injected(const Kel* observation);
  void killRepeated();
  bool kill(const InjectionLog::Repeated& repeated);
  void tellWaiting(std::span<const InjectionLog::Repeated> waiting, const std::set<InjectionLog::World>& failed) const;

  Services& services_;
  const std::uint64_t threshold_;
  const std::uint64_t intervalPercent_;
  std::uint64_t lastReported_ = 0;
  bool notRetiredReported_ = false;
  InjectionLog injections_;
  InjectionLog::World resume_ = std::numeric_limits<InjectionLog::World>::min();
};

}  // namespace keld
