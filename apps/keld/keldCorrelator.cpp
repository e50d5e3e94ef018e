#include "keldCorrelator.h"

#include "keldNetCorrelator.h"

namespace keld {

std::span<const CorrelatorInfo* const> correlators() {
  static constexpr const CorrelatorInfo* kCorrelators[] = {
      &kNetCorrelator,
  };
  return kCorrelators;
}

}  // namespace keld
