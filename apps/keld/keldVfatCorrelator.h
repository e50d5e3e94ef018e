// The correlator of VFAT volumes.
#pragma once

#include <string>
#include <utility>

#include "keldCorrelator.h"
#include "keldHoldOff.h"

namespace keld {

class VfatCorrelator final : public Correlator {
 public:
  /// `scratch` is the link to the scratch partition's directory, which ends in that volume's UUID.
  explicit VfatCorrelator(Services& services, std::string scratch = "/scratch");

  [[nodiscard]] HandlerTable handlers() override;
  /// Puts another link in the place of the first.
  void setScratch(std::string scratch) { scratch_ = std::move(scratch); }

 private:
  void full(const Kel* observation);
  [[nodiscard]] std::string scratchUuid() const;

  Services& services_;
  std::string scratch_;
  QuietPeriods quietPeriods_;
};

}  // namespace keld
