// What the scenarios of host services share: a post that lets a test look at the host while it is
// called, and the audit trail.
#pragma once

#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "modelHost.h"
#include "scenarioTools.h"

namespace scenario {

/// Counts events, and calls `look` at each of them.
class WatchedPost final : public keld::Post {
 public:
  explicit WatchedPost(std::function<void()> look) : look_(std::move(look)) {}
  [[nodiscard]] int count() const { return count_; }

 private:
  void post(bool, keld::VProbKind, const char*, std::va_list) override {
    ++count_;
    look_();
  }
  void postUnmarked(const char*, const char*, std::va_list) override { ADD_FAILURE() << "the discouraged interface"; }

  std::function<void()> look_;
  int count_ = 0;
};

/// One observation to a user-level correlator that posts to `post`.
inline void observeWith(support::Scenario& scenario, keld::Post& post, const std::string& id,
                        const Arguments& arguments) {
  keld::Services services{scenario.clock, post, scenario.timers};
  const std::unique_ptr<keld::Correlator> correlator = keld::kUserLevelCorrelator.make(services);
  const support::KelPtr kel = support::observation(id, arguments);
  keld::dispatchObservation(correlator->fallback(), correlator->handlers(), kel.get());
}

inline std::string auditPath(const support::ModelHost& host) {
  return host.directory() + "/state/audit.jsonl";
}

/// The audit trail so far, each record from its kind to its flag.
inline Lines auditTrail(const support::ModelHost& host) {
  std::ifstream in(auditPath(host));
  Lines records;
  for (std::string line; std::getline(in, line);) {
    const std::size_t begin = line.find(R"("record":)");
    records.push_back(begin == std::string::npos ? line : line.substr(begin, line.size() - begin - 1));
  }
  return records;
}

}  // namespace scenario
