// Observations with any arguments, given to the correlators that translate them.
// Input: per observation one byte or two that choose it, one with the number of its arguments, and per
// argument one with its type and its value. Time passes with each.
#include <array>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "host/host.h"
#include "keldCorrelator.h"
#include "keldLog.h"
#include "keldNetCorrelator.h"
#include "platform/kelemit.h"

namespace {

// Actions and the store fail: they would leave a line for each, or wait for the disk.
constexpr const char* kModel = R"({
  "portGroups": {"": "sw0", "a": "sw0"},
  "options": {"PageRetire/ApeiLoggingEnabled": 1, "Cpu/CPUOfflineThreshold": 3, "Net/LinkFlappingThreshold": 1},
  "storage": {"paths": {"": "", "a": "b"},
              "devices": {"": {"redundancyState": 3, "disk": true, "partitions": [{"number": 1, "volume": "one"}]},
                          "b": {"redundancyState": 1, "disk": false}}},
  "vms": [{"worldId": 0, "groupId": 0, "name": "web01"}],
  "cpu": {"vendor": "GenuineIntel", "cores": 4, "pcpus": 8, "offlineEnabled": true},
  "failures": {"store.create": 5, "nic.down": 5, "cpu.offline": 5, "page.retire": 5, "vm.kill": 5, "swap.reconfigure": "no"}})";

class FuzzClock final : public Clock {
 public:
  [[nodiscard]] WallTime wall() const override { return now_; }
  [[nodiscard]] std::chrono::seconds monotonic() const override {
    return std::chrono::floor<std::chrono::seconds>(now_.time_since_epoch());
  }
  void waitUntil(std::unique_lock<std::mutex>& /*lock*/, std::condition_variable& /*changed*/,
                 WallSeconds /*due*/) override {}
  void pass(std::chrono::seconds time) { now_ += time; }

 private:
  WallTime now_{std::chrono::seconds(1'767'225'600)};
};

class FuzzTimers final : public keld::Timers {
 public:
  int create(keld::TimerCallback /*callback*/) override { return next_++; }
  int set(int /*id*/, keld::TimerMode /*mode*/, std::uint32_t /*seconds*/, std::uint32_t* /*remaining*/) override {
    return 0;
  }

 private:
  int next_ = 0;
};

/// Lets the sanitizer see every argument of an event.
class FuzzPost final : public keld::Post {
 private:
  void post(bool /*queueOnly*/, keld::VProbKind /*kind*/, const char* marked, std::va_list arguments) override {
    std::array<char, 4096> text{};
    if (std::vsnprintf(text.data(), text.size(), marked, arguments) < 0) std::abort();
  }
  void postUnmarked(const char* /*id*/, const char* message, std::va_list arguments) override {
    post(false, keld::VProbKind::problem, message, arguments);
  }
};

class FuzzLog final : public keld::LogSink {
 public:
  FuzzLog() { keld::setLogSink(this); }
  void line(const char* text) override {
    if (std::string(text).empty()) std::abort();
  }
};

/// A model host whose file lasts as long as the process.
class PreparedHost {
 public:
  PreparedHost() {
    if (mkdtemp(directory_.data()) == nullptr) std::abort();
    for (const char* const variable : {"KORVEL_RUN_DIR", "KORVEL_CONF_DIR", "KORVEL_STATE_DIR"}) {
      setenv(variable, directory_.c_str(), 1);
    }
    std::ofstream(directory_ + "/host.json") << kModel;
    // In the place of the audit trail, which would grow with every input.
    std::filesystem::create_directory(directory_ + "/audit.jsonl");
    host_ = std::make_unique<platform::ScopedHost>(platform::makeHost("model:" + directory_ + "/host.json"));
  }
  PreparedHost(const PreparedHost&) = delete;
  PreparedHost& operator=(const PreparedHost&) = delete;
  ~PreparedHost() {
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
  }

 private:
  std::string directory_ = (std::filesystem::temp_directory_path() / "keld-fuzz-XXXXXX").string();
  std::unique_ptr<platform::ScopedHost> host_;
};

class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : at_(data), end_(data + size) {}
  [[nodiscard]] bool empty() const { return at_ == end_; }
  std::uint8_t byte() { return empty() ? std::uint8_t{0} : *at_++; }
  template <typename T>
  T number() {
    T value = 0;
    for (std::size_t n = 0; n < sizeof value; ++n) value = static_cast<T>(value << 8U | byte());
    return value;
  }
  std::string text() {
    std::string value;
    for (std::size_t left = byte(); left > 0 && !empty(); --left) {
      const auto c = static_cast<char>(byte());
      if (c != '\0') value += c;
    }
    return value;
  }

 private:
  const std::uint8_t* at_;
  const std::uint8_t* end_;
};

KelEmit::Argument argument(Input& input) {
  switch (input.byte() % 7) {
    case 0:
      return KelEmit::NullText{};
    case 1:
      return input.number<std::uint32_t>();
    case 2:
      return static_cast<std::int32_t>(input.number<std::uint32_t>());
    case 3:
      return input.number<std::uint64_t>();
    case 4:
      return static_cast<std::int64_t>(input.byte());
    case 5:
      return 0.5;
    default:
      return input.text();
  }
}

struct Subject {
  keld::HandlerTable handlers;
  keld::Handler fallback = keld::ignoreObservation;
};

/// The handlers of every correlator, under the identifiers that they know.
struct All {
  explicit All(keld::Services& services) : net(services, [] {}) {
    for (const keld::CorrelatorInfo* info : keld::correlators()) {
      if (info->make == nullptr) continue;
      correlators.push_back(info->make(services));
      add({correlators.back()->handlers(), correlators.back()->fallback()}, std::string("kel.") + info->groups[0]);
    }
    add({net.handlers()}, "kel.net");
  }
  void add(Subject subject, const std::string& group) {
    subjects.push_back(std::make_unique<Subject>(std::move(subject)));
    for (const auto& [id, handler] : subjects.back()->handlers) ids.emplace_back(id, subjects.back().get());
    ids.emplace_back(group + ".unknown", subjects.back().get());
  }

  keld::NetCorrelator net;
  std::vector<std::unique_ptr<keld::Correlator>> correlators;
  std::vector<std::unique_ptr<Subject>> subjects;
  std::vector<std::pair<std::string, Subject*>> ids;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const PreparedHost kHost;
  static FuzzLog log;
  FuzzClock clock;
  FuzzTimers timers;
  FuzzPost post;
  keld::Services services{clock, post, timers};
  All all(services);
  Input input(data, size);
  for (int left = 64; left > 0 && !input.empty(); --left) {
    const auto& [id, subject] = all.ids[input.number<std::uint16_t>() % all.ids.size()];
    KelEmit::Observation observation{id, std::nullopt, {}, 1};
    for (std::size_t count = input.byte() % 16; count > 0; --count) observation.arguments.push_back(argument(input));
    std::vector<char> record;
    if (KelEmit::appendRecord(observation, record) != 0) std::abort();
    auto* bytes = static_cast<char*>(std::malloc(record.size()));
    if (bytes == nullptr) std::abort();
    std::copy(record.begin(), record.end(), bytes);
    Kel* kel = Kel_MakeKel(bytes, record.size());
    if (kel == nullptr) std::abort();
    keld::dispatchObservation(subject->fallback, subject->handlers, kel);
    Kel_Free(kel);
    clock.pass(std::chrono::seconds(input.byte() % 4));
    all.net.expire();
  }
  return 0;
}
