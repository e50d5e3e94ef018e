// Work that must not hold up the thread that has it, such as writing to a disk.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>

#include "platform/clock.h"

namespace keld {

class Aside {
 public:
  Aside() = default;
  Aside(const Aside&) = delete;
  Aside& operator=(const Aside&) = delete;
  virtual ~Aside() = default;

  /// Has `work` done soon, after what is being done; work that still waits is forgotten for it, so that
  /// however much comes, one piece waits. Any thread.
  virtual void doLatest(std::function<void()> work) = 0;
};

/// Does it on a thread of its own, which is started for the first piece, runs until the process ends and
/// must find this object all that time.
class AsideThread final : public Aside {
 public:
  explicit AsideThread(Clock& clock) : clock_(clock) {}

  /// Where no thread can be had, `work` is done before this returns.
  void doLatest(std::function<void()> work) override;
  /// Returns once nothing is left to be done, or after ten seconds.
  void finish();

 private:
  static constexpr std::chrono::seconds kPatience{10};

  /// False where there is no thread and none can be had.
  bool startOnce();
  [[noreturn]] void run();

  Clock& clock_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::function<void()> waiting_;  // guarded by mutex_, as are the next two
  bool busy_ = false;
  bool started_ = false;
};

}  // namespace keld
