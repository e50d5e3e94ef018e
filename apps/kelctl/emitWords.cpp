#include "emitWords.h"

#include <cmath>
#include <utility>

#include "numbers.h"

namespace kelctl {

namespace {

constexpr std::string_view kUserGroup = "kel.user.";

constexpr EmitOptionHelp kOptionHelp[] = {
    {"--msg", "TEMPLATE", "the kernel's message template (default: the identifier)"},
    {"--user", nullptr, "send through the user-level context (default for kel.user.*)"},
    {"--context", "N", "send into kernel context N, 0 to 23 (default 0)"},
    {"--time", "US", "time stamp in microseconds since the epoch (default: now)"},
    {"--repeat", "N", "send N times (default 1)"},
    {"--rate", "R", "at most R records per second, evenly paced (default: no limit)"},
    {"--batch", "K", "records per datagram (default 1)"},
    {"--file", "F", "read one observation per line from file F, or - for standard input"},
};

using Error = std::optional<WordsError>;

WordsError quoted(const char* before, std::string_view word, const char* after) {
  return {before + ("'" + std::string(word)) + "'" + after};
}

/// Takes the words one after another.
class Parser {
 public:
  explicit Parser(std::span<const std::string> words) : rest_(words) {}

  std::variant<EmitWords, WordsError> parse() {
    while (!rest_.empty()) {
      const std::string_view word = take();
      Error error;
      if (!optionsEnded_ && word == "--") {
        optionsEnded_ = true;
      } else if (!optionsEnded_ && word.starts_with('-')) {
        error = takeOption(word);
      } else if (!parsed_.id) {
        error = takeIdentifier(word);
      } else {
        error = takeArgument(word);
      }
      if (error) return std::move(*error);
    }
    return std::move(parsed_);
  }

 private:
  std::string_view take() {
    const std::string_view word = rest_.front();
    rest_ = rest_.subspan(1);
    return word;
  }

  Error takeIdentifier(std::string_view word) {
    if (word.empty()) return WordsError{"the identifier is empty"};
    if (word.find('\0') != std::string_view::npos) return WordsError{"the identifier holds a NUL byte"};
    parsed_.id = word;
    return std::nullopt;
  }

  Error takeArgument(std::string_view word);
  Error takeOption(std::string_view word);
  Error setOption(std::string_view name, std::string_view value);
  Error setTarget(EmitTarget target);
  static Error setCount(std::optional<std::uint64_t>& count, std::string_view name, std::string_view value);

  template <typename Value>
  Error add(std::string_view word, const std::optional<Value>& value, const char* range) {
    if (!value) return quoted("", word, range);
    parsed_.arguments.emplace_back(*value);
    return std::nullopt;
  }

  std::span<const std::string> rest_;
  bool optionsEnded_ = false;
  EmitWords parsed_;
};

template <typename Narrow, typename Wide>
std::optional<Narrow> narrowed(const std::optional<Wide>& value) {
  if (!value) return std::nullopt;
  return static_cast<Narrow>(*value);
}

Error Parser::takeArgument(std::string_view word) {
  constexpr unsigned kWord = 32;
  constexpr unsigned kLong = 64;
  constexpr const char* kForms = " is no argument: write s:TEXT, n:, i:N, u:N, l:N, L:N or d:X";
  if (word.size() < 2 || word[1] != ':') return quoted("", word, kForms);
  const std::string_view value = word.substr(2);
  switch (word[0]) {
    case 's':
      if (value.find('\0') != std::string_view::npos) return WordsError{"a string holds a NUL byte"};
      parsed_.arguments.emplace_back(std::string(value));
      return std::nullopt;
    case 'n':
      if (!value.empty()) return quoted("", word, ": a null string, n:, has no text");
      parsed_.arguments.emplace_back(KelEmit::NullText{});
      return std::nullopt;
    case 'i':
      return add(word, narrowed<std::int32_t>(parseSigned(value, kWord)),
                 ": i: takes -2147483648 to 2147483647, or 0x0 to 0xffffffff");
    case 'u':
      return add(word, narrowed<std::uint32_t>(parseUnsigned(value, std::numeric_limits<std::uint32_t>::max())),
                 ": u: takes 0 to 4294967295, decimal or 0x...");
    case 'l':
      return add(word, parseSigned(value, kLong),
                 ": l: takes -9223372036854775808 to 9223372036854775807, or 0x0 to 0xffffffffffffffff");
    case 'L':
      return add(word, parseUnsigned(value), ": L: takes 0 to 18446744073709551615, decimal or 0x...");
    case 'd':
      return add(word, parseDouble(value), ": d: takes a floating-point number such as 12.5 or -1e3");
    default:
      return quoted("", word, kForms);
  }
}

Error Parser::takeOption(std::string_view word) {
  const std::size_t equals = word.find('=');
  const std::string_view name = word.substr(0, equals);
  for (const EmitOptionHelp& option : kOptionHelp) {
    if (name != option.name) continue;
    if (option.value == nullptr) {
      if (equals != std::string_view::npos) return quoted("option ", name, " takes no value");
      return setOption(name, {});
    }
    if (equals != std::string_view::npos) return setOption(name, word.substr(equals + 1));
    if (rest_.empty()) return quoted("option ", name, " needs a value");
    return setOption(name, take());
  }
  return quoted("unknown option ", word, "");
}

Error Parser::setOption(std::string_view name, std::string_view value) {
  EmitOptions& options = parsed_.options;
  if (name == "--user") return setTarget({true, 0});
  if (name == "--repeat") return setCount(options.repeat, name, value);
  if (name == "--batch") return setCount(options.batch, name, value);
  if (name == "--context") {
    const auto context = parseUnsigned(value, EmitTarget::kContexts - 1);
    if (!context) return quoted("--context takes 0 to 23, not ", value, "");
    return setTarget({false, static_cast<std::uint32_t>(*context)});
  }
  if (name == "--time") {
    options.timestamp = parseUnsigned(value);
    if (!options.timestamp) return quoted("--time takes microseconds since the epoch, not ", value, "");
    return std::nullopt;
  }
  if (name == "--rate") {
    options.rate = parseDouble(value);
    if (!options.rate || !std::isnormal(*options.rate) || *options.rate < 0) {
      return quoted("--rate takes a number above 0, not ", value, "");
    }
    return std::nullopt;
  }
  if (value.find('\0') != std::string_view::npos) return quoted("the value of ", name, " holds a NUL byte");
  (name == "--file" ? options.file : options.message) = value;
  return std::nullopt;
}

Error Parser::setTarget(EmitTarget target) {
  std::optional<EmitTarget>& chosen = parsed_.options.target;
  if (chosen && chosen->user != target.user) return WordsError{"--user and --context exclude each other"};
  chosen = target;
  return std::nullopt;
}

Error Parser::setCount(std::optional<std::uint64_t>& count, std::string_view name, std::string_view value) {
  count = parseUnsigned(value);
  if (count && *count > 0) return std::nullopt;
  return quoted((std::string(name) + " takes a number from 1 on, not ").c_str(), value, "");
}

template <typename Value>
std::optional<Value> either(std::optional<Value> first, const std::optional<Value>& second) {
  return first ? std::move(first) : second;
}

}  // namespace

std::span<const EmitOptionHelp> emitOptionHelp() {
  return kOptionHelp;
}

std::variant<EmitWords, WordsError> parseEmitWords(std::span<const std::string> words) {
  return Parser(words).parse();
}

Emission makeEmission(EmitWords words, const EmitOptions& defaults) {
  EmitOptions& own = words.options;
  Emission emission;
  KelEmit::Observation& observation = emission.observation;
  observation.id = std::move(words.id).value_or(std::string());
  observation.arguments = std::move(words.arguments);
  observation.message = either(std::move(own.message), defaults.message);
  observation.timestamp = either(own.timestamp, defaults.timestamp);
  const EmitTarget usual{observation.id.starts_with(kUserGroup), 0};
  emission.target = either(own.target, defaults.target).value_or(usual);
  emission.repeat = either(own.repeat, defaults.repeat).value_or(1);
  emission.batch = either(own.batch, defaults.batch).value_or(1);
  emission.rate = either(own.rate, defaults.rate);
  return emission;
}

std::variant<std::optional<Emission>, WordsError> parseEmitLine(std::string_view line, const EmitOptions& defaults) {
  if (line.starts_with('#')) return std::nullopt;
  auto split = splitWords(line);
  if (auto* error = std::get_if<WordsError>(&split)) return std::move(*error);
  const auto& words = std::get<std::vector<std::string>>(split);
  if (words.empty()) return std::nullopt;
  auto parsed = parseEmitWords(words);
  if (auto* error = std::get_if<WordsError>(&parsed)) return std::move(*error);
  auto& emit = std::get<EmitWords>(parsed);
  if (emit.options.file) return WordsError{"a file's line cannot have --file"};
  if (!emit.id) return WordsError{"the line has no identifier"};
  return makeEmission(std::move(emit), defaults);
}

}  // namespace kelctl
