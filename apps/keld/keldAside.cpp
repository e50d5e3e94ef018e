#include "keldAside.h"

#include <exception>
#include <system_error>
#include <thread>
#include <utility>

#include "keldLog.h"

namespace keld {

namespace {

void doNow(const std::function<void()>& work) {
  try {
    work();
  } catch (const std::exception& trouble) {
    Log("What was left for later has failed: %s\n", trouble.what());
  }
}

}  // namespace

bool AsideThread::startOnce() {
  if (started_) return true;
  try {
    std::thread([this] { run(); }).detach();
    started_ = true;
  } catch (const std::system_error&) {
    return false;
  }
  return true;
}

void AsideThread::doLatest(std::function<void()> work) {
  {
    const std::lock_guard lock(mutex_);
    if (startOnce()) {
      waiting_ = std::move(work);
      changed_.notify_all();
      return;
    }
  }
  doNow(work);
}

void AsideThread::finish() {
  std::unique_lock lock(mutex_);
  const WallSeconds due = clock_.wallSeconds() + kPatience;
  while ((busy_ || waiting_) && clock_.wallSeconds() < due) clock_.waitUntil(lock, changed_, due);
}

void AsideThread::run() {
  std::unique_lock lock(mutex_);
  while (true) {
    changed_.wait(lock, [this] { return static_cast<bool>(waiting_); });
    const std::function<void()> work = std::exchange(waiting_, nullptr);
    busy_ = true;
    lock.unlock();
    doNow(work);
    lock.lock();
    busy_ = false;
    changed_.notify_all();
  }
}

}  // namespace keld
