#include "host/paths.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <exception>
#include <filesystem>

#include "host/complaints.h"
#include "host/files.h"
#include "host/keyValueLines.h"
#include "host/platformLog.h"
#include "platform/runfile.h"

namespace platform {

namespace {

constexpr mode_t kPrivateDirectory = 0700;
constexpr mode_t kPrivateSocket = 0600;
/// Members make sockets of their own in it, but replace nobody else's.
constexpr mode_t kSharedDirectory = 01770;
constexpr mode_t kSharedSocket = 0660;

/// Longest group entry that is looked at; getgrnam_r(3) asks for a larger buffer by ERANGE.
constexpr std::size_t kGroupEntryBytes = std::size_t{1} << 20;

std::string fromEnvironment(const char* variable, const char* fallback) {
  const char* const value = std::getenv(variable);
  return value != nullptr && *value != '\0' ? value : fallback;
}

Answer<gid_t> groupId(const std::string& name) {
  for (std::size_t size = 1024; size <= kGroupEntryBytes; size *= 2) {
    std::vector<char> buffer(size);
    group entry{};
    group* found = nullptr;
    const int status = ::getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found);
    if (status == ERANGE) continue;
    if (status != 0 && status != EINTR) return {{status, {}}, 0};
    if (status == 0)
      return found == nullptr ? Answer<gid_t>{{ENOENT, "no such group"}, 0} : Answer<gid_t>{{}, found->gr_gid};
  }
  return {{ERANGE, {}}, 0};
}

// Never through a symbolic link: members of the group may write to a shared directory.
int setMode(const std::string& path, mode_t mode) {
  return ::fchmodat(AT_FDCWD, path.c_str(), mode, AT_SYMLINK_NOFOLLOW) == 0 ? 0 : errno;
}

}  // namespace

std::string runDirectory() {
  return fromEnvironment(kRunDirectoryVariable, kDefaultRunDirectory);
}
std::string stateDirectory() {
  return fromEnvironment("KORVEL_STATE_DIR", "/var/lib/korvel");
}
std::string confDirectory() {
  return fromEnvironment("KORVEL_CONF_DIR", "/etc/korvel");
}
std::string hostDescription() {
  return fromEnvironment("KORVEL_HOST", "linux");
}

int makePrivateDirectory(const std::string& path) {
  if (path.empty()) return ENOENT;
  std::error_code error;
  std::filesystem::path made;
  for (const std::filesystem::path& part : std::filesystem::path(path)) {
    made /= part;
    if (::mkdir(made.c_str(), kPrivateDirectory) == 0) continue;
    const int status = errno;
    // Whatever mkdir(2) minded (EEXIST, EROFS, EACCES), a directory that is there will do.
    if (!std::filesystem::is_directory(made, error)) return status == EEXIST ? ENOTDIR : status;
  }
  return 0;
}

PlatformConf PlatformConf::load() {
  PlatformConf conf;
  for (KeyValueLine& line : loadKeyValueLines(confDirectory() + "/platform.conf")) {
    conf.settings_.emplace_back(std::move(line.key), std::move(line.value));
  }
  return conf;
}

PlatformConf PlatformConf::parse(const std::string& text, const std::string& fileName) {
  PlatformConf conf;
  for (KeyValueLine& line : parseKeyValueLines(text, fileName)) {
    conf.settings_.emplace_back(std::move(line.key), std::move(line.value));
  }
  return conf;
}

std::optional<std::string> PlatformConf::value(const std::string& key) const {
  std::optional<std::string> last;
  for (const auto& [name, value] : settings_) {
    if (name == key) last = value;
  }
  return last;
}

std::vector<std::string> PlatformConf::values(const std::string& key) const {
  std::vector<std::string> all;
  for (const auto& [name, value] : settings_) {
    if (name == key) all.push_back(value);
  }
  return all;
}

std::vector<std::pair<std::string, std::string>> PlatformConf::named(const std::string& prefix) const {
  std::vector<std::pair<std::string, std::string>> all;
  for (const auto& [name, value] : settings_) {
    if (name.size() <= prefix.size() || !name.starts_with(prefix)) continue;
    const std::string_view rest = std::string_view(name).substr(prefix.size());
    const std::string_view trimmed = trimBlanks(rest);
    if (trimmed.size() < rest.size()) all.emplace_back(trimmed, value);
  }
  return all;
}

int applyAccess(const std::string& path, bool directory) {
  const std::optional<std::string> name = PlatformConf::load().value("access.group");
  // A directory that an administrator made keeps the mode it was given.
  if (!name) return directory ? 0 : setMode(path, kPrivateSocket);
  const Answer<gid_t> group = groupId(*name);
  if (!group.ok()) {
    logOnce("platform.conf: access.group " + *name + ": " + reasonOf(group.outcome) + "; access stays the owner's");
    const int status = directory ? 0 : setMode(path, kPrivateSocket);
    return status != 0 ? status : group.outcome.status;
  }
  if (::fchownat(AT_FDCWD, path.c_str(), static_cast<uid_t>(-1), group.value, AT_SYMLINK_NOFOLLOW) != 0) return errno;
  return setMode(path, directory ? kSharedDirectory : kSharedSocket);
}

void shareWithGroup(const std::string& path, bool directory) {
  if (const int status = applyAccess(path, directory); status != 0) {
    platformLog("%s: access stays the owner's: %s", path.c_str(), errnoText(status).c_str());
  }
}

}  // namespace platform

void RunFile_ShareSocket(const char* path) {
  try {
    platform::shareWithGroup(path, false);
  } catch (const std::exception& trouble) {
    platform::platformLog("%s: access stays the owner's: %s", path, trouble.what());
  }
}
