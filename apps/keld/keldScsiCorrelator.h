// The storage correlator: states and redundancy of paths, frequent path events, and the events of
// storage devices.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "keldCorrelator.h"
#include "keldPathFrequency.h"

namespace keld {

class ScsiCorrelator final : public Correlator {
 public:
  explicit ScsiCorrelator(Services& services) : services_(services) {}

  [[nodiscard]] HandlerTable handlers() override;

 private:
  void pathDown(const Kel* observation);
  void pathUp(const Kel* observation);
  void reportUp(const std::string& path, const std::string& device) const;
  void pathAddedOrRemoved(const Kel* observation);
  void powerOnReset(const Kel* observation);
  void badPath(const Kel* observation);
  /// Each look-up is empty where the host knows nothing.
  [[nodiscard]] std::optional<std::string> deviceBehind(const std::string& path) const;
  [[nodiscard]] std::optional<std::uint32_t> redundancyState(const std::string& device, const std::string& path) const;
  [[nodiscard]] std::optional<std::string> datastoresOfKnown(const std::string& device, const std::string& path) const;
  void trackPathStateChange(const std::string& path, PathFrequency::Change change);

  Services& services_;
  PathFrequency pathStateChanges_{"state changes"};
  PathFrequency powerOnResets_{"power-on resets"};
  /// 1 for a path of a device, by both names put together, that was reported down.
  std::map<std::string, std::uint32_t> pathDownReported_;
};

}  // namespace keld
