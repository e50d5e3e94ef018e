#include "commandLine.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>

#include "console.h"
#include "failure.h"
#include "numbers.h"

namespace kelctl {

/// Owns a whole command line; a sub-command's has only a place in its owner's.
struct CommandLine::Parser {
  std::string name;
  std::unique_ptr<CLI::App> owned;
  CLI::App* app = nullptr;
};

CommandLine::CommandLine(const std::string& name, const std::string& description)
    : parser_(std::make_unique<Parser>()) {
  parser_->name = "kelctl " + name;
  parser_->owned = std::make_unique<CLI::App>(description, parser_->name);
  parser_->app = parser_->owned.get();
  parser_->app->set_help_flag("-h,--help", "print this");
}

CommandLine::CommandLine(std::unique_ptr<Parser> parser) : parser_(std::move(parser)) {}

CommandLine::~CommandLine() = default;

void CommandLine::addFlag(const std::string& name, bool& given, const std::string& description) {
  parser_->app->add_flag(name, given, description);
}

void CommandLine::addText(const std::string& name, const std::string& type, std::optional<std::string>& value,
                          const std::string& description) {
  parser_->app->add_option(name, value, description)->type_name(type);
}

void CommandLine::addTexts(const std::string& name, const std::string& type, std::vector<std::string>& values,
                           const std::string& description) {
  parser_->app->add_option(name, values, description)
      ->type_name(type)
      ->expected(1)
      ->take_all()
      ->allow_extra_args(false);
}

void CommandLine::addCount(const std::string& name, std::optional<std::uint64_t>& value, std::uint64_t least,
                           const std::string& description) {
  const auto read = [&value, name, least](const std::string& text) {
    value = parseUnsigned(text);
    if (!value || *value < least) throw CLI::ValidationError(name, fmt::format("takes a number from {} on", least));
  };
  parser_->app->add_option_function<std::string>(name, read, description)->type_name("N");
}

void CommandLine::addSeconds(const std::string& name, std::optional<double>& value, const std::string& description) {
  const auto read = [&value, name](const std::string& text) {
    constexpr double kLongest = 1e9;
    value = parseDouble(text);
    if (!value || !(*value > 0 && *value <= kLongest)) {
      throw CLI::ValidationError(name, "takes a number of seconds above 0");
    }
  };
  parser_->app->add_option_function<std::string>(name, read, description)->type_name("S");
}

void CommandLine::addWord(const std::string& name, std::string& value, const std::string& description) {
  parser_->app->add_option(name, value, description)->required();
}

void CommandLine::addWord(const std::string& name, std::optional<std::string>& value, const std::string& description) {
  parser_->app->add_option(name, value, description);
}

void CommandLine::addWords(const std::string& name, std::vector<std::string>& values, const std::string& description) {
  parser_->app->add_option(name, values, description);
}

void CommandLine::describe(const std::string& name, const char* type, const std::string& description) {
  if (type == nullptr) {
    parser_->app->add_flag(name, description);
  } else {
    parser_->app->add_option(name, description)->type_name(type);
  }
}

void CommandLine::exclude(const std::string& one, const std::string& other) {
  parser_->app->get_option(one)->excludes(parser_->app->get_option(other));
}

void CommandLine::setFooter(const std::string& text) {
  parser_->app->footer(text);
}

CommandLine& CommandLine::addSubcommand(const std::string& name, const std::string& description) {
  parser_->app->require_subcommand(1);
  auto parser = std::make_unique<Parser>();
  parser->name = parser_->name + " " + name;
  parser->app = parser_->app->add_subcommand(name, description);
  subcommands_.push_back(std::unique_ptr<CommandLine>(new CommandLine(std::move(parser))));
  return *subcommands_.back();
}

bool CommandLine::chosen() const {
  return parser_->app->parsed();
}

bool CommandLine::parse(const Words& words) {
  try {
    parser_->app->parse(std::vector<std::string>(words.rbegin(), words.rend()));
    return true;
  } catch (const CLI::CallForHelp&) {
    Output out;
    out.write(parser_->app->help());
    out.flush();
    return false;
  } catch (const CLI::ParseError& error) {
    throw UsageError(fmt::format("{}; see '{} --help'", error.what(), parser_->name));
  }
}

}  // namespace kelctl
