#include "keldCorrelator.h"

#include "keldNetCorrelator.h"

namespace keld {

std::span<const CorrelatorInfo* const> correlators() {
  static constexpr const CorrelatorInfo* kCorrelators[] = {
      &kNetCorrelator,       &kScsiCorrelator,     &kApdCorrelator,     &kIscsiCorrelator,      &kCvfsCorrelator,
      &kUserLevelCorrelator, &kHardwareCorrelator, &kCpuCorrelator,     &kUserWorldCorrelator,  &kSwapCorrelator,
      &kVmCorrelator,        &kGenericCorrelator,  &kMigrateCorrelator, &kPageRetireCorrelator, &kMemfsCorrelator,
      &kVfatCorrelator,      &kClockCorrelator,    &kSchedCorrelator,   &kVscsiCorrelator,      &kDstorCorrelator,
      &kHcmCorrelator,
  };
  return kCorrelators;
}

}  // namespace keld
