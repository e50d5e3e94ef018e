#include "replayRun.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>

#include "console.h"
#include "eventTexts.h"
#include "failure.h"
#include "host/files.h"
#include "host/uniqueFd.h"
#include "model/modelFile.h"
#include "numbers.h"
#include "stopSignals.h"

namespace kelctl {

namespace {

/// Pending records settle in that time where a capture does not say when it ended.
constexpr std::chrono::seconds kSettling{10};
constexpr std::uint64_t kMostComplaints = 20;

std::string shownName(const std::string& file) {
  return file == "-" ? "standard input" : file;
}

/// How far a replay is, on a terminal.
class Progress {
 public:
  Progress(int fd, bool wanted) {
    struct stat facts {};
    if (wanted && ::isatty(STDERR_FILENO) == 1 && ::isatty(STDOUT_FILENO) == 0 && ::fstat(fd, &facts) == 0 &&
        S_ISREG(facts.st_mode)) {
      size_ = static_cast<std::uint64_t>(facts.st_size);
    }
  }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  ~Progress() {
    if (shown_ >= 0) show("\r\033[K");
  }

  void read(std::size_t bytes) {
    read_ += bytes;
    if (size_ == 0) return;
    const int percent = static_cast<int>(std::min<std::uint64_t>(read_ * 100 / size_, 100));
    if (percent == shown_) return;
    shown_ = percent;
    constexpr int kWidth = 40;
    const auto done = static_cast<std::size_t>(percent * kWidth / 100);
    show(fmt::format("\r[{}{}] {:3} %", std::string(done, '#'), std::string(kWidth - done, ' '), percent));
  }

 private:
  // What a terminal does not take is not worth an error.
  static void show(const std::string& text) {
    if (::write(STDERR_FILENO, text.data(), text.size()) < 0) return;
  }

  std::uint64_t size_ = 0;
  std::uint64_t read_ = 0;
  int shown_ = -1;
};

/// Waits as long as a time of the capture takes at a speed.
class Pace {
 public:
  explicit Pace(std::optional<double> speed) : speed_(speed) {
    if (speed_) stop_.emplace();
  }

  /// False where a signal asked to end it.
  bool waitFor(WallTime time) {
    if (!speed_) return true;
    if (!first_ || time < last_) {
      first_ = time;
      begun_ = std::chrono::steady_clock::now();
    }
    last_ = time;
    const std::chrono::duration<double> since = (time - *first_) / *speed_;
    const auto due = begun_ + std::chrono::duration_cast<std::chrono::steady_clock::duration>(since);
    return stop_->sleepUntil(due);
  }

 private:
  std::optional<double> speed_;
  std::optional<StopSignals> stop_;
  std::optional<WallTime> first_;
  WallTime last_;
  std::chrono::steady_clock::time_point begun_;
};

/// One file on its way through the engine.
class Run {
 public:
  Run(const ReplayInput& input, ReplayWatcher& watcher, const SeeItem& see)
      : input_(input), see_(see), engine_(watcher, input.options), pace_(input.speed) {}

  std::uint64_t run() {
    setHost();
    readAll();
    if (items_ == 0 && bad_ > 0) throw Failure(fmt::format("{} is no capture", shownName(input_.file)));
    if (engine_.started() && !ended_) settle();
    return bad_;
  }

 private:
  void settle() {
    engine_.advanceTo(input_.until ? std::max(*input_.until, engine_.now()) : engine_.now() + kSettling);
  }

  void readAll() {
    if (input_.content) {
      CaptureReader reader = makeReader();
      reader.feed(*input_.content);
      reader.finish();
      return;
    }
    const platform::UniqueFd opened(input_.file == "-" ? -1 : ::open(input_.file.c_str(), O_RDONLY | O_CLOEXEC));
    const int fd = input_.file == "-" ? STDIN_FILENO : opened.get();
    if (fd < 0) throw Failure(fmt::format("cannot open {}: {}", input_.file, platform::errnoText(errno)));
    readAll(fd);
  }

  CaptureReader makeReader() {
    return {[this](const CaptureItem& item) { return take(item); },
            [this](std::uint64_t line, const std::string& reason) { refuse(line, reason); }};
  }

  void setHost() {
    if (!input_.host) return refuseFacts(engine_.setFacts(Json::object()), 0);
    constexpr std::string_view kModel = "model:";
    if (!input_.host->starts_with(kModel)) throw UsageError("--host takes model:FILE");
    const std::string path = input_.host->substr(kModel.size());
    const auto content = platform::readFile(path, platform::kModelFileBytes);
    if (!content.ok()) throw Failure(fmt::format("cannot read {}: {}", path, platform::reasonOf(content.outcome)));
    const Json facts = Json::parse(content.value, nullptr, false);
    const std::string problem = facts.is_object() ? engine_.setFacts(facts) : "no JSON object";
    if (!problem.empty()) throw Failure(fmt::format("{} is no model of a host: {}", path, problem));
  }

  void readAll(int fd) {
    CaptureReader reader = makeReader();
    Progress progress(fd, input_.progress);
    std::array<char, 65536> chunk{};
    while (true) {
      const ssize_t got = ::read(fd, chunk.data(), chunk.size());
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) {
        throw Failure(fmt::format("cannot read {}: {}", shownName(input_.file), platform::errnoText(errno)));
      }
      if (got == 0) break;
      progress.read(static_cast<std::size_t>(got));
      if (!reader.feed({chunk.data(), static_cast<std::size_t>(got)})) break;
    }
    reader.finish();
  }

  bool take(const CaptureItem& item) {
    ++items_;
    if (const auto* const header = std::get_if<CaptureHeader>(&item.what)) {
      // A capture that was added to goes on behind its end.
      ended_ = false;
      if (!input_.host) {
        Json facts = header->facts;
        setOptions(facts, header->options);
        refuseFacts(engine_.setFacts(facts), item.line);
      }
      if (see_) see_(item);
      return true;
    }
    if (input_.until && item.time > *input_.until) return false;
    if (ended_) {
      refuse(item.line, "it stands behind the capture's end");
      return true;
    }
    if (!pace_.waitFor(item.time)) return false;
    const bool otherHost = input_.host && std::holds_alternative<FactsChange>(item.what);
    if (!otherHost) refuseFacts(engine_.take(item), item.line);
    ended_ = std::holds_alternative<CaptureEnd>(item.what);
    if (see_) see_(item);
    return true;
  }

  void refuseFacts(const std::string& problem, std::uint64_t line) {
    if (!problem.empty()) refuse(line, problem);
  }

  void refuse(std::uint64_t line, const std::string& reason) {
    const std::string text = fmt::format("{}:{}: {}", shownName(input_.file), line, printable(reason));
    if (input_.strict) throw Failure(text);
    if (++bad_ <= kMostComplaints) complain(text + "; left out");
    if (bad_ == kMostComplaints) complain("further lines that cannot be read are not told of");
  }

  const ReplayInput& input_;
  const SeeItem& see_;
  ReplayEngine engine_;
  Pace pace_;
  std::uint64_t items_ = 0;
  std::uint64_t bad_ = 0;
  bool ended_ = false;
};

/// Two digits or four; nothing where there are others.
std::optional<int> takeNumber(std::string_view& rest, std::size_t digits) {
  if (rest.size() < digits) return std::nullopt;
  const auto value = parseUnsigned(rest.substr(0, digits));
  rest.remove_prefix(digits);
  return value ? std::optional(static_cast<int>(*value)) : std::nullopt;
}

/// A point and up to nine digits; none is no fraction. Nothing where the point has no digits behind it.
std::optional<std::chrono::nanoseconds> takeFraction(std::string_view& rest) {
  if (!rest.starts_with('.')) return std::chrono::nanoseconds(0);
  rest.remove_prefix(1);
  std::int64_t unit = std::nano::den;
  std::int64_t value = 0;
  const std::size_t before = rest.size();
  for (; !rest.empty() && rest.front() >= '0' && rest.front() <= '9' && unit > 1; rest.remove_prefix(1)) {
    unit /= 10;
    value += (rest.front() - '0') * unit;
  }
  return rest.size() < before ? std::optional(std::chrono::nanoseconds(value)) : std::nullopt;
}

/// A date, and as much of the time of day as there is.
std::optional<WallTime> parseDate(std::string_view rest) {
  const auto year = takeNumber(rest, 4);
  std::array<int, 5> parts{1, 1, 0, 0, 0};  // month, day, hour, minute, second
  constexpr std::array<char, 5> kBefore{'-', '-', 'T', ':', ':'};
  if (!year) return std::nullopt;
  std::size_t read = 0;
  for (; read < parts.size() && !rest.empty() && rest != "Z" && rest.front() != '.'; ++read) {
    if (rest.front() != kBefore[read]) return std::nullopt;
    rest.remove_prefix(1);
    const auto part = takeNumber(rest, 2);
    if (!part) return std::nullopt;
    parts[read] = *part;
  }
  if (rest.starts_with('.') && read < parts.size()) return std::nullopt;
  const auto fraction = takeFraction(rest);
  if (!fraction || (!rest.empty() && rest != "Z")) return std::nullopt;
  const std::chrono::year_month_day date{std::chrono::year(*year), std::chrono::month(static_cast<unsigned>(parts[0])),
                                         std::chrono::day(static_cast<unsigned>(parts[1]))};
  constexpr int kFirstYear = 1970;
  constexpr int kLastYear = 2260;
  if (!date.ok() || *year < kFirstYear || *year > kLastYear || parts[2] > 23 || parts[3] > 59 || parts[4] > 59) {
    return std::nullopt;
  }
  return WallTime(std::chrono::sys_days(date)) + std::chrono::hours(parts[2]) + std::chrono::minutes(parts[3]) +
         std::chrono::seconds(parts[4]) + *fraction;
}

}  // namespace

std::uint64_t replay(const ReplayInput& input, ReplayWatcher& watcher, const SeeItem& see) {
  return Run(input, watcher, see).run();
}

void addOption(Json& options, const std::string& text) {
  const std::size_t equals = text.find('=');
  const auto value =
      equals == std::string::npos ? std::nullopt : parseSigned(std::string_view(text).substr(equals + 1), 64);
  if (!value || text.find('/') >= equals) {
    throw UsageError(fmt::format("--option takes GROUP/NAME=VALUE with a whole number, not '{}'", printable(text)));
  }
  options[text.substr(0, equals)] = *value;
}

WallTime parseTime(const std::string& option, const std::string& text) {
  if (const auto seconds = parseUnsigned(text); seconds && *seconds <= kLastCaptureSecond) {
    return WallTime(std::chrono::seconds(static_cast<std::int64_t>(*seconds)));
  }
  if (const auto moment = parseMoment(text)) return *moment;
  if (const auto date = parseDate(text)) return *date;
  throw UsageError(fmt::format("{} takes a time such as 2026-01-01T00:00:00Z or 1767225600", option));
}

}  // namespace kelctl
