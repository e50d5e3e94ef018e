// The manual page and the completion keep up with the tool.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <regex>
#include <set>

#include "command.h"
#include "emitWords.h"

namespace {

std::string contentOf(const std::string& name) {
  std::ifstream file(std::string(KELCTL_PACKAGING_DIRECTORY) + "/" + name);
  EXPECT_TRUE(file) << name;
  return {std::istreambuf_iterator<char>(file), {}};
}

/// The long options that a sub-command's help names.
std::set<std::string> optionsOf(const char* command) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(kelctl::runTool({command, "--help"}), 0);
  const std::string help = testing::internal::GetCapturedStdout();
  const std::regex option("--[a-z]+");
  std::set<std::string> names;
  for (std::sregex_iterator at(help.begin(), help.end(), option), end; at != end; ++at) names.insert(at->str());
  names.erase("--help");
  return names;
}

TEST(ManualPage, NamesEverySubCommandAndOption) {
  const std::string page = contentOf("kelctl.1");
  for (const kelctl::Command& command : kelctl::commands()) {
    EXPECT_NE(page.find(std::string("Cm ") + command.name), std::string::npos) << command.name;
    for (const std::string& option : optionsOf(command.name)) {
      EXPECT_NE(page.find("Fl -" + option.substr(2)), std::string::npos) << command.name << " " << option;
    }
  }
}

TEST(Completion, NamesEverySubCommandAndOption) {
  const std::string script = contentOf("completions/kelctl");
  for (const kelctl::Command& command : kelctl::commands()) {
    EXPECT_NE(script.find(command.name), std::string::npos) << command.name;
    for (const std::string& option : optionsOf(command.name)) {
      EXPECT_NE(script.find(option), std::string::npos) << command.name << " " << option;
    }
  }
}

}  // namespace
