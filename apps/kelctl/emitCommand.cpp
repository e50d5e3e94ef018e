// kelctl emit: sends observations into the daemon's contexts.
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <map>

#include "commandLine.h"
#include "console.h"
#include "emitBatcher.h"
#include "emitToUser.h"
#include "emitWords.h"
#include "failure.h"
#include "host/files.h"
#include "lineReader.h"
#include "stopSignals.h"

namespace kelctl {

namespace {

using std::chrono::steady_clock;

/// A wait for the daemon is cut into pieces this long, so that a signal ends it.
constexpr std::chrono::milliseconds kSlice{250};

const char* advice(int status) {
  if (status == ENOENT || status == ECONNREFUSED) return "; is keld running?";
  if (status == EACCES) return "; run as root or as keld's user";
  if (status == EUSERS) return "; keld serves eight user-level clients at a time";
  return "";
}

[[noreturn]] void cannotReach(const std::string& path, int status) {
  throw Failure(fmt::format("cannot reach keld at {}: {}{}", path, platform::errnoText(status), advice(status)));
}

/// A batch that waits for the daemon while the process is to stop.
class StoppedWaiting {};

/// Calls `send`, which takes one slice at most, until it ends otherwise than with `timeOver`.
template <typename Send>
int sendInSlices(int timeOver, const Send& send) {
  while (true) {
    const int status = send();
    if (status != timeOver) return status;
    if (StopSignals::stopped()) throw StoppedWaiting();
  }
}

/// Connections to the kernel's contexts, made when they are first needed.
class Senders {
 public:
  void send(const EmitTarget& target, const std::vector<char>& batch) {
    const std::string path = KelEmit::contextSocketPath(target.context);
    const auto [place, isNew] = senders_.try_emplace(target.context);
    KelEmit::Sender& sender = place->second;
    if (isNew) {
      if (const int status = sender.openContext(target.context); status != 0) cannotReach(path, status);
    }
    const int status = sendInSlices(EAGAIN, [&] { return sender.send(batch, steady_clock::now() + kSlice); });
    if (status != 0) {
      throw Failure(fmt::format("cannot send {} bytes to {}: {}", batch.size(), path, platform::errnoText(status)));
    }
  }

 private:
  std::map<std::uint32_t, KelEmit::Sender> senders_;
};

/// The connection to the user-level context.
class UserSender {
 public:
  void send(std::span<const KelEmit::Observation> observations) {
    const int status = sendInSlices(ETIMEDOUT, [&] { return connection_.send(observations); });
    if (status == 0) return;
    const std::string path = KelEmit::userSocketPath();
    if (*advice(status) != '\0') cannotReach(path, status);
    throw Failure(fmt::format("cannot send to {}: {}", path, platform::errnoText(status)));
  }

 private:
  EmitToUser connection_{kSlice};
};

/// Sends emissions at their pace. The schedule is absolute, so that a late record delays no other.
class Emitter {
 public:
  explicit Emitter(const StopSignals& stop) : stop_(stop) {}

  /// Throws Failure where sending fails or a signal stops it.
  void emit(const Emission& emission) {
    for (std::uint64_t n = 0; n < emission.repeat; ++n) {
      waitForTurn(emission.rate);
      sending([&] { batcher_.add(emission.observation, emission.target, emission.batch); });
      ++emitted_;
    }
  }

  void finish() {
    sending([&] { batcher_.flush(); });
  }

  [[noreturn]] void giveUp() {
    finish();
    sayStopped();
  }

 private:
  [[noreturn]] void sayStopped() const {
    throw Failure(fmt::format("stopped by a signal after {} observations", emitted_));
  }

  template <typename Send>
  void sending(const Send& send) const {
    try {
      send();
    } catch (const StoppedWaiting&) {
      sayStopped();
    }
  }

  void waitForTurn(std::optional<double> rate) {
    constexpr double kLongestWait = 1e9;
    if (!due_) due_ = steady_clock::now();
    if (!(rate ? stop_.sleepUntil(*due_) : !StopSignals::stopped())) giveUp();
    if (!rate) {
      due_.reset();
      return;
    }
    *due_ += std::chrono::duration_cast<steady_clock::duration>(
        std::chrono::duration<double>(std::min(1 / *rate, kLongestWait)));
  }

  const StopSignals& stop_;
  Senders senders_;
  UserSender user_;
  EmitBatcher batcher_{
      [this](const EmitTarget& target, const std::vector<char>& batch) { senders_.send(target, batch); },
      [this](std::span<const KelEmit::Observation> observations) { user_.send(observations); }};
  std::optional<steady_clock::time_point> due_;  // of the next record, where the last one was paced
  std::uint64_t emitted_ = 0;
};

platform::UniqueFd openInput(const std::string& file) {
  platform::UniqueFd fd(file == "-" ? ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0)
                                    : ::open(file.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd) throw Failure(fmt::format("cannot open {}: {}", file, platform::errnoText(errno)));
  return fd;
}

/// A line's emission, checked to the end: nothing of a bad line is sent.
std::variant<std::optional<Emission>, WordsError> readLine(LineReader::Step step, const std::string& line,
                                                           const EmitOptions& defaults) {
  if (step == LineReader::Step::tooLong) {
    return WordsError{fmt::format("the line is longer than {} bytes", LineReader::kMaxLineBytes)};
  }
  auto read = parseEmitLine(line, defaults);
  if (const auto* emission = std::get_if<std::optional<Emission>>(&read); emission != nullptr && *emission) {
    if (auto error = EmitBatcher::check((*emission)->observation)) return std::move(*error);
  }
  return read;
}

int emitFile(const EmitOptions& options, Emitter& emitter, const StopSignals& stop) {
  const platform::UniqueFd input = openInput(*options.file);
  const std::string name = *options.file == "-" ? "standard input" : *options.file;
  LineReader lines(input.get(), stop);
  std::string line;
  int status = kDone;
  for (std::uint64_t number = 1;; ++number) {
    const LineReader::Step step = lines.next(line);
    if (step == LineReader::Step::stopped) emitter.giveUp();
    if (step == LineReader::Step::end) break;
    const auto read = readLine(step, line, options);
    if (const auto* error = std::get_if<WordsError>(&read)) {
      complain(fmt::format("{}:{}: {}, not sent", name, number, error->reason));
      status = kFailed;
    } else if (const auto& emission = std::get<std::optional<Emission>>(read)) {
      emitter.emit(*emission);
    }
  }
  emitter.finish();
  return status;
}

[[noreturn]] void refuse(const std::string& reason) {
  throw UsageError("emit: " + reason + "; see 'kelctl emit --help'");
}

bool printHelp(const Words& words) {
  if (std::find(words.begin(), words.end(), "--help") == words.end() &&
      std::find(words.begin(), words.end(), "-h") == words.end()) {
    return false;
  }
  CommandLine line("emit", "Sends one observation, or with --file one for each line of a file.");
  std::optional<std::string> id;
  Words arguments;
  line.addWord("ID", id, "identifier of the observation, such as kel.net.firewall.disabled");
  line.addWords("ARG", arguments,
                "typed arguments: s:TEXT string, n: null string, i:N and u:N 32-bit integer, l:N and L:N "
                "64-bit integer, u: and L: unsigned, d:X floating point");
  for (const EmitOptionHelp& option : emitOptionHelp()) {
    line.describe(option.name, option.value, option.text);
  }
  (void)line.parse({"--help"});
  return true;
}

}  // namespace

int runEmit(const Words& words) {
  auto parsed = parseEmitWords(words);
  if (const auto* error = std::get_if<WordsError>(&parsed)) {
    if (printHelp(words)) return kDone;
    refuse(error->reason);
  }
  auto& emit = std::get<EmitWords>(parsed);
  const EmitOptions options = emit.options;
  if (options.file ? emit.id.has_value() : !emit.id) {
    refuse(options.file ? "with --file, the identifiers are the file's" : "an identifier or --file is needed");
  }
  const StopSignals stop;
  Emitter emitter(stop);
  if (options.file) return emitFile(options, emitter, stop);
  const Emission emission = makeEmission(std::move(emit), {});
  if (auto error = EmitBatcher::check(emission.observation)) refuse(error->reason);
  emitter.emit(emission);
  emitter.finish();
  return kDone;
}

}  // namespace kelctl
