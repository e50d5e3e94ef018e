// The cluster file system's volume query: which volume lies on a partition.
//
// Every function may be called from any thread on handles of its own.
#pragma once

#include <cstddef>

/// Where the volumes of this host appear.
inline constexpr const char* CVFS_VOLUMES_DIRECTORY = "/cvfs/volumes/";
/// The control request that names the volume on a partition.
inline constexpr unsigned CVFS_QUERY_VOLUME = 3038;

/// What CVFS_QUERY_VOLUME is given and gives back.
struct CVFS_VolumeQuery {
  char request[128];  ///< "DEVICE:PARTITION", NUL-terminated
  char volume[1024];  ///< the volume's name, NUL-terminated, cut to fit
};

struct CVFS_Directory;

/// Opens a volume directory read-only. Returns 0 and the handle, or a positive errno value.
int CVFS_Open(const char* path, CVFS_Directory** directory);
/// Issues a control request on the directory. Returns 0, ENOENT where the partition holds no volume,
/// ENOTTY for another request, or another positive errno value.
int CVFS_Control(const CVFS_Directory* directory, unsigned request, CVFS_VolumeQuery* query);
/// Closes a directory; nullptr is allowed.
void CVFS_Close(CVFS_Directory* directory);
