// The corpus of captures beside this file, each with the lines that its replay is to give.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "coverage.h"
#include "replayOutput.h"
#include "replayRun.h"

namespace {

namespace fs = std::filesystem;

std::vector<std::string> namesWith(const std::string& extension) {
  std::vector<std::string> names;
  for (const fs::directory_entry& file : fs::directory_iterator(KELD_GOLDEN_DIRECTORY)) {
    if (file.path().extension() == extension) names.push_back(file.path().stem().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string pathOf(const std::string& name, const std::string& extension) {
  return (fs::path(KELD_GOLDEN_DIRECTORY) / (name + extension)).string();
}

std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  EXPECT_TRUE(file) << path;
  return {std::istreambuf_iterator<char>(file), {}};
}

void replay(const std::string& name, kelctl::ReplayWatcher& watcher) {
  kelctl::ReplayInput input;
  input.file = pathOf(name, ".capture");
  kelctl::replay(input, watcher);
}

std::string replayed(const std::string& name) {
  std::string text;
  kelctl::ReplayLines lines(kelctl::ReplayForm::text, {}, {}, [&](std::string_view line) { text += line; });
  replay(name, lines);
  return text;
}

/// "link-goes-down" as a test is called: "LinkGoesDown".
std::string testName(const std::string& name) {
  std::string text;
  bool begins = true;
  for (const char c : name) {
    if (std::isalnum(static_cast<unsigned char>(c)) != 0) {
      text += begins ? static_cast<char>(std::toupper(static_cast<unsigned char>(c))) : c;
    }
    begins = c == '-';
  }
  return text;
}

class GoldenCapture : public testing::TestWithParam<std::string> {};

TEST_P(GoldenCapture, GivesItsExpectedLines) {
  EXPECT_EQ(replayed(GetParam()), contentOf(pathOf(GetParam(), ".expected")));
}

INSTANTIATE_TEST_SUITE_P(Corpus, GoldenCapture, testing::ValuesIn(namesWith(".capture")),
                         [](const auto& parameter) { return testName(parameter.param); });

TEST(GoldenCorpus, HasExpectedLinesForEachCaptureAndNoOthers) {
  EXPECT_EQ(namesWith(".expected"), namesWith(".capture"));
}

TEST(GoldenCorpus, ExercisesEachRowHandlerAndDecision) {
  // They take 2^32 records, and 65,537 names.
  constexpr std::string_view kOutOfReach[] = {"cpu.page.wrapped", "user.held-off.forgotten"};
  kelctl::Coverage coverage;
  for (const std::string& name : namesWith(".capture")) replay(name, coverage);
  for (const kelctl::Coverage::Part* const part : coverage.parts()) {
    std::vector<std::string_view> missing;
    std::set_difference(part->known.begin(), part->known.end(), part->seen.begin(), part->seen.end(),
                        std::back_inserter(missing));
    for (const std::string_view decision : kOutOfReach) std::erase(missing, decision);
    EXPECT_THAT(missing, testing::IsEmpty()) << part->name << " that no capture exercises";
  }
}

TEST(GoldenCorpus, IsLargeEnoughToBeWorthItsName) {
  EXPECT_GE(namesWith(".capture").size(), 60U);
}

}  // namespace
