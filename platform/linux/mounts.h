// The mounted file systems, as proc(5) lists them in mountinfo.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "host/host.h"

namespace platform {

/// Longest mountinfo that is read, and most of its lines that are taken.
inline constexpr std::size_t kMountInfoBytes = std::size_t{16} << 20;
inline constexpr std::size_t kMounts = std::size_t{1} << 16;

/// One mount; escapes are decoded.
struct Mount {
  std::string number;      ///< "MAJOR:MINOR" of the file system; major 0 where it has no device of its own
  std::string root;        ///< the directory of the file system that is mounted, "/" where all of it is
  std::string point;       ///< where it is mounted
  std::string fileSystem;  ///< such as "ext4"
  std::string source;      ///< such as "/dev/sda1"
};

/// The mounts of a mountinfo text in its order. Lines of another form are skipped.
std::vector<Mount> parseMounts(std::string_view text);

/// The machine's mounts: those that process 1 sees, of `proc`/1/mountinfo, because a service may run with
/// others of its own. Where that may not be read, those of this process. ENOTSUP where neither can.
Answer<std::vector<Mount>> readMounts(const std::string& proc);

/// The mount that an absolute path without "." and ".." is on: that of the longest mount point that
/// holds it, the last one where several are the same. nullptr where there is none.
const Mount* mountOf(const std::vector<Mount>& mounts, std::string_view path);

/// `path` below `directory`, without a leading slash; nothing to be told from the directory itself.
/// Only for a path that the directory holds.
std::string_view pathBelow(std::string_view directory, std::string_view path);

}  // namespace platform
