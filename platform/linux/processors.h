// The processors: vendor, counts, and taking one offline.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "host/host.h"
#include "linux/linuxRoots.h"

namespace platform {

/// Highest number of a logical processor that is looked at.
inline constexpr std::uint32_t kProcessors = std::uint32_t{1} << 16;

/// The processors of a list such as "0-3,8" (sysfs), in order; nothing where it is of another form or
/// goes beyond kProcessors.
std::optional<std::vector<std::uint32_t>> parseProcessorList(const std::string& text);

/// Any thread.
class Processors {
 public:
  explicit Processors(const LinuxRoots& roots)
      : directory_(roots.sys + "/devices/system/cpu"), information_(roots.proc + "/cpuinfo") {}

  /// "vendor_id" of the first processor. ENOENT on machines whose processors have none.
  [[nodiscard]] Answer<std::string> vendor() const;
  /// All logical processors that are present, and the cores that they are of. A processor that is
  /// offline no longer tells its core: it counts with the one it had when it was last seen.
  [[nodiscard]] Answer<CpuCounts> counts() const;
  /// Whether any processor can be taken offline.
  [[nodiscard]] Answer<bool> offlineEnabled() const;

  /// The file that takes a processor offline. ENODEV where there is no such processor, ENOTSUP where
  /// it cannot be taken offline, EALREADY where it is, EBUSY where it is the last one online.
  [[nodiscard]] Answer<std::string> offlineFile(std::int64_t cpu) const;
  [[nodiscard]] Answer<std::string> planOffline(std::int64_t cpu) const;
  Outcome offline(std::int64_t cpu);

 private:
  using Core = std::tuple<std::int64_t, std::int64_t, std::int64_t>;

  [[nodiscard]] std::string file(std::uint32_t cpu, const char* name) const;
  [[nodiscard]] std::optional<Core> coreOf(std::uint32_t cpu) const;
  [[nodiscard]] std::optional<std::vector<std::uint32_t>> list(const char* name) const;

  std::string directory_;
  std::string information_;
  mutable std::mutex mutex_;
  mutable std::map<std::uint32_t, Core> cores_;  ///< guarded by mutex_
  std::mutex offlining_;                         ///< one at a time, or two could take the last two
};

}  // namespace platform
