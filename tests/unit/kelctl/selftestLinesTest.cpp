#include "selftestLines.h"

#include <gtest/gtest.h>

namespace {

using kelctl::SelftestLine;
using kelctl::SelftestLines;
using kelctl::Verdict;

std::vector<std::string> texts(const std::vector<SelftestLine>& lines) {
  std::vector<std::string> all;
  all.reserve(lines.size());
  for (const SelftestLine& line : lines) all.push_back(line.text);
  return all;
}

std::vector<Verdict> verdicts(const std::vector<SelftestLine>& lines) {
  std::vector<Verdict> all;
  all.reserve(lines.size());
  for (const SelftestLine& line : lines) all.push_back(line.verdict);
  return all;
}

TEST(SelftestLines, TellsByItsTagWhatALineIs) {
  SelftestLines lines;
  const auto found = lines.add(
      "INFO: Alarm handler ready\n"
      "PASS: [0]: kel.tests.async.noData\n"
      "FAIL: Received NULL kelID\n"
      "FAILURE: whatever\n"
      "WARNING: whatever\n");
  EXPECT_EQ(texts(found),
            (std::vector<std::string>{"INFO: Alarm handler ready", "PASS: [0]: kel.tests.async.noData",
                                      "FAIL: Received NULL kelID", "FAILURE: whatever", "WARNING: whatever"}));
  EXPECT_EQ(verdicts(found), (std::vector<Verdict>{Verdict::information, Verdict::passed, Verdict::failed,
                                                   Verdict::failed, Verdict::warning}));
  EXPECT_TRUE(lines.end().empty());
}

TEST(SelftestLines, ALineCountsOnceItIsComplete) {
  SelftestLines lines;
  EXPECT_TRUE(lines.add("PASS: [1").empty());
  EXPECT_TRUE(lines.add("]: kel.tests.").empty());
  EXPECT_EQ(texts(lines.add("async.withPath\nINFO:")), std::vector<std::string>{"PASS: [1]: kel.tests.async.withPath"});
  EXPECT_EQ(texts(lines.end()), std::vector<std::string>{"INFO:"});
  EXPECT_TRUE(lines.end().empty());
}

TEST(SelftestLines, AMessageWithoutALineEndHidesNothingBehindIt) {
  SelftestLines lines;
  const auto found = lines.add(
      "FAILURE: Received END without matching start!FAIL: No. of tests = 21, but received only 0 kels.\n"
      "FAILURE: Duplicate test start kels?!INFO: Alarm handler ready\n"
      "WARNING: received kel kel.tests.a before test 'START' kel. (Ignoring.)"
      "WARNING: received kel kel.tests.b before test 'START' kel. (Ignoring.)INFO: Got kel: kel.tests.marker.start\n");
  EXPECT_EQ(texts(found),
            (std::vector<std::string>{"FAILURE: Received END without matching start!",
                                      "FAIL: No. of tests = 21, but received only 0 kels.",
                                      "FAILURE: Duplicate test start kels?!", "INFO: Alarm handler ready",
                                      "WARNING: received kel kel.tests.a before test 'START' kel. (Ignoring.)",
                                      "WARNING: received kel kel.tests.b before test 'START' kel. (Ignoring.)",
                                      "INFO: Got kel: kel.tests.marker.start"}));
  EXPECT_EQ(verdicts(found),
            (std::vector<Verdict>{Verdict::failed, Verdict::failed, Verdict::failed, Verdict::information,
                                  Verdict::warning, Verdict::warning, Verdict::information}));
}

TEST(SelftestLines, WhatIsLeftWithoutALineEndIsTakenApartToo) {
  SelftestLines lines;
  EXPECT_TRUE(lines.add("FAILURE: Duplicate test start kels?!FAIL: Failed to set alarm handler").empty());
  EXPECT_EQ(texts(lines.end()),
            (std::vector<std::string>{"FAILURE: Duplicate test start kels?!", "FAIL: Failed to set alarm handler"}));
}

TEST(SelftestLines, AFailureBehindSomethingUnforeseenIsOne) {
  SelftestLines lines;
  const auto found = lines.add("complaint of a libraryFAIL: Received NULL kelID\nINFO: halfFAILURE: whatever\n");
  EXPECT_EQ(verdicts(found), (std::vector<Verdict>{Verdict::failed, Verdict::failed}));
  EXPECT_FALSE(found[0].continued);
}

TEST(SelftestLines, ALineWithoutATagGoesOnWithTheOneBefore) {
  SelftestLines lines;
  const auto found = lines.add("foreign\nFAIL: Expected msg = 'a'; Got 'b\nc'\nINFO: x\ny\n\n");
  EXPECT_EQ(verdicts(found), (std::vector<Verdict>{Verdict::information, Verdict::failed, Verdict::failed,
                                                   Verdict::information, Verdict::information, Verdict::information}));
  EXPECT_TRUE(found[0].continued);
  EXPECT_FALSE(found[1].continued);
  EXPECT_TRUE(found[2].continued);
}

TEST(SelftestLines, ALineThatNeverEndsIsCut) {
  SelftestLines lines;
  std::size_t cut = 0;
  for (int n = 0; n < 100; ++n) cut += lines.add(std::string(10'000, 'x')).size();
  EXPECT_EQ(cut, 1'000'000 / SelftestLines::kMaxLineBytes);
  EXPECT_EQ(lines.end().size(), 1U);
}

}  // namespace
