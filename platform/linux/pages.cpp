#include "linux/pages.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <limits>

#include "host/files.h"
#include "host/options.h"
#include "host/uniqueFd.h"
#include "linux/actionTrail.h"
#include "linux/kernelFiles.h"

namespace platform {

namespace {

constexpr const char* kThresholdOption = "PageRetire/PageRetireThreshold";
constexpr std::uint64_t kDefaultThreshold = 100;
/// linux/kernel-page-flags.h
constexpr unsigned kHardwarePoisonBit = 19;
constexpr std::uint64_t kLastPage = std::numeric_limits<std::uint64_t>::max() / kPageBytes;

}  // namespace

Pages::Pages(const LinuxRoots& roots, std::uint64_t kernelPageBytes)
    : flagsFile_(roots.proc + "/kpageflags"),
      offlineFile_(roots.sys + "/devices/system/memory/soft_offline_page"),
      pagesPerKernelPage_(std::max<std::uint64_t>(kernelPageBytes / kPageBytes, 1)) {}

Answer<std::uint64_t> Pages::retireThreshold() {
  const Answer<OptionFacts> option = readOption(kThresholdOption);
  if (option.outcome.status == ENOENT) return {{}, kDefaultThreshold};
  if (!option.ok()) return {option.outcome, {}};
  if (option.value.value < 0) return {{EINVAL, std::string(kThresholdOption) + " is negative"}, {}};
  return {{}, static_cast<std::uint64_t>(option.value.value)};
}

Answer<std::uint32_t> Pages::status(std::uint64_t page) const {
  std::uint64_t flags = 0;
  const std::uint64_t index = page / pagesPerKernelPage_;
  const Outcome beyond{ENXIO, "page " + hexadecimalText(page) + " is beyond this machine's memory"};
  if (index > static_cast<std::uint64_t>(std::numeric_limits<off_t>::max()) / sizeof flags) return {beyond, {}};
  UniqueFd file;
  do {
    file.reset(::open(flagsFile_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  } while (!file && errno == EINTR);
  if (!file) return {notAvailable(flagsFile_ + ": " + errnoText(errno)), {}};
  std::array<char, sizeof flags> bytes{};
  ssize_t got = -1;
  do {
    got = ::pread(file.get(), bytes.data(), bytes.size(), static_cast<off_t>(index * sizeof flags));
  } while (got < 0 && errno == EINTR);
  if (got < 0) return {notAvailable(flagsFile_ + ": " + errnoText(errno)), {}};
  if (static_cast<std::size_t>(got) < bytes.size()) return {beyond, {}};
  std::memcpy(&flags, bytes.data(), sizeof flags);
  std::uint32_t status = (flags >> kHardwarePoisonBit & 1U) != 0 ? kPageRetired : 0;
  const std::lock_guard lock(mutex_);
  if (requested_.contains(page)) status |= kPageRequested;
  return {{}, status};
}

Outcome Pages::mayRetire(std::uint64_t page, std::int64_t count) const {
  if (count < 1 || count > kPagesPerRequest) {
    return {EINVAL, std::to_string(count) + " pages cannot be retired at once"};
  }
  if (page > kLastPage - static_cast<std::uint64_t>(count - 1)) {
    return {EINVAL, "page " + hexadecimalText(page) + " has no address"};
  }
  if (!exists(offlineFile_)) return notAvailable("this kernel retires no pages: it has no file " + offlineFile_);
  return {};
}

Answer<std::string> Pages::planRetire(std::uint64_t page, std::int64_t count) const {
  if (Outcome may = mayRetire(page, count); !may.ok()) return {std::move(may), {}};
  std::string text = "write ";
  for (std::int64_t n = 0; n < count; ++n) {
    text += n == 0 ? "\"" : ", \"";
    text += hexadecimalText((page + static_cast<std::uint64_t>(n)) * kPageBytes) + "\"";
  }
  return {{}, text + " to " + offlineFile_};
}

Outcome Pages::retire(std::uint64_t page, std::int64_t count, const std::string& mode) {
  if (Outcome may = mayRetire(page, count); !may.ok()) return may;
  const std::string text = std::to_string(count) + (count == 1 ? " page" : " pages") + " from " +
                           hexadecimalText(page) + " on are retired because of corrected errors (" + shownName(mode) +
                           ")";
  if (Outcome trail = recordAction("page.retire", text); !trail.ok()) return trail;
  for (std::uint64_t next = page; next < page + static_cast<std::uint64_t>(count); ++next) {
    const bool isNew = remember(next);
    const int status = writeKernelFile(offlineFile_, hexadecimalText(next * kPageBytes));
    if (status == 0) continue;
    if (isNew) forget(next);
    return {status, "page " + hexadecimalText(next) + " cannot be retired: " + errnoText(status)};
  }
  return {};
}

bool Pages::remember(std::uint64_t page) {
  const std::lock_guard lock(mutex_);
  if (!requested_.insert(page).second) return false;
  order_.push_back(page);
  if (order_.size() > kRequestsRemembered) {
    requested_.erase(order_.front());
    order_.pop_front();
  }
  return true;
}

void Pages::forget(std::uint64_t page) {
  const std::lock_guard lock(mutex_);
  requested_.erase(page);
  std::erase(order_, page);
}

}  // namespace platform
