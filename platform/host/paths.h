// Where this instance keeps things, and how the platform is configured.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace platform {

inline constexpr const char* kRunDirectoryVariable = "KORVEL_RUN_DIR";
inline constexpr const char* kDefaultRunDirectory = "/var/run/korvel";

/// KORVEL_RUN_DIR, KORVEL_STATE_DIR and KORVEL_CONF_DIR, read from the environment at each call.
std::string runDirectory();
std::string stateDirectory();
std::string confDirectory();
/// KORVEL_HOST, "linux" where unset.
std::string hostDescription();

/// Makes a directory and its missing parents with mode 0700. Returns 0 or an errno value.
int makePrivateDirectory(const std::string& path);

/// A setting of platform.conf: the words before and after '='.
/// Lines are `key = value`; '#' begins a comment; a key may stand several times.
class PlatformConf {
 public:
  /// Reads platform.conf of the configuration directory; a missing file is an empty configuration,
  /// a bad line is logged once with its number and skipped.
  static PlatformConf load();
  static PlatformConf parse(const std::string& text, const std::string& fileName);

  [[nodiscard]] std::optional<std::string> value(const std::string& key) const;
  [[nodiscard]] std::vector<std::string> values(const std::string& key) const;
  /// All settings `prefix NAME = value`, as (NAME, value) in file order.
  [[nodiscard]] std::vector<std::pair<std::string, std::string>> named(const std::string& prefix) const;

 private:
  std::vector<std::pair<std::string, std::string>> settings_;
};

/// Gives a socket or directory of the run directory to the group that `access.group` of
/// platform.conf names (mode 0660 or 1770), or leaves it owner-only. Returns 0 or an errno value.
int applyAccess(const std::string& path, bool directory);
/// The same where failing is no reason to stop: the owner is left alone with it, and the log says so.
void shareWithGroup(const std::string& path, bool directory);

}  // namespace platform
