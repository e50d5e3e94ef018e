// Eight clients of the user-level context at once, by the hundred thousand observations, among others that
// misbehave: whatever those do, the eight are heard out, each in its order.
#include <sys/wait.h>

#include <array>
#include <atomic>
#include <charconv>
#include <csignal>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

#include "endToEnd.h"
#include "stormSize.h"

namespace e2e {
namespace {

using support::u;

constexpr unsigned kClients = 8;
constexpr unsigned kPerBatch = 32;
/// How many observations of a client may be on their way, so that what the daemon keeps for the test's own
/// trace client does not depend on how fast that reads.
constexpr unsigned kWindow = 4096;
/// What the daemon may hold at any time beyond what it held when idle: its buffer at its largest, and what is
/// on its way to the trace client.
constexpr std::size_t kMemoryBoundKiB = 16'384;

/// What takes some seconds.
unsigned observations() {
  return static_cast<unsigned>(stormSize(kSanitized ? 40'000 : 200'000));
}

/// Nobody translates these, so they are read, traced and then forgotten.
std::string idOf(const std::string& sender) {
  return "kel.storm." + sender;
}

/// One that sends numbered observations: what of them was traced, written by the reader of the trace alone.
struct Track {
  std::atomic<unsigned> traced{0};
  std::atomic<unsigned> greeted{0};  ///< the number of its greeting that was traced last
};

/// Packets of a process that is killed while it sends them: more than its socket takes at once.
constexpr unsigned kPackets = 20, kRecordsInPacket = 400;

class ClientStorm : public Serving {
 protected:
  void SetUp() override {
    Serving::SetUp();
    if (IsSkipped()) return;
    ASSERT_TRUE(daemon().comesToRest());
    idleKiB_ = daemon().memoryKiB("VmRSS");
  }
  void TearDown() override {
    stop();
    Serving::TearDown();
  }

  /// Starts something that goes on until it is through or stopped().
  void start(std::function<void()> work) {
    const std::lock_guard lock(threadsMutex_);
    if (stopped()) return;
    threads_.emplace_back([work = std::move(work)] {
      try {
        work();
      } catch (const std::exception& trouble) {
        ADD_FAILURE() << trouble.what();
      }
    });
  }
  [[nodiscard]] bool stopped() const { return stopped_.load(); }
  void stop() {
    stopped_.store(true);
    stopped_.notify_all();
    for (Track& track : clients_) {
      track.traced.fetch_add(kStop);
      track.traced.notify_all();
    }
    std::vector<std::thread> threads;
    {
      const std::lock_guard lock(threadsMutex_);
      threads.swap(threads_);
    }
    for (std::thread& thread : threads) thread.join();
  }

  /// A connection that the daemon has taken: it has read a greeting. Nothing once stopped.
  std::optional<Emitter> enter(const std::string& name, Track& track, unsigned& greetings) {
    while (!stopped()) {
      Emitter emitter = Emitter::toUserContext(workspace());
      const unsigned greeting = ++greetings;
      if (emitter.trySend(record(idOf("hello." + name), {u(greeting)})) != 0) continue;
      while (!stopped() && !emitter.closedByPeer(Deadline(std::chrono::milliseconds(2)))) {
        if (track.greeted.load() == greeting) return emitter;
      }
    }
    return std::nullopt;
  }

  /// Sends a client's observations from number `first` on, no further ahead of the trace than the window.
  void sendNumbered(const Emitter& emitter, unsigned client, unsigned first, unsigned end) {
    Track& track = clients_[client];
    const std::string id = idOf("client" + std::to_string(client));
    for (unsigned next = first; next < end && !stopped();) {
      const unsigned traced = track.traced.load();
      if (next >= traced + kWindow) {
        track.traced.wait(traced);
        continue;
      }
      Batch batch;
      for (unsigned n = 0; n < kPerBatch && next < end; ++n) batch = joined(std::move(batch), record(id, {u(next++)}));
      emitter.send(batch);
    }
  }

  /// A client that comes and stays.
  void startClient(unsigned client, unsigned share) {
    start([this, client, share] {
      unsigned greetings = 0;
      const auto emitter = enter("client" + std::to_string(client), clients_[client], greetings);
      ++inside_;
      if (emitter) sendNumbered(*emitter, client, 0, share);
      stopped_.wait(false);
    });
  }
  /// A client that leaves and comes again, `rounds` times in all, with its share of the observations.
  void startRestlessClient(unsigned client, unsigned share, unsigned rounds) {
    start([this, client, share, rounds] {
      unsigned greetings = 0;
      for (unsigned round = 0; round < rounds; ++round) {
        const unsigned first = share * round / rounds, end = share * (round + 1) / rounds;
        auto emitter = enter("client" + std::to_string(client), clients_[client], greetings);
        if (emitter) sendNumbered(*emitter, client, first, end);
        // Hangs up with some unread. Between two connections no order is kept, so they have to be read first.
        emitter.reset();
        Track& track = clients_[client];
        for (unsigned traced = 0; (traced = track.traced.load()) < end;) track.traced.wait(traced);
      }
    });
  }
  /// Waits until it is so, or the time is over.
  void waitUntil(const std::function<bool()>& so) const {
    if (!eventually([&] { return stopped() || so(); })) throw HarnessError("what was waited for did not come");
  }

  /// Knocks again and again and leaves at once where it is let in.
  void startKnocker() {
    start([this] {
      while (!stopped()) {
        const Emitter emitter = Emitter::toUserContext(workspace());
        if (emitter.closedByPeer(Deadline(std::chrono::milliseconds(20)))) ++turnedAway_;
      }
    });
  }
  /// Stays, does not send, and never reads.
  void startIdler() {
    start([this] {
      unsigned greetings = 0;
      const auto emitter = enter("idler", idler_, greetings);
      if (emitter) stopped_.wait(false);
    });
  }
  /// Sends what breaks the rules, and between it numbered observations that do not.
  void startGarbageSender() {
    start([this] {
      unsigned greetings = 0, next = 0;
      while (!stopped()) {
        const auto emitter = enter("garbage", garbage_, greetings);
        while (emitter && !stopped() && sendGarbage(*emitter, next) && next < garbage_.traced.load() + kWindow) {
        }
      }
    });
  }
  /// False where the connection broke.
  bool sendGarbage(const Emitter& emitter, unsigned& next) const {
    const Batch sound = record(idOf("garbage"), {u(next)});
    Batch cutOff = joined(sound, sound);
    cutOff.pop_back();
    for (const Batch& batch : {Batch(700, '\xff'), cutOff, Batch(140'000, 'g'), Batch(10, '\0'), Batch(1, 'x')}) {
      if (!sendOrStop(emitter, batch)) return false;
    }
    if (!sendOrStop(emitter, sound)) return false;
    ++next;
    return true;
  }
  bool sendOrStop(const Emitter& emitter, const Batch& batch) const {
    while (!stopped()) {
      const int error = emitter.trySend(batch);
      if (error != EAGAIN) return error == 0;
      if (emitter.closedByPeer(Deadline(std::chrono::milliseconds(1)))) return false;
    }
    return false;
  }

  /// Processes that send large packets, each killed while it does; the next one when this one is gone.
  void startKilled() {
    start([this] {
      const sockaddr_un address = localAddress(workspace().userSocket());
      for (unsigned life = 0; !stopped(); ++life) {
        const std::vector<Batch> packets = packetsOf(life);
        const unsigned before = packetsTraced_.load();
        const pid_t child = ::fork();
        if (child == 0) sendPackets(address, packets);
        if (child < 0) throwErrno("fork");
        // One that is not let in ends by itself.
        waitUntil([&] { return packetsTraced_.load() > before || hasEnded(child); });
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
        ++killed_;
      }
    });
  }
  static bool hasEnded(pid_t child) {
    siginfo_t end{};
    return ::waitid(P_PID, static_cast<id_t>(child), &end, WEXITED | WNOHANG | WNOWAIT) != 0 || end.si_pid == child;
  }
  static std::vector<Batch> packetsOf(unsigned life) {
    std::vector<Batch> packets(kPackets);
    for (unsigned packet = 0; packet < kPackets; ++packet) {
      for (unsigned n = 0; n < kRecordsInPacket; ++n) {
        packets[packet] = joined(std::move(packets[packet]), record(idOf("killed"), {u(life), u(packet), u(n)}));
      }
    }
    return packets;
  }
  // In the child of a process with threads: system calls only.
  [[noreturn]] static void sendPackets(const sockaddr_un& address, const std::vector<Batch>& packets) {
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) ::_exit(1);
    for (const Batch& packet : packets) {
      if (::send(fd, packet.data(), packet.size(), MSG_NOSIGNAL) < 0) ::_exit(1);
    }
    while (true) ::pause();
  }

  /// Those that misbehave, each in its way.
  void startOthers() {
    startIdler();
    startGarbageSender();
    startKilled();
    startKnocker();
  }

  /// Reads the trace until each client's observations have come up to `share`. Throws where one is
  /// missing, twice or out of its order.
  void readUntilAllCame(unsigned share) {
    for (unsigned complete = 0; complete < kClients;) complete += readLine(share) ? 1 : 0;
  }

  [[nodiscard]] unsigned inside() const { return inside_.load(); }
  [[nodiscard]] unsigned turnedAway() const { return turnedAway_.load(); }
  [[nodiscard]] unsigned garbageTraced() const { return garbage_.traced.load(); }
  [[nodiscard]] unsigned packetsTraced() const { return packetsTraced_.load(); }
  [[nodiscard]] bool idlerIsInside() const { return idler_.greeted.load() != 0; }
  [[nodiscard]] std::size_t tracedBytes() const { return tracedBytes_; }
  [[nodiscard]] std::size_t dropsMentioned() {
    return log().count(
        [](const LogLine& line) { return line.text.find(": dropped a batch of ") != std::string::npos; });
  }

  /// The daemon has come to rest, has never held more than is allowed, and ends in order.
  void expectBoundedAndWell(std::size_t owedBytes = 0) {
    stop();
    ASSERT_TRUE(daemon().comesToRest());
    const std::size_t peak = daemon().memoryKiB("VmHWM"), rest = daemon().memoryKiB("VmRSS");
    std::cout << tracedLines_ << " observations traced; resident " << idleKiB_ << " KiB when idle, " << peak
              << " KiB at most, " << rest << " KiB after all; " << turnedAway() << " knocks turned away; " << killed_
              << " processes killed, " << packetsTraced() << " packets of theirs; " << garbageTraced()
              << " sound observations between garbage\n";
    RecordProperty("peakKiB", static_cast<int>(peak));
    if (!kSanitized) {
      // What a text that grows is copied to comes on top of it.
      constexpr std::size_t kCopies = 3;
      EXPECT_LE(peak, idleKiB_ + kMemoryBoundKiB + owedBytes / 1024 * kCopies);
    }
    const Ending ending = daemon().terminate();
    EXPECT_TRUE(ending.with(0)) << ending.text() << daemon().standardError();
    EXPECT_EQ(daemon().standardError(), "");
  }

 private:
  static constexpr unsigned kStop = 1U << 30U;

  /// True where the line is the last one of a client's.
  bool readLine(unsigned share) {
    static const std::string kIds = "," + idOf("");
    const std::string line = daemon().trace().nextRaw();
    ++tracedLines_;
    tracedBytes_ += line.size() + 1;
    const std::size_t at = line.find(kIds);
    if (at == std::string::npos) throw HarnessError("a line of nobody: " + line);
    const std::size_t comma = line.find(',', at + 1);
    const std::string_view sender(line.data() + at + kIds.size(), comma - at - kIds.size());
    std::string_view arguments = std::string_view(line).substr(comma + 2);
    if (sender.starts_with("client")) {
      Track& track = clients_.at(static_cast<std::size_t>(sender.back() - '0'));
      track.traced.store(inTurn(line, arguments, track.traced.load()));
      track.traced.notify_one();
      return track.traced.load() == share;
    }
    if (sender == "garbage") {
      garbage_.traced.store(inTurn(line, arguments, garbage_.traced.load()));
    } else if (sender == "killed") {
      takeOfKilled(line, arguments);
    } else if (sender.starts_with("hello.")) {
      trackOf(sender.substr(std::string_view("hello.").size())).greeted.store(number(arguments));
    }
    return false;
  }
  static unsigned number(std::string_view& arguments) {
    unsigned value = 0;
    const char* const begin = arguments.data();
    const auto [end, error] = std::from_chars(begin, begin + arguments.size(), value);
    if (error != std::errc{}) throw HarnessError("no number: " + std::string(arguments));
    arguments.remove_prefix(static_cast<std::size_t>(end - begin));
    return value;
  }
  static unsigned inTurn(const std::string& line, std::string_view arguments, unsigned expected) {
    if (number(arguments) != expected) throw HarnessError("expected number " + std::to_string(expected) + ": " + line);
    return expected + 1;
  }
  /// A packet comes whole, and behind the one before it of the same process.
  void takeOfKilled(const std::string& line, std::string_view arguments) {
    const unsigned life = number(arguments);
    arguments.remove_prefix(1);
    const unsigned packet = number(arguments);
    arguments.remove_prefix(1);
    const unsigned n = number(arguments);
    if (n != nextRecord_ || (n != 0 && life != life_) || packet != packetsOfLife_[life]) {
      throw HarnessError("not the next of a killed process: " + line);
    }
    life_ = life;
    nextRecord_ = (n + 1) % kRecordsInPacket;
    if (nextRecord_ != 0) return;
    ++packetsOfLife_[life];
    ++packetsTraced_;
  }
  Track& trackOf(std::string_view name) {
    if (name == "garbage") return garbage_;
    if (name == "idler") return idler_;
    return clients_.at(static_cast<std::size_t>(name.back() - '0'));
  }

  std::size_t idleKiB_ = 0;
  std::array<Track, kClients> clients_;
  Track garbage_, idler_;
  // The reader's, of the killed processes: what came last, and how many packets of each came whole.
  unsigned life_ = 0, nextRecord_ = 0;
  std::map<unsigned, unsigned> packetsOfLife_;
  std::size_t tracedLines_ = 0, tracedBytes_ = 0;
  std::atomic<unsigned> packetsTraced_{0}, killed_{0}, inside_{0}, turnedAway_{0};
  std::atomic<bool> stopped_{false};
  std::mutex threadsMutex_;
  std::vector<std::thread> threads_;  // guarded by threadsMutex_; none is added once it is stopped
};

TEST_F(ClientStorm, EightClientsFillTheHouseAndNobodyElseDisturbsThem) {
  const unsigned share = observations() / kClients;
  for (unsigned n = 0; n < kClients; ++n) startClient(n, share);
  start([this] {
    waitUntil([this] { return inside() == kClients; });
    startOthers();
  });
  readUntilAllCame(share);
  EXPECT_TRUE(eventually([this] { return turnedAway() > 0; }));
  expectBoundedAndWell();
  EXPECT_FALSE(idlerIsInside());
  EXPECT_EQ(garbageTraced(), 0U);
  EXPECT_EQ(packetsTraced(), 0U);
}

TEST_F(ClientStorm, EightClientsShareTheHouseWithOthersThatMisbehave) {
  constexpr unsigned kRounds = 5;
  const unsigned share = observations() / kClients;
  startOthers();
  start([this, share] {
    waitUntil([this] { return idlerIsInside() && garbageTraced() > 0 && packetsTraced() > 0; });
    for (unsigned n = 0; n < kClients; ++n) startRestlessClient(n, share, kRounds);
  });
  readUntilAllCame(share);
  expectBoundedAndWell();
  EXPECT_TRUE(idlerIsInside());
  EXPECT_GT(garbageTraced(), 0U);
  EXPECT_GT(packetsTraced(), 0U);
  EXPECT_GT(dropsMentioned(), 0U);
}

TEST_F(ClientStorm, ATraceClientThatNeverReadsCostsNoMoreThanItIsOwed) {
  const TraceClient deaf(workspace().traceSocket());
  const unsigned share = observations() / kClients / 4;
  for (unsigned n = 0; n < kClients; ++n) startClient(n, share);
  readUntilAllCame(share);
  expectBoundedAndWell(tracedBytes());
}

}  // namespace
}  // namespace e2e
