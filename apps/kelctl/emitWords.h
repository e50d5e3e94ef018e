// The words of `kelctl emit`, of a command line or of a file's line, as one observation and how to
// send it. Pure functions, for any input.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <variant>
#include <vector>

#include "platform/kelemit.h"
#include "words.h"

namespace kelctl {

/// Where observations are injected.
struct EmitTarget {
  static constexpr std::uint32_t kContexts = 24;

  bool user = false;          ///< the user-level context
  std::uint32_t context = 0;  ///< of the kernel, below kContexts; 0 with `user`

  bool operator==(const EmitTarget&) const = default;
  bool operator<(const EmitTarget& other) const {
    return std::tie(user, context) < std::tie(other.user, other.context);
  }
};

/// What was asked for by options; what is absent takes its default.
struct EmitOptions {
  std::optional<std::string> message;
  std::optional<EmitTarget> target;
  std::optional<std::uint64_t> timestamp;  ///< microseconds since the epoch
  std::optional<std::uint64_t> repeat;     ///< at least 1
  std::optional<std::uint64_t> batch;      ///< records per datagram, at least 1
  std::optional<double> rate;              ///< records per second, above 0
  std::optional<std::string> file;         ///< "-" for standard input
};

struct EmitWords {
  std::optional<std::string> id;
  std::vector<KelEmit::Argument> arguments;
  EmitOptions options;
};

/// One observation, ready to be sent.
struct Emission {
  KelEmit::Observation observation;
  EmitTarget target;
  std::uint64_t repeat = 1;
  std::uint64_t batch = 1;
  std::optional<double> rate;
};

/// What the help says of an option.
struct EmitOptionHelp {
  const char* name;   ///< with its dashes
  const char* value;  ///< the value's name; nullptr where it takes none
  const char* text;
};
std::span<const EmitOptionHelp> emitOptionHelp();

/// Reads words: the identifier, typed tokens and options in any order. "--NAME=VALUE" is the same
/// as "--NAME VALUE", and "--" ends the options.
std::variant<EmitWords, WordsError> parseEmitWords(std::span<const std::string> words);

/// The emission that words with an identifier ask for; options that are absent come from `defaults`.
Emission makeEmission(EmitWords words, const EmitOptions& defaults);

/// Reads a line of a file. Nothing for a line to be skipped: a blank one, or one that begins with '#'.
std::variant<std::optional<Emission>, WordsError> parseEmitLine(std::string_view line, const EmitOptions& defaults);

}  // namespace kelctl
