// What the sub-commands' command lines have in common.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "command.h"

namespace kelctl {

/// The command line of one sub-command: options and words are declared on it, then it reads what was given.
/// What is read into must outlive it. Names are written as on the command line ("--json"), words in capitals.
class CommandLine {
 public:
  /// `name` is the sub-command's, `description` ends with a full stop.
  CommandLine(const std::string& name, const std::string& description);
  CommandLine(const CommandLine&) = delete;
  CommandLine& operator=(const CommandLine&) = delete;
  ~CommandLine();

  /// Declares an option without a value.
  void addFlag(const std::string& name, bool& given, const std::string& description);
  /// Declares an option that takes a text, which the help calls `type`.
  void addText(const std::string& name, const std::string& type, std::optional<std::string>& value,
               const std::string& description);
  /// Declares an option that takes a text and may be repeated.
  void addTexts(const std::string& name, const std::string& type, std::vector<std::string>& values,
                const std::string& description);
  /// Declares an option that takes a whole number from `least` on.
  void addCount(const std::string& name, std::optional<std::uint64_t>& value, std::uint64_t least,
                const std::string& description);
  /// Declares an option that takes a number of seconds above 0.
  void addSeconds(const std::string& name, std::optional<double>& value, const std::string& description);
  /// Declares the next word, which must be given.
  void addWord(const std::string& name, std::string& value, const std::string& description);
  /// Declares the next word, which may be left out.
  void addWord(const std::string& name, std::optional<std::string>& value, const std::string& description);
  /// Declares that all further words go into `values`; there may be none.
  void addWords(const std::string& name, std::vector<std::string>& values, const std::string& description);
  /// Declares an option for the help alone, `type` null where it takes no value: other code reads the words.
  void describe(const std::string& name, const char* type, const std::string& description);

  /// Refuses two declared options together.
  void exclude(const std::string& one, const std::string& other);
  /// Ends the help with `text`.
  void setFooter(const std::string& text);

  /// Declares a sub-command of this one, of which one must then be given. The result lives as long as this.
  CommandLine& addSubcommand(const std::string& name, const std::string& description);
  /// Whether this sub-command was the one given.
  [[nodiscard]] bool chosen() const;

  /// Reads the words. False where help was asked for, which is printed then. Throws UsageError.
  [[nodiscard]] bool parse(const Words& words);

 private:
  struct Parser;
  explicit CommandLine(std::unique_ptr<Parser> parser);

  // The parser's header alone takes longer to compile than all else of a sub-command.
  std::unique_ptr<Parser> parser_;
  std::vector<std::unique_ptr<CommandLine>> subcommands_;
};

}  // namespace kelctl
