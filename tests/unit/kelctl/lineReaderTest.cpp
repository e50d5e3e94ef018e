#include "lineReader.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <thread>
#include <vector>

namespace {

using kelctl::LineReader;
using kelctl::StopSignals;
using Step = LineReader::Step;

class LineReaderTest : public testing::Test {
 protected:
  LineReaderTest() {
    int ends[2];
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    read_.reset(ends[0]);
    write_.reset(ends[1]);
  }

  /// What a reader makes of `text`; "<too long>" for a line that was passed over.
  std::vector<std::string> linesOf(const std::string& text) {
    std::thread writer([&] {
      std::string_view rest = text;
      while (!rest.empty()) {
        const ssize_t written = ::write(write_.get(), rest.data(), rest.size());
        if (written <= 0) break;
        rest.remove_prefix(static_cast<std::size_t>(written));
      }
      write_.reset();
    });
    LineReader reader(read_.get(), stop_);
    std::vector<std::string> lines;
    std::string line;
    for (Step step = reader.next(line); step != Step::end; step = reader.next(line)) {
      lines.push_back(step == Step::line ? line : "<too long>");
    }
    writer.join();
    return lines;
  }

  StopSignals stop_;
  platform::UniqueFd read_;
  platform::UniqueFd write_;
};

using Lines = std::vector<std::string>;

TEST_F(LineReaderTest, GivesLinesWithoutTheirEnds) {
  EXPECT_EQ(linesOf("a\n\nb c\n"), (Lines{"a", "", "b c"}));
}
TEST_F(LineReaderTest, TakesALastLineWithoutEnd) {
  EXPECT_EQ(linesOf("a\nb"), (Lines{"a", "b"}));
}
TEST_F(LineReaderTest, GivesNothingForNothing) {
  EXPECT_EQ(linesOf(""), Lines{});
}

TEST_F(LineReaderTest, PassesOverALineThatIsTooLong) {
  const std::string most(LineReader::kMaxLineBytes, 'x');
  EXPECT_EQ(linesOf("a\n" + most + "\n" + most + "y\n" + most + most + most + "\nb\n"),
            (Lines{"a", most, "<too long>", "<too long>", "b"}));
}

TEST_F(LineReaderTest, PassesOverALastLineThatIsTooLong) {
  EXPECT_EQ(linesOf("a\n" + std::string(3 * LineReader::kMaxLineBytes, 'x')), (Lines{"a", "<too long>"}));
}

TEST_F(LineReaderTest, IsStoppedByASignal) {
  LineReader reader(read_.get(), stop_);
  ASSERT_EQ(std::raise(SIGINT), 0);
  std::string line;
  EXPECT_EQ(reader.next(line), Step::stopped);
  EXPECT_TRUE(StopSignals::stopped());
}

TEST_F(LineReaderTest, SleepEndsAtASignalOnly) {
  const auto past = std::chrono::steady_clock::now();
  EXPECT_TRUE(stop_.sleepUntil(past));
  ASSERT_EQ(std::raise(SIGTERM), 0);
  EXPECT_FALSE(stop_.sleepUntil(past + std::chrono::hours(1)));
}

}  // namespace
