#include "replayEngine.h"

#include <cstdlib>
#include <cstring>
#include <map>
#include <utility>
#include <vector>

#include "catalog.h"
#include "host/files.h"
#include "keldDelivery.h"
#include "keldFramework.h"
#include "keldLog.h"
#include "keldNetCorrelator.h"
#include "keldStream.h"
#include "keldVfatCorrelator.h"
#include "keldVprob.h"
#include "keldVprobRecord.h"
#include "model/heldModelHost.h"
#include "platform/kelemit.h"

namespace kelctl {

namespace {

constexpr const char* kScratch = "scratch";
constexpr const char* kOptions = "options";

/// Leaves the daemon's code where it would end the process. No standard exception: handlers take those.
struct DaemonStopped {
  std::string why;
};

struct KelFree {
  void operator()(Kel* kel) const noexcept { Kel_Free(kel); }
};
using OwnedKel = std::unique_ptr<Kel, KelFree>;

/// How the arguments of each observation are read, as far as a correlator reads them.
const std::map<std::string_view, std::vector<std::string_view>>& readings() {
  static const auto kReadings = [] {
    std::map<std::string_view, std::vector<std::string_view>> all;
    for (const keld::CorrelatorInfo* info : keld::correlators()) {
      for (const keld::Row& row : info->rows) all.try_emplace(row.observation, readArguments(row.read));
      for (const keld::Judged& judged : info->judged) all.try_emplace(judged.observation, readArguments(judged.read));
    }
    return all;
  }();
  return kReadings;
}

struct ToArgument {
  std::string_view read;  ///< as readArguments says it; empty where nobody reads it

  KelEmit::Argument operator()(const std::string& text) const {
    if (text == "(null)") return KelEmit::NullText{};
    return text;
  }
  KelEmit::Argument operator()(std::int64_t value) const {
    if (read == "int64") return value;
    if (std::in_range<std::int32_t>(value)) return static_cast<std::int32_t>(value);
    if (std::in_range<std::uint32_t>(value)) return static_cast<std::uint32_t>(value);
    return value;
  }
  KelEmit::Argument operator()(std::uint64_t value) const { return value; }
  KelEmit::Argument operator()(TraceUnknown /*unknown*/) const { return 0.0; }
};

/// The observation that a line of the trace shows; none where it holds a NUL, which no record can.
OwnedKel observationOf(const TraceEntry& entry) {
  KelEmit::Observation observation{entry.id, std::nullopt, {}, entry.timestamp};
  const auto known = readings().find(entry.id);
  for (std::size_t n = 0; n < entry.arguments.size(); ++n) {
    const bool isRead = known != readings().end() && n < known->second.size();
    observation.arguments.push_back(
        std::visit(ToArgument{isRead ? known->second[n] : std::string_view()}, entry.arguments[n]));
  }
  std::vector<char> record;
  if (KelEmit::appendRecord(observation, record) != 0) return nullptr;
  auto* const bytes = static_cast<char*>(std::malloc(record.size()));
  if (bytes == nullptr) throw std::bad_alloc();
  std::memcpy(bytes, record.data(), record.size());
  OwnedKel kel(Kel_MakeKel(bytes, record.size()));
  if (kel == nullptr) std::free(bytes);
  return kel;
}

/// A management agent that takes everything, or nothing.
class ReplayDelivery final : public keld::Delivery {
 public:
  ReplayDelivery(keld::Timers& timers, keld::DecisionListener& decisions, const bool& away)
      : Delivery({}, timers, &decisions), away_(away) {}
  int VProb_SendNow(const void* /*record*/, std::size_t /*length*/) override { return away_ ? -1 : 0; }

 private:
  const bool& away_;
};

class ReplayTrace final : public keld::EventTrace {
 public:
  ReplayTrace(const Clock& clock, ReplayWatcher& watcher) : clock_(clock), watcher_(watcher) {}
  void Trace_Event(const void* record) override {
    keld::renderTraceEvent(line_, clock_.wall(), record);
    const auto length = keld::record::load<std::uint32_t>(record, keld::record::kTotalLength);
    watcher_.posted({static_cast<const char*>(record), length}, line_);
  }

 private:
  const Clock& clock_;
  ReplayWatcher& watcher_;
  std::string line_;
};

/// The correlators that are made in a way of their own.
class Correlators {
 public:
  Correlators(keld::Services& services, const std::string& scratch) : net_(services, [this] { net_.expire(); }) {
    for (const keld::CorrelatorInfo* info : keld::correlators()) {
      auto& one = all_.emplace_back(info);
      for (const char* const group : info->groups) one.filter.addGroup(group);
      for (const char* const identifier : info->identifiers) one.filter.addIdentifier(identifier);
      if (info == &keld::kNetCorrelator) {
        one.handlers = net_.handlers();
        continue;
      }
      if (info == &keld::kVfatCorrelator) {
        auto vfat = std::make_unique<keld::VfatCorrelator>(services, scratch);
        vfat_ = vfat.get();
        one.correlator = std::move(vfat);
      } else {
        one.correlator = info->make(services);
      }
      one.handlers = one.correlator->handlers();
      one.fallback = one.correlator->fallback();
    }
  }

  void setScratch(const std::string& scratch) { vfat_->setScratch(scratch); }

  void dispatch(const Kel* observation, const std::string& id, ReplayWatcher& watcher) const {
    for (const One& one : all_) {
      if (!one.filter.matches(id.c_str())) continue;
      watcher.taken(*one.info, one.handlers.contains(id));
      keld::dispatchObservation(one.fallback, one.handlers, observation);
    }
  }

 private:
  struct One {
    explicit One(const keld::CorrelatorInfo* its) : info(its) {}
    const keld::CorrelatorInfo* info;
    keld::StreamFilter filter;
    std::unique_ptr<keld::Correlator> correlator;
    keld::HandlerTable handlers;
    keld::Handler fallback = keld::ignoreObservation;
  };

  keld::NetCorrelator net_;
  keld::VfatCorrelator* vfat_ = nullptr;
  std::vector<One> all_;
};

/// Below a device, so that it is a link on no machine: what is read of it is its own last part.
std::string scratchLink(const Json& facts) {
  const auto scratch = facts.find(kScratch);
  const std::string target = scratch != facts.end() && scratch->is_string() ? scratch->get<std::string>() : kScratch;
  return "/dev/null/" + target;
}

}  // namespace

void setOptions(Json& facts, const Json& options) {
  if (options.empty()) return;
  const auto those = facts.emplace(kOptions, Json::object()).first;
  if (those->is_object()) those->update(options);
}

/// What a start of the daemon makes anew.
class ReplayEngine::Daemon {
 public:
  Daemon(ReplayClock& clock, ReplayWatcher& watcher, const bool& agentAway, ReplayTimers::Fire fire)
      : timers_(clock, std::move(fire)),
        trace_(clock, watcher),
        delivery_(timers_, watcher, agentAway),
        post_(clock, trace_, delivery_, &watcher),
        services_{clock, post_, timers_, nullptr, &watcher} {}

  void start(const std::string& scratch) {
    post_.VProb_Init();
    correlators_ = std::make_unique<Correlators>(services_, scratch);
  }
  [[nodiscard]] ReplayTimers& timers() { return timers_; }
  [[nodiscard]] Correlators& correlators() { return *correlators_; }

 private:
  ReplayTimers timers_;
  ReplayTrace trace_;
  ReplayDelivery delivery_;
  keld::VProb post_;
  keld::Services services_;
  std::unique_ptr<Correlators> correlators_;
};

/// The host in force while the engine lives.
class ReplayEngine::Host {
 public:
  explicit Host(ReplayWatcher& watcher)
      : Host(std::make_unique<platform::HeldModelHost>([&watcher](const auto& line) { watcher.acted(line); })) {}
  void set(platform::ModelFile model) { held_->set(std::move(model)); }

 private:
  explicit Host(std::unique_ptr<platform::HeldModelHost> host) : held_(host.get()), inForce_(std::move(host)) {}

  platform::HeldModelHost* held_;
  platform::ScopedHost inForce_;
};

class ReplayEngine::Log final : public keld::LogSink {
 public:
  explicit Log(ReplayWatcher& watcher) : watcher_(watcher), previous_(keld::setLogSink(this)) {}
  ~Log() override { keld::setLogSink(previous_); }
  void line(const char* text) override { watcher_.logged(text); }
  void panic(const char* text) override { throw DaemonStopped{text}; }

 private:
  ReplayWatcher& watcher_;
  keld::LogSink* previous_;
};

ReplayEngine::ReplayEngine(ReplayWatcher& watcher, Json overrides)
    : watcher_(watcher),
      overrides_(std::move(overrides)),
      host_(std::make_unique<Host>(watcher)),
      log_(std::make_unique<Log>(watcher)) {}

ReplayEngine::~ReplayEngine() = default;

std::string ReplayEngine::setFacts(const Json& facts) {
  Json model = facts;
  setOptions(model, overrides_);
  model.erase(kScratch);
  auto parsed = platform::parseModelFile(jsonLine(model));
  if (!parsed.ok()) return platform::reasonOf(parsed.outcome);
  host_->set(std::move(parsed.value));
  facts_ = facts;
  if (daemon_ != nullptr) daemon_->correlators().setScratch(scratchLink(facts_));
  return {};
}

std::string ReplayEngine::changeFacts(const Json& patch) {
  Json facts = facts_;
  facts.merge_patch(patch);
  return setFacts(facts);
}

/// Does what is the daemon's. Where that would end it, it is started anew.
template <typename Work>
void ReplayEngine::guarded(const Work& work) {
  try {
    work();
  } catch (const DaemonStopped& stop) {
    watcher_.stopped(stop.why);
    start();
  }
}

void ReplayEngine::start() {
  started_ = true;
  daemon_ = std::make_unique<Daemon>(clock_, watcher_, agentAway_, [this](const keld::TimerCallback& callback) {
    step({ReplayStep::What::timer, clock_.wall(), 0, nullptr, {}, {}});
    callback();
  });
  try {
    daemon_->start(scratchLink(facts_));
  } catch (const DaemonStopped& stop) {
    watcher_.stopped(stop.why);
    daemon_.reset();
  }
}

void ReplayEngine::step(const ReplayStep& step) {
  watcher_.begins(step);
}

void ReplayEngine::advanceTo(WallTime time) {
  while (daemon_ != nullptr && clock_.wall() < time) {
    guarded([&] { daemon_->timers().advanceTo(time); });
  }
  if (clock_.wall() < time) clock_.pass(time - clock_.wall());
}

std::string ReplayEngine::observe(const CaptureItem& item, const TraceEntry& entry) {
  const OwnedKel observation = observationOf(entry);
  if (observation == nullptr) return "an observation that no record can hold";
  step({ReplayStep::What::observation, clock_.wall(), item.line, &entry, {}, {}});
  if (daemon_ == nullptr) return {};
  guarded([&] { daemon_->correlators().dispatch(observation.get(), entry.id, watcher_); });
  return {};
}

std::string ReplayEngine::take(const CaptureItem& item) {
  using What = ReplayStep::What;
  const auto* const entry = std::get_if<TraceEntry>(&item.what);
  // Events were rendered by other threads than observations, and may be told a little out of turn.
  if (entry != nullptr && entry->direction == TraceDirection::out) return {};
  if (!started_) {
    clock_.set(item.time);
    step({What::start, item.time, 0, nullptr, {}, {}});
    start();
  }
  if (item.time < clock_.wall()) {
    step({What::clock, clock_.wall(), item.line, nullptr, "set back", item.time});
    clock_.set(item.time);
  }
  advanceTo(item.time);
  if (entry != nullptr) return observe(item, *entry);
  if (const auto* const change = std::get_if<FactsChange>(&item.what)) {
    step({What::facts, item.time, item.line, nullptr, jsonLine(change->patch), {}});
    std::string problem = changeFacts(change->patch);
    if (daemon_ == nullptr) start();
    return problem;
  }
  if (const auto* const change = std::get_if<ClockStep>(&item.what)) {
    step({What::clock, item.time, item.line, nullptr, "set", change->to});
    clock_.set(change->to);
    if (daemon_ != nullptr) guarded([&] { daemon_->timers().fireDue(); });
  } else if (const auto* const agent = std::get_if<AgentChange>(&item.what)) {
    agentAway_ = agent->away;
    step({What::agent, item.time, item.line, nullptr, agent->away ? "away" : "back", {}});
  } else if (std::holds_alternative<DaemonRestart>(item.what)) {
    step({What::restart, item.time, item.line, nullptr, {}, {}});
    start();
  } else if (std::holds_alternative<CaptureEnd>(item.what)) {
    step({What::end, item.time, item.line, nullptr, {}, {}});
  }
  return {};
}

}  // namespace kelctl
