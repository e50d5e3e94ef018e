// Stand-ins for the management agent at the event socket.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "deadline.h"
#include "descriptor.h"
#include "eventRecord.h"

namespace e2e {

/// Accepts every connection at `path` and reads it to its end, on a thread of its own. Methods may be
/// called from any thread.
class EventReceiver {
 public:
  explicit EventReceiver(std::string path);
  EventReceiver(const EventReceiver&) = delete;
  EventReceiver& operator=(const EventReceiver&) = delete;
  ~EventReceiver();

  /// What each connection brought, in the order of connecting.
  [[nodiscard]] std::vector<std::string> connections() const;
  [[nodiscard]] std::size_t count() const { return connections().size(); }
  /// The records of the first `count` connections; throws where they do not come in time.
  std::vector<EventRecord> waitForCount(std::size_t count, Deadline deadline = Deadline{});
  /// The first record of this event; throws where it does not come in time.
  EventRecord waitFor(const std::string& name, Deadline deadline = Deadline{});

 private:
  void receive();

  std::string path_;
  Descriptor listener_;
  Descriptor stop_;
  mutable std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<std::string> connections_;
  std::thread receiver_;
};

/// Listens at `path`, never accepts, and has its backlog filled already: whoever connects waits.
class StalledReceiver {
 public:
  explicit StalledReceiver(std::string path);
  StalledReceiver(const StalledReceiver&) = delete;
  StalledReceiver& operator=(const StalledReceiver&) = delete;
  ~StalledReceiver();

 private:
  std::string path_;
  Descriptor listener_;
  std::vector<Descriptor> waiting_;
};

}  // namespace e2e
