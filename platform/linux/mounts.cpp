#include "linux/mounts.h"

#include <array>
#include <optional>

#include "host/files.h"
#include "linux/kernelFiles.h"

namespace platform {

namespace {

/// Cuts the text before the next blank, and the blank, off `line`.
std::string_view nextField(std::string_view& line) {
  const std::size_t end = line.find(' ');
  const std::string_view field = line.substr(0, end);
  line.remove_prefix(end == std::string_view::npos ? line.size() : end + 1);
  return field;
}

bool isDeviceNumber(std::string_view text) {
  const std::size_t colon = text.find(':');
  return colon != std::string_view::npos && parseNumber(text.substr(0, colon)) && parseNumber(text.substr(colon + 1));
}

/// "ID PARENT MAJOR:MINOR ROOT POINT OPTIONS [OPTIONAL...] - FILESYSTEM SOURCE SUPEROPTIONS"
std::optional<Mount> parseMount(std::string_view line) {
  std::array<std::string_view, 6> fields{};
  for (std::string_view& field : fields) field = nextField(line);
  std::string_view field = nextField(line);
  while (field != "-" && !line.empty()) field = nextField(line);
  if (field != "-" || !isDeviceNumber(fields[2])) return std::nullopt;
  const std::string_view fileSystem = nextField(line);
  Mount mount{std::string(fields[2]), decodeOctalEscapes(fields[3]), decodeOctalEscapes(fields[4]),
              decodeOctalEscapes(fileSystem), decodeOctalEscapes(nextField(line))};
  if (!mount.point.starts_with('/')) return std::nullopt;
  return mount;
}

bool holds(std::string_view directory, std::string_view path) {
  if (directory == "/") return path.starts_with('/');
  return path.starts_with(directory) && (path.size() == directory.size() || path[directory.size()] == '/');
}

}  // namespace

std::vector<Mount> parseMounts(std::string_view text) {
  std::vector<Mount> mounts;
  while (!text.empty() && mounts.size() < kMounts) {
    const std::size_t end = text.find('\n');
    if (auto mount = parseMount(text.substr(0, end))) mounts.push_back(std::move(*mount));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  }
  return mounts;
}

Answer<std::vector<Mount>> readMounts(const std::string& proc) {
  Answer<std::string> text = readFile(proc + "/1/mountinfo", kMountInfoBytes);
  if (text.ok()) return {{}, parseMounts(text.value)};
  const std::string path = proc + "/self/mountinfo";
  text = readFile(path, kMountInfoBytes);
  if (!text.ok()) return {notAvailable(path + ": " + reasonOf(text.outcome)), {}};
  return {{}, parseMounts(text.value)};
}

const Mount* mountOf(const std::vector<Mount>& mounts, std::string_view path) {
  const Mount* longest = nullptr;
  for (const Mount& mount : mounts) {
    if (!holds(mount.point, path)) continue;
    if (longest == nullptr || mount.point.size() >= longest->point.size()) longest = &mount;
  }
  return longest;
}

std::string_view pathBelow(std::string_view directory, std::string_view path) {
  if (directory != "/") path.remove_prefix(directory.size());
  const std::size_t begin = path.find_first_not_of('/');
  return begin == std::string_view::npos ? std::string_view{} : path.substr(begin);
}

}  // namespace platform
