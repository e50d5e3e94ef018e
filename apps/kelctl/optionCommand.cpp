// kelctl option: the kernel's advanced options, as the platform keeps them.
#include <fmt/format.h>

#include "commandLine.h"
#include "console.h"
#include "failure.h"
#include "host/files.h"
#include "host/options.h"
#include "numbers.h"

namespace kelctl {

namespace {

void print(const std::string& text) {
  Output out;
  out.write(text);
  out.flush();
}

void list() {
  std::string text;
  for (const platform::OptionFacts& option : platform::listOptions()) {
    text += fmt::format("{} = {}  # {}\n", option.name, option.value, option.origin);
  }
  print(text);
}

void checkName(const std::string& name) {
  if (name.find('/') == std::string::npos) {
    throw UsageError(fmt::format("option: '{}' is no option's name; write GROUP/NAME", name));
  }
}

void get(const std::string& name) {
  checkName(name);
  const auto option = platform::readOption(name);
  if (!option.ok()) throw Failure(fmt::format("cannot read option {}: {}", name, platform::reasonOf(option.outcome)));
  print(fmt::format("{}\n", option.value.value));
}

void set(const std::string& name, const std::string& text) {
  constexpr unsigned kLong = 64;
  checkName(name);
  const auto value = parseSigned(text, kLong);
  if (!value) throw UsageError(fmt::format("option set: '{}' is no integer; write a decimal number or 0x...", text));
  const platform::Outcome outcome = platform::setOption(name, *value);
  if (!outcome.ok()) throw Failure(fmt::format("cannot set option {}: {}", name, platform::reasonOf(outcome)));
}

}  // namespace

int runOption(const Words& words) {
  std::string name;
  std::string value;
  CommandLine line("option", "Lists, reads and stores the kernel's advanced options.");
  CLI::App& app = line.app();
  app.require_subcommand(1);
  auto* lists = app.add_subcommand("list", "print every option that is known, with its value and where that is from");
  auto* gets = app.add_subcommand("get", "print the option's value");
  gets->add_option("NAME", name, "GROUP/NAME, such as Net/LinkFlappingThreshold")->required();
  auto* sets = app.add_subcommand("set", "store a value, which then goes before all others");
  sets->add_option("NAME", name, "GROUP/NAME, such as Net/LinkFlappingThreshold")->required();
  sets->add_option("VALUE", value, "an integer, decimal or 0x...")->required();
  if (!line.parse(words)) return kDone;
  if (lists->parsed()) list();
  if (gets->parsed()) get(name);
  if (sets->parsed()) set(name, value);
  return kDone;
}

}  // namespace kelctl
