#include "keldPollSet.h"

#include <algorithm>
#include <new>

namespace keld {

namespace {

constexpr pollfd kFree{-1, POLLIN, 0};

}  // namespace

bool PollSet::allocateFixed() {
  fixed_.reset(new (std::nothrow) pollfd[kFixedSlots]);
  if (!fixed_) return false;
  std::fill_n(fixed_.get(), kFixedSlots, kFree);
  count_ = kFixedSlots;
  return true;
}

void PollSet::allocateConnections() {
  all_.reset(new (std::nothrow) pollfd[kAllSlots]);
  if (!all_) return;
  std::copy_n(fixed_.get(), kFixedSlots, all_.get());
  std::fill_n(all_.get() + kFixedSlots, kMaxConnections, kFree);
}

void PollSet::releaseConnections() {
  all_.reset();
  count_ = std::min(count_, kFixedSlots);
}

bool PollSet::addConnection(int fd) {
  if (!takesConnections() || count_ >= kAllSlots) return false;
  watch(count_++, fd);
  return true;
}

bool PollSet::removeConnection(std::size_t slot) {
  const std::size_t last = --count_;
  const bool moved = slot != last;
  if (moved) slots()[slot] = slots()[last];
  slots()[last] = kFree;
  return moved;
}

}  // namespace keld
