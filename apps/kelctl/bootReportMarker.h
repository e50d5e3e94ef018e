// What keeps a boot's report from being made twice: a file in the run directory with the boot's identity.
#pragma once

#include <optional>
#include <string>

namespace kelctl {

class BootReportMarker {
 public:
  /// The marker of the boot whose identity is in `bootIdFile` (random(4)).
  explicit BootReportMarker(std::string path, const std::string& bootIdFile = "/proc/sys/kernel/random/boot_id");

  /// Whether this boot's report has been made. Where the boot's identity cannot be read, any marker
  /// tells so. Throws Failure where a marker cannot be read.
  [[nodiscard]] bool isSet() const;
  /// Notes that it has, in one step. Throws Failure.
  void set() const;

 private:
  std::string path_;
  std::optional<std::string> bootId_;
};

}  // namespace kelctl
