#include "linux/volumes.h"

#include <algorithm>
#include <cerrno>
#include <set>
#include <string_view>

#include "linux/kernelFiles.h"

namespace platform {

namespace {

constexpr std::size_t kUdevRecordBytes = std::size_t{64} * 1024;

/// The value of property `name` in a record of udev's database: lines "E:NAME=VALUE".
std::string udevProperty(std::string_view record, std::string_view name) {
  const std::string wanted = "E:" + std::string(name) + "=";
  while (!record.empty()) {
    const std::size_t end = record.find('\n');
    const std::string_view line = record.substr(0, end);
    if (line.starts_with(wanted)) return std::string(line.substr(wanted.size()));
    record.remove_prefix(end == std::string_view::npos ? record.size() : end + 1);
  }
  return {};
}

/// An absolute path that means what it says, but for symbolic links.
bool isLexicallyPlain(std::string_view path) {
  if (!path.starts_with('/') || path.size() > kDatastorePathBytes) return false;
  path.remove_prefix(1);
  while (!path.empty()) {
    const std::size_t end = path.find('/');
    if (!isPlainName(path.substr(0, end))) return false;
    path.remove_prefix(end == std::string_view::npos ? path.size() : end + 1);
  }
  return true;
}

Outcome noVolume(const std::string& text) {
  return {ENOENT, text};
}

}  // namespace

std::optional<std::string> Volumes::labelOf(const std::string& block) const {
  const std::string number = blocks_.numberOf(block);
  if (isPlainName(number)) {
    const Answer<std::string> record = readStart(roots_.run + "/udev/data/b" + number, kUdevRecordBytes);
    // The encoded form keeps what the plain one replaces, such as blanks.
    std::string label = decodeHexEscapes(udevProperty(record.value, "ID_FS_LABEL_ENC"));
    if (label.empty()) label = udevProperty(record.value, "ID_FS_LABEL");
    if (!label.empty()) return shownName(label);
  }
  const std::string links = roots_.dev + "/disk/by-label/";
  for (const std::string& name : namesIn(links)) {
    if (linkName(links + name) == block) return shownName(decodeHexEscapes(name));
  }
  return std::nullopt;
}

std::optional<std::string> Volumes::blockOf(const Mount& mount) const {
  constexpr std::string_view kNoDevice = "0:";
  constexpr std::string_view kDev = "/dev/";
  if (!mount.number.starts_with(kNoDevice)) return blocks_.ofNumber(mount.number);
  // These stand on several devices and name one of them. Elsewhere the source may be any text: that of
  // FUSE is its user's.
  if (mount.fileSystem != "btrfs" && mount.fileSystem != "bcachefs") return std::nullopt;
  if (!mount.source.starts_with(kDev) || !isLexicallyPlain(mount.source)) return std::nullopt;
  const std::string name = mount.source.substr(kDev.size());
  if (auto target = linkName(roots_.dev + "/" + name); target && blocks_.has(*target)) return target;
  if (blocks_.has(name)) return name;
  return std::nullopt;
}

Answer<std::string> Volumes::volumeOn(const std::string& block) const {
  const Answer<std::vector<Mount>> mounts = readMounts(roots_.proc);
  if (!mounts.ok()) return {mounts.outcome, {}};
  std::set<std::string> carriers = blocks_.upon(block);
  carriers.insert(block);
  const Mount* best = nullptr;
  std::string carrier;
  for (const Mount& mount : mounts.value) {
    const auto from = blockOf(mount);
    if (!from || !carriers.contains(*from)) continue;
    // Whole file systems go before directories of them that are mounted elsewhere.
    if (best != nullptr && (best->root == "/" || mount.root != "/")) continue;
    best = &mount;
    carrier = *from;
  }
  if (best == nullptr) return {noVolume("no file system of " + block + " is mounted"), {}};
  if (auto label = labelOf(carrier)) return {{}, std::move(*label)};
  return {{}, shownName(best->point)};
}

Answer<std::vector<MountFacts>> Volumes::all() const {
  const Answer<std::vector<Mount>> mounts = readMounts(roots_.proc);
  Answer<std::vector<MountFacts>> all{mounts.outcome, {}};
  for (const Mount& mount : mounts.value) {
    const auto block = blockOf(mount);
    if (!block) continue;
    all.value.push_back(
        {shownName(mount.point), shownName(mount.fileSystem), *block, labelOf(*block).value_or(std::string())});
  }
  return all;
}

Answer<std::map<std::string, std::string>> Volumes::datastoreForms() const {
  const Answer<std::vector<Mount>> mounts = readMounts(roots_.proc);
  Answer<std::map<std::string, std::string>> forms{mounts.outcome, {}};
  // By the point, so that a mount comes behind those that it lies below.
  std::map<std::string, const Mount*> last;
  for (const Mount& mount : mounts.value) last[mount.point] = &mount;
  std::vector<std::string> labelled;
  for (const auto& [point, mount] : last) {
    const std::string directory = point == "/" ? point : point + '/';
    const auto block = blockOf(*mount);
    if (const auto label = block ? labelOf(*block) : std::nullopt) {
      const std::string inside(pathBelow("/", mount->root));
      forms.value[directory] = *label + ": " + (inside.empty() ? inside : inside + '/');
      if (!inside.empty()) forms.value[point] = *label + ": " + inside;
      labelled.push_back(directory);
    } else if (std::any_of(labelled.begin(), labelled.end(),
                           [&, &below = point](const auto& above) { return below.starts_with(above); })) {
      forms.value[directory] = "";
    }
  }
  return forms;
}

Answer<std::string> Volumes::datastorePath(const std::string& path) const {
  if (!isLexicallyPlain(path)) return {noVolume("no plain absolute path: " + shownName(path)), {}};
  const Answer<std::vector<Mount>> mounts = readMounts(roots_.proc);
  if (!mounts.ok()) return {mounts.outcome, {}};
  const Mount* const mount = mountOf(mounts.value, path);
  const auto block = mount != nullptr ? blockOf(*mount) : std::nullopt;
  const auto label = block ? labelOf(*block) : std::nullopt;
  if (!label) return {noVolume("the file system of " + shownName(path) + " has no label"), {}};
  std::string inside(pathBelow("/", mount->root));
  const std::string_view below = pathBelow(mount->point, path);
  if (!inside.empty() && !below.empty()) inside += '/';
  inside += below;
  if (inside.empty()) return {noVolume(shownName(path) + " is all of a file system"), {}};
  return {{}, *label + ": " + inside};
}

}  // namespace platform
