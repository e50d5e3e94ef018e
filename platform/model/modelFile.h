// A host as a file describes it (docs/model-host.md has the form).
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/host.h"

namespace platform {

/// Longest model file that is read.
inline constexpr std::size_t kModelFileBytes = std::size_t{16} << 20;
/// Deepest nesting of arrays and objects that is followed.
inline constexpr std::size_t kModelFileDepth = 64;

/// Pages that may be retired where the file does not say.
inline constexpr std::uint64_t kDefaultPageRetireThreshold = 100;

/// One partition of a disk: the volume on it, or the status with which asking for it fails.
struct ModelPartition {
  std::uint32_t number = 0;
  std::optional<std::string> volume;
  int error = 0;
};

struct ModelDevice {
  std::optional<std::int64_t> redundancyState;
  bool disk = false;
  std::vector<ModelPartition> partitions;
};

struct ModelCpu {
  std::optional<std::string> vendor;
  std::optional<std::uint32_t> cores;
  std::optional<std::uint32_t> pcpus;
  std::optional<bool> offlineEnabled;
};

/// What the file says; a plain value.
struct ModelFile {
  bool buildMatches = true;
  std::optional<std::string> kernelBuild;
  std::optional<std::string> systemUuid;  ///< 56 bytes
  std::map<std::string, std::int64_t> options;
  std::map<std::string, std::string> portGroups;  ///< port group, virtual switch
  std::map<std::string, std::string> paths;       ///< storage path, device
  std::map<std::string, ModelDevice> devices;
  std::vector<VmIdentity> vms;
  ModelCpu cpu;
  std::optional<std::uint64_t> pageRetireThreshold;
  std::map<std::uint64_t, std::uint32_t> pageStatus;
  std::map<std::string, std::string> datastorePaths;
  std::map<std::string, Outcome> failures;

  /// How the query or action of that name fails; a good outcome where it does not.
  [[nodiscard]] Outcome failureOf(const std::string& operation) const;
};

/// Reads the text of a model file. EINVAL, with a text that names the place, where it is no JSON,
/// nests too deep, or a key has a value of the wrong kind. Keys that are not known are ignored, each
/// logged once.
Answer<ModelFile> parseModelFile(std::string_view text);

}  // namespace platform
