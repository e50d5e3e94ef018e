#include "bootReportMarker.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <utility>

#include "failure.h"
#include "host/files.h"
#include "host/uniqueFd.h"

namespace kelctl {

namespace {

constexpr std::size_t kMarkerBytes = 4096;
/// What stands in a marker instead of an identity.
constexpr const char* kNoIdentity = "unknown";

std::string firstLine(const std::string& text) {
  return text.substr(0, text.find('\n'));
}

/// Returns 0 or an errno value. Members of the run directory's group may have put anything at `path`;
/// a new file takes its place.
int replaceFile(const std::string& path, const std::string& text) {
  std::string fresh = path + ".XXXXXX";
  const platform::UniqueFd file(::mkostemp(fresh.data(), O_CLOEXEC));
  if (!file) return errno;
  int status = 0;
  errno = ENOSPC;  // what a short write means
  if (::write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) status = errno;
  if (status == 0 && ::rename(fresh.c_str(), path.c_str()) != 0) status = errno;
  if (status != 0) (void)::unlink(fresh.c_str());
  return status;
}

}  // namespace

BootReportMarker::BootReportMarker(std::string path, const std::string& bootIdFile) : path_(std::move(path)) {
  const auto identity = platform::readFile(bootIdFile, kMarkerBytes);
  if (identity.ok() && !firstLine(identity.value).empty()) bootId_ = firstLine(identity.value);
}

bool BootReportMarker::isSet() const {
  const auto marker = platform::readFile(path_, kMarkerBytes);
  if (marker.outcome.status == ENOENT) return false;
  if (!bootId_) return true;
  if (!marker.ok()) throw Failure(fmt::format("cannot read {}: {}", path_, platform::reasonOf(marker.outcome)));
  return firstLine(marker.value) == *bootId_;
}

void BootReportMarker::set() const {
  if (const int status = replaceFile(path_, bootId_.value_or(kNoIdentity) + "\n"); status != 0) {
    throw Failure(fmt::format("cannot write {}: {}", path_, platform::errnoText(status)));
  }
}

}  // namespace kelctl
