#include "commandLine.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "console.h"
#include "failure.h"
#include "numbers.h"

namespace kelctl {

CommandLine::CommandLine(const std::string& name, const std::string& description)
    : name_("kelctl " + name), app_(description, name_) {
  app_.set_help_flag("-h,--help", "print this");
}

void CommandLine::addCount(const std::string& name, std::optional<std::uint64_t>& value, std::uint64_t least,
                           const std::string& description) {
  const auto read = [&value, name, least](const std::string& text) {
    value = parseUnsigned(text);
    if (!value || *value < least) throw CLI::ValidationError(name, fmt::format("takes a number from {} on", least));
  };
  app_.add_option_function<std::string>(name, read, description)->type_name("N");
}

void CommandLine::addSeconds(const std::string& name, std::optional<double>& value, const std::string& description) {
  const auto read = [&value, name](const std::string& text) {
    constexpr double kLongest = 1e9;
    value = parseDouble(text);
    if (!value || !(*value > 0 && *value <= kLongest)) {
      throw CLI::ValidationError(name, "takes a number of seconds above 0");
    }
  };
  app_.add_option_function<std::string>(name, read, description)->type_name("S");
}

bool CommandLine::parse(const Words& words) {
  try {
    app_.parse(std::vector<std::string>(words.rbegin(), words.rend()));
    return true;
  } catch (const CLI::CallForHelp&) {
    Output out;
    out.write(app_.help());
    out.flush();
    return false;
  } catch (const CLI::ParseError& error) {
    throw UsageError(fmt::format("{}; see '{} --help'", error.what(), name_));
  }
}

}  // namespace kelctl
