// The parts of the data path by themselves.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>

#include "keldCorrelator.h"
#include "keldDecision.h"
#include "keldFramework.h"
#include "keldLog.h"
#include "keldNetRows.h"
#include "keldTrace.h"
#include "platform/kelemit.h"
#include "platform/msgfmt.h"

namespace {

std::vector<char> transition() {
  std::vector<char> record;
  KelEmit::appendRecord({"kel.net.pg.uplink.transition.down",
                         "NIC %s: port group %s has %d uplinks left",
                         {std::string("nic0"), std::string("Production"), std::int32_t{1}, std::int32_t{2}},
                         1},
                        record);
  return record;
}

Kel* make(const std::vector<char>& record) {
  auto* copy = static_cast<char*>(std::malloc(record.size()));
  std::memcpy(copy, record.data(), record.size());
  return Kel_MakeKel(copy, record.size());
}

void makeAndReadObservation(benchmark::State& state) {
  const std::vector<char> record = transition();
  for (auto _ : state) {
    Kel* kel = make(record);
    const char* nic = nullptr;
    const char* group = nullptr;
    int active = 0;
    benchmark::DoNotOptimize(Kel_GetArgs(kel, 0, "%p %p %d", &nic, &group, &active));
    Kel_Free(kel);
  }
}
BENCHMARK(makeAndReadObservation);

void renderMessage(benchmark::State& state) {
  Kel* kel = make(transition());
  for (auto _ : state) {
    char* text = Kel_GetMsg(kel);
    benchmark::DoNotOptimize(text);
    std::free(text);
  }
  Kel_Free(kel);
}
BENCHMARK(renderMessage);

void renderTraceLine(benchmark::State& state) {
  const std::vector<char> record = transition();
  std::string line;
  for (auto _ : state) {
    Kel_RecordView view;
    Kel_ViewRecord(record.data(), record.size(), &view);
    keld::renderTraceLine(line, systemClock().wall(), "IN", view.timestamp, view.id, view.arguments, view.argumentCount,
                          view.end);
    benchmark::DoNotOptimize(line.data());
  }
}
BENCHMARK(renderTraceLine);

void traceWithoutClients(benchmark::State& state) {
  keld::TraceServer trace(systemClock());
  const std::vector<char> record = transition();
  for (auto _ : state) trace.Trace_Observation(record.data(), record.size());
}
BENCHMARK(traceWithoutClients);

class NoPost final : public keld::Post {
  void post(bool /*queueOnly*/, keld::VProbKind /*kind*/, const char* markedTemplate, std::va_list /*args*/) override {
    benchmark::DoNotOptimize(markedTemplate);
  }
  void postUnmarked(const char* /*id*/, const char* /*messageTemplate*/, std::va_list /*args*/) override {}
};

class NoLog final : public keld::LogSink {
  void line(const char* text) override { benchmark::DoNotOptimize(text); }
};

void dispatchARow(benchmark::State& state) {
  NoPost post;
  NoLog log;
  keld::setLogSink(&log);
  keld::HandlerTable handlers;
  keld::addRows<keld::kNetRows>(handlers, post, keld::OnUnreadable::silent);
  std::vector<char> record;
  KelEmit::appendRecord({"kel.net.lacp.uplink.blocked", "x", {std::string("nic0"), std::string("switch0")}, 1}, record);
  Kel* kel = make(record);
  for (auto _ : state) keld::dispatchObservation(keld::ignoreObservation, handlers, kel);
  Kel_Free(kel);
  keld::setLogSink(nullptr);
}
BENCHMARK(dispatchARow);

constexpr keld::Decides<std::int64_t, std::int64_t> kHeld{keld::DecisionKind::holds, "bench.held",
                                                          "held off: last posted {} s ago, limit {} s"};

/// What a correlator pays where it may report a decision: first nothing at all, then with nobody listening,
/// as in the daemon, then with somebody who renders it.
void decideSilently(benchmark::State& state) {
  std::int64_t age = 0;
  for (auto _ : state) benchmark::DoNotOptimize(++age);
}
BENCHMARK(decideSilently);

void decideWithNobodyListening(benchmark::State& state) {
  std::int64_t age = 0;
  keld::DecisionListener* listener = nullptr;
  for (auto _ : state) {
    benchmark::DoNotOptimize(++age);
    benchmark::DoNotOptimize(listener);
    kHeld.report(listener, "qnic0", age, 3600);
  }
}
BENCHMARK(decideWithNobodyListening);

class Renderer final : public keld::DecisionListener {
  void decided(const keld::Decision& decision, std::string_view /*subject*/,
               std::span<const keld::DecisionValue> values) override {
    benchmark::DoNotOptimize(keld::decisionText(decision, values));
  }
};

void decideWithAListener(benchmark::State& state) {
  std::int64_t age = 0;
  Renderer renderer;
  for (auto _ : state) kHeld.report(&renderer, "qnic0", ++age, 3600);
}
BENCHMARK(decideWithAListener);

class NoTimers final : public keld::Timers {
  int create(keld::TimerCallback /*callback*/) override { return 0; }
  int set(int /*id*/, keld::TimerMode /*mode*/, std::uint32_t /*seconds*/, std::uint32_t* /*remaining*/) override {
    return 0;
  }
};

/// A held-off observation of the clock, from dispatch to its decision.
void holdAnObservationOff(benchmark::State& state, keld::DecisionListener* listener) {
  NoPost post;
  NoLog log;
  NoTimers timers;
  keld::setLogSink(&log);
  keld::Services services{systemClock(), post, timers, nullptr, listener};
  const auto correlator = keld::kClockCorrelator.make(services);
  const keld::HandlerTable handlers = correlator->handlers();
  std::vector<char> record;
  KelEmit::appendRecord({"kel.clock.correction.adjtime.unsync", "x", {}, 1}, record);
  Kel* kel = make(record);
  for (auto _ : state) keld::dispatchObservation(keld::ignoreObservation, handlers, kel);
  Kel_Free(kel);
  keld::setLogSink(nullptr);
}
void holdOffWithNobodyListening(benchmark::State& state) {
  holdAnObservationOff(state, nullptr);
}
BENCHMARK(holdOffWithNobodyListening);
void holdOffWithAListener(benchmark::State& state) {
  Renderer renderer;
  holdAnObservationOff(state, &renderer);
}
BENCHMARK(holdOffWithAListener);

}  // namespace

BENCHMARK_MAIN();
