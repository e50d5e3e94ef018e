// Whole processes through their real sockets: the daemon beside its floor, in turns, medians of several runs.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "platform/kelemit.h"
#include "process.h"

namespace {

constexpr int kRuns = 5;
constexpr std::uint32_t kContexts = 24;
constexpr std::size_t kRecordBytes = 200;

std::string programs;  // the folder of the measured programs

double median(std::vector<double> values) {
  std::ranges::sort(values);
  return values[values.size() / 2];
}

/// A record of 200 bytes whose handler finds no argument that it could read.
std::vector<char> record(const std::string& id) {
  std::vector<char> bytes;
  KelEmit::Observation observation{id, "", {}, 1};
  KelEmit::appendRecord(observation, bytes);
  observation.message = std::string(kRecordBytes - bytes.size(), 'm');
  bytes.clear();
  KelEmit::appendRecord(observation, bytes);
  return bytes;
}

std::vector<char> marker(const std::string& id, const std::string& text) {
  std::vector<char> bytes;
  KelEmit::appendRecord({id, "marker", {text}, 1}, bytes);
  return bytes;
}

struct Load {
  const char* name;
  std::vector<std::string> handled;  // identifiers in turn
  std::vector<std::string> markers;  // each becomes an event once all before it is through
  bool log;
};

/// Records per second from the first datagram to the last marker's event, with no loss: sockets and
/// pipes block, and every context's marker comes last in its order.
double throughput(const std::string& program, const std::vector<std::string>& arguments, const Load& load, int perBatch,
                  int records) {
  bench::Process process;
  std::atomic<int> events{0};
  const bench::EventSocket receiver(process.runDirectory() + "/hagd-vprob.sock", [&](const std::string&) { ++events; });
  process.start(program, arguments);
  std::vector<KelEmit::Sender> senders(kContexts);
  for (std::uint32_t n = 0; n < kContexts; ++n) {
    if (senders[n].openContext(n) != 0) std::exit(1);
  }
  std::vector<std::vector<char>> batches;
  for (const std::string& id : load.handled) {
    const std::vector<char> one = record(id);
    std::vector<char> batch;
    for (int n = 0; n < perBatch; ++n) batch.insert(batch.end(), one.begin(), one.end());
    batches.push_back(batch);
  }
  const std::int64_t begun = bench::now();
  for (int n = 0; n < records / perBatch; ++n) {
    if (senders[static_cast<std::size_t>(n) % kContexts].send(batches[static_cast<std::size_t>(n) % batches.size()]) !=
        0)
      std::exit(1);
  }
  int expected = 0;
  for (KelEmit::Sender& sender : senders) {
    for (const std::string& id : load.markers) {
      sender.send(marker(id, "end"));
      ++expected;
    }
  }
  while (events.load() < expected) {
    const timespec pause{0, 200'000};
    nanosleep(&pause, nullptr);
  }
  return records / (static_cast<double>(bench::now() - begun) / 1e9);
}

void compareThroughput(const Load& load, int perBatch) {
  const int records = perBatch == 1 ? 200'000 : 640'000;
  std::vector<std::string> floorArguments;
  if (load.log) floorArguments.emplace_back("log");
  std::vector<double> daemon;
  std::vector<double> floor;
  Load floorLoad = load;
  for (std::string& id : floorLoad.markers) id = id.ends_with(".marker") ? id : "kel.net.x.marker";
  for (int run = 0; run < kRuns; ++run) {
    floor.push_back(throughput(programs + "/keld-floor", floorArguments, floorLoad, perBatch, records));
    daemon.push_back(throughput(programs + "/keld-bench-daemon", {}, load, perBatch, records));
  }
  std::printf("%-34s %5d %12.0f %12.0f %8.0f %%\n", load.name, perBatch, median(daemon), median(floor),
              100 * median(daemon) / median(floor));
  std::fflush(stdout);
}

struct Percentiles {
  double p50, p99, p999;
};

/// Microseconds from the emitter's send to the whole record at the event socket, at 1,000 a second.
Percentiles latency(const std::string& program, const std::vector<std::string>& arguments) {
  constexpr int kEvents = 1000;  // as many as the rate limit lets through
  bench::Process process;
  std::vector<std::int64_t> sent(kEvents);
  std::vector<double> taken;
  std::atomic<int> events{0};
  const bench::EventSocket receiver(process.runDirectory() + "/hagd-vprob.sock", [&](const std::string& bytes) {
    const std::int64_t received = bench::now();
    const std::size_t at = bytes.find("seq=");
    const int sequence = std::atoi(bytes.c_str() + at + 4);
    taken.push_back(static_cast<double>(received - sent[static_cast<std::size_t>(sequence)]) / 1e3);
    ++events;
  });
  process.start(program, arguments);
  KelEmit::Sender sender;
  sender.openContext(0);
  std::int64_t due = bench::now();
  for (int n = 0; n < kEvents; ++n) {
    due += 1'000'000;
    const timespec at{due / 1'000'000'000, due % 1'000'000'000};
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &at, nullptr);
    const std::vector<char> batch = marker("kel.net.firewall.enabled", "seq=" + std::to_string(n));
    sent[static_cast<std::size_t>(n)] = bench::now();
    sender.send(batch);
  }
  while (events.load() < kEvents) {
    const timespec pause{0, 200'000};
    nanosleep(&pause, nullptr);
  }
  std::ranges::sort(taken);
  return {taken[kEvents / 2], taken[kEvents * 99 / 100], taken[kEvents * 999 / 1000]};
}

void compareLatency() {
  std::vector<double> figures[6];
  for (int run = 0; run < kRuns; ++run) {
    const Percentiles floor = latency(programs + "/keld-floor", {"event"});
    const Percentiles daemon = latency(programs + "/keld", {});
    const double all[] = {daemon.p50, daemon.p99, daemon.p999, floor.p50, floor.p99, floor.p999};
    for (int n = 0; n < 6; ++n) figures[n].push_back(all[n]);
  }
  std::printf("\nlatency at 1,000/s, us             p50      p99    p99.9\n");
  for (int row = 0; row < 2; ++row) {
    std::printf("  %-24s %10.0f %8.0f %8.0f\n", row == 0 ? "keld" : "floor", median(figures[row * 3]),
                median(figures[row * 3 + 1]), median(figures[row * 3 + 2]));
  }
}

void measureStart() {
  std::vector<double> ready;
  for (int run = 0; run < 2 * kRuns; ++run) {
    bench::Process process;
    ready.push_back(static_cast<double>(process.start(programs + "/keld", {})) / 1e6);
  }
  std::printf("\nstart to ready: %.1f ms\n", median(ready));
}

void measureMemory() {
  bench::Process process;
  std::atomic<int> events{0};
  const bench::EventSocket receiver(process.runDirectory() + "/hagd-vprob.sock", [&](const std::string&) { ++events; });
  process.start(programs + "/keld", {});
  std::printf("resident at rest: %ld KiB\n", process.residentKiB());
  KelEmit::Sender sender;
  sender.openContext(0);
  std::vector<char> batch;
  for (int n = 0; n < 32; ++n) {
    const std::vector<char> one = record(n % 8 == 0 ? "kel.net.lacp.enable" : "kel.net.bench.unknown");
    batch.insert(batch.end(), one.begin(), one.end());
  }
  for (int million = 1; million <= 2; ++million) {
    for (int n = 0; n < 1'000'000 / 32; ++n) sender.send(batch);
    sender.send(marker("kel.net.firewall.enabled", "end"));
    while (events.load() < million) {
      const timespec pause{0, 1'000'000};
      nanosleep(&pause, nullptr);
    }
    std::printf("resident after %d,000,000 observations: %ld KiB\n", million, process.residentKiB());
  }
  std::printf("exit status after SIGTERM: %d\n", process.stop());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1) {
    const bool help = std::string_view(argv[1]) == "--help";
    std::fprintf(help ? stdout : stderr,
                 "Usage: %s\nMeasures keld beside a floor program through their sockets, in about two minutes.\n",
                 argv[0]);
    return help ? 0 : 1;
  }
  programs = std::filesystem::path(argv[0]).parent_path().string();
  if (programs.empty()) programs = ".";
  if (!bench::privateSystemLog()) {
    std::fprintf(stderr, "keld-pipeline: needs root for a private system log (run it with sudo)\n");
    return 1;
  }
  const std::string net = "kel.net.firewall.enabled";
  const std::vector<Load> loads = {
      {"none handled, no log line", {"kel.net.bench.unknown"}, {net}, false},
      {"one correlator handles, one line", {"kel.net.lacp.enable"}, {net}, true},
      {"five correlators, one line",
       {"kel.net.lacp.enable", "kel.bench1.handled", "kel.bench2.handled", "kel.bench3.handled", "kel.bench4.handled"},
       {net, "kel.bench1.x.marker", "kel.bench2.x.marker", "kel.bench3.x.marker", "kel.bench4.x.marker"},
       true},
  };
  std::printf("medians of %d runs each; again with: sudo %s\n\n", kRuns, argv[0]);
  std::printf("%-34s %5s %12s %12s %10s\n", "records of 200 bytes, 24 contexts", "batch", "keld /s", "floor /s",
              "of floor");
  for (const Load& load : loads) {
    for (const int perBatch : {1, 32}) compareThroughput(load, perBatch);
  }
  compareLatency();
  measureStart();
  measureMemory();
  return 0;
}
