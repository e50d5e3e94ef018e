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
  CommandLine& lists =
      line.addSubcommand("list", "print every option that is known, with its value and where that is from");
  CommandLine& gets = line.addSubcommand("get", "print the option's value");
  gets.addWord("NAME", name, "GROUP/NAME, such as Net/LinkFlappingThreshold");
  CommandLine& sets = line.addSubcommand("set", "store a value, which then goes before all others");
  sets.addWord("NAME", name, "GROUP/NAME, such as Net/LinkFlappingThreshold");
  sets.addWord("VALUE", value, "an integer, decimal or 0x...");
  if (!line.parse(words)) return kDone;
  if (lists.chosen()) list();
  if (gets.chosen()) get(name);
  if (sets.chosen()) set(name, value);
  return kDone;
}

}  // namespace kelctl
