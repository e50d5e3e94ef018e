// Pages of memory: their state and their retirement.
#pragma once

#include <cstdint>
#include <deque>
#include <mutex>
#include <set>
#include <string>

#include "host/host.h"
#include "linux/linuxRoots.h"

namespace platform {

/// Size of the pages that the daemon counts in, whatever the kernel's own.
inline constexpr std::uint64_t kPageBytes = 4096;
/// Most pages that one request retires.
inline constexpr std::int64_t kPagesPerRequest = 64;
/// Most requests that are remembered; the oldest are forgotten first.
inline constexpr std::size_t kRequestsRemembered = 4096;

/// Bits of a page's status.
inline constexpr std::uint32_t kPageRetired = 1;
inline constexpr std::uint32_t kPageRequested = 2;

/// Any thread.
class Pages {
 public:
  /// `kernelPageBytes` is the size of the kernel's pages: sysconf(3).
  Pages(const LinuxRoots& roots, std::uint64_t kernelPageBytes);

  /// From the option PageRetire/PageRetireThreshold, 100 where nothing sets it.
  [[nodiscard]] static Answer<std::uint64_t> retireThreshold();

  /// kPageRetired where the kernel has taken the page out of use (the flag KPF_HWPOISON of
  /// /proc/kpageflags), kPageRequested where this process has asked for that. ENXIO for a page beyond
  /// the memory.
  [[nodiscard]] Answer<std::uint32_t> status(std::uint64_t page) const;

  [[nodiscard]] Answer<std::string> planRetire(std::uint64_t page, std::int64_t count) const;
  /// Soft-offlines each page: its content moves, nobody is killed. Stops at the first that the kernel
  /// refuses.
  Outcome retire(std::uint64_t page, std::int64_t count, const std::string& mode);

 private:
  /// Whether the machine can do it and the pages have addresses.
  [[nodiscard]] Outcome mayRetire(std::uint64_t page, std::int64_t count) const;
  /// False where the page is remembered already.
  bool remember(std::uint64_t page);
  void forget(std::uint64_t page);

  std::string flagsFile_;
  std::string offlineFile_;
  std::uint64_t pagesPerKernelPage_;
  mutable std::mutex mutex_;
  std::set<std::uint64_t> requested_;  ///< guarded by mutex_, as order_
  std::deque<std::uint64_t> order_;
};

}  // namespace platform
