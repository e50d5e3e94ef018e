#include "platform/cvfs.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "host/guarded.h"
#include "host/host.h"

/// No volume directory exists on the reference platform's hosts; who holds one may ask the host.
struct CVFS_Directory {};

namespace {

template <typename Call>
int guarded(const Call& call) {
  return platform::guarded<int>("volume query", {ENOMEM, EIO}, call);
}

struct Partition {
  std::string device;
  std::uint32_t number = 0;
};

/// "DEVICE:NUMBER"; device names may hold colons.
std::optional<Partition> parseRequest(std::string_view request) {
  const std::size_t colon = request.rfind(':');
  if (colon == std::string_view::npos) return std::nullopt;
  Partition partition{std::string(request.substr(0, colon)), 0};
  const char* const end = request.data() + request.size();
  const auto parsed = std::from_chars(request.data() + colon + 1, end, partition.number);
  if (parsed.ec != std::errc() || parsed.ptr != end) return std::nullopt;
  return partition;
}

int queryVolume(CVFS_VolumeQuery& query) {
  const std::string_view request(query.request, ::strnlen(query.request, sizeof query.request));
  const std::optional<Partition> partition = parseRequest(request);
  if (!partition || request.size() == sizeof query.request) return EINVAL;
  const auto volume = platform::currentHost().volumeOfPartition(partition->device, partition->number);
  if (!volume.ok()) return volume.outcome.status;
  const std::size_t length = std::min(volume.value.size(), sizeof query.volume - 1);
  std::memcpy(query.volume, volume.value.data(), length);
  query.volume[length] = '\0';
  return 0;
}

}  // namespace

int CVFS_Open(const char* path, CVFS_Directory** directory) {
  if (path == nullptr || directory == nullptr || std::string_view(path) != CVFS_VOLUMES_DIRECTORY) return ENOENT;
  return guarded([&] {
    const platform::Outcome outcome = platform::currentHost().openVolumes();
    if (outcome.ok()) *directory = new CVFS_Directory;
    return outcome.status;
  });
}

int CVFS_Control(const CVFS_Directory* directory, unsigned request, CVFS_VolumeQuery* query) {
  if (directory == nullptr || query == nullptr) return EBADF;
  if (request != CVFS_QUERY_VOLUME) return ENOTTY;
  return guarded([&] { return queryVolume(*query); });
}

void CVFS_Close(CVFS_Directory* directory) {
  delete directory;
}
