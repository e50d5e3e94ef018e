// What the sub-commands' command lines have in common.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <optional>
#include <string>

#include "command.h"

namespace kelctl {

/// The command line of one sub-command: options are declared on it, then it reads the words.
class CommandLine {
 public:
  /// `name` is the sub-command's, `description` ends with a full stop.
  CommandLine(const std::string& name, const std::string& description);

  [[nodiscard]] CLI::App& app() { return app_; }

  /// Declares an option that takes a whole number from `least` on.
  void addCount(const std::string& name, std::optional<std::uint64_t>& value, std::uint64_t least,
                const std::string& description);
  /// Declares an option that takes a number of seconds above 0.
  void addSeconds(const std::string& name, std::optional<double>& value, const std::string& description);

  /// Reads the words. False where help was asked for, which is printed then. Throws UsageError.
  [[nodiscard]] bool parse(const Words& words);

 private:
  std::string name_;
  CLI::App app_;
};

}  // namespace kelctl
