#include "keldCorrelator.h"

#include "keldNetCorrelator.h"

namespace keld {

std::span<const CorrelatorInfo* const> correlators() {
  static constexpr const CorrelatorInfo* kCorrelators[] = {
      &kNetCorrelator,      &kScsiCorrelator,       &kApdCorrelator,       &kIscsiCorrelator, &kCvfsCorrelator,
      &kHardwareCorrelator, &kCpuCorrelator,        &kUserWorldCorrelator, &kSwapCorrelator,  &kVmCorrelator,
      &kMigrateCorrelator,  &kPageRetireCorrelator, &kMemfsCorrelator,     &kVfatCorrelator,  &kClockCorrelator,
      &kSchedCorrelator,    &kVscsiCorrelator,
  };
  return kCorrelators;
}

}  // namespace keld
