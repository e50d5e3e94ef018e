#include "captureFile.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>

#include "failure.h"

namespace {

using kelctl::CaptureFile;
using kelctl::CaptureFileOptions;
using kelctl::Failure;

constexpr const char* kHeader = "#keld-capture 1 {}\n";
constexpr const char* kLine = "1767225600.000000042,IN,1,kel.x,\n";

class CaptureFileTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (std::filesystem::temp_directory_path() / "capture-XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    directory_ = pattern;
  }
  void TearDown() override { std::filesystem::remove_all(directory_); }

  [[nodiscard]] std::string path(const std::string& suffix = "") const {
    return (directory_ / "a.capture").string() + suffix;
  }
  [[nodiscard]] std::string content(const std::string& suffix = "") const {
    std::ifstream file(path(suffix), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  void put(const std::string& text) const { std::ofstream(path(), std::ios::binary) << text; }
  [[nodiscard]] std::unique_ptr<CaptureFile> open(CaptureFileOptions options) const {
    options.path = path();
    return std::make_unique<CaptureFile>(options, [] { return kHeader; });
  }
  void makeAndClose(const CaptureFileOptions& options) const { static_cast<void>(open(options)); }
  [[nodiscard]] static std::string lines(int from, int to) {
    std::string text;
    for (int n = from; n < to; ++n) text += "line " + std::to_string(n) + "\n";
    return text;
  }

  std::filesystem::path directory_;
};

TEST_F(CaptureFileTest, BeginsWithTheHeaderAndIsItsOwnersAlone) {
  const auto file = open({});
  EXPECT_EQ(content(), kHeader);
  struct stat facts {};
  ASSERT_EQ(::stat(path().c_str(), &facts), 0);
  EXPECT_EQ(facts.st_mode & 07777U, 0600U);
  file->add(kLine);
  EXPECT_EQ(content(), kHeader) << "not written before it is flushed";
  file->flush();
  EXPECT_EQ(content(), std::string(kHeader) + kLine);
}

TEST_F(CaptureFileTest, AFileThatIsThereIsLeftAlone) {
  put("mine");
  EXPECT_THROW(makeAndClose({}), Failure);
  EXPECT_EQ(content(), "mine");
}

TEST_F(CaptureFileTest, ForceReplacesAFileAndMakesItItsOwnersAlone) {
  put("mine");
  ASSERT_EQ(::chmod(path().c_str(), 0644), 0);
  makeAndClose({.path = "", .force = true});
  EXPECT_EQ(content(), kHeader);
  struct stat facts {};
  ASSERT_EQ(::stat(path().c_str(), &facts), 0);
  EXPECT_EQ(facts.st_mode & 07777U, 0600U);
}

TEST_F(CaptureFileTest, AppendAddsBehindWhatIsThere) {
  const std::string before = std::string(kHeader) + "1767225600.000000042,IN,1,kel.x,,\"a\nb\"\n";
  put(before);
  open({.path = "", .append = true})->addHere(kLine);
  EXPECT_EQ(content(), before + kHeader);
  makeAndClose({.path = "", .append = true});
  EXPECT_EQ(content(), before + kHeader + kHeader);
}

TEST_F(CaptureFileTest, AppendCutsOffALineThatWasNotFinished) {
  for (const char* const torn : {"1767225600.000000042,IN,1,kel.x,,12", "#facts 1",
                                 "1767225600.000000042,IN,1,kel.x,,\"a", "1767225600.000000042,IN,1,kel.x,,\"a\n"}) {
    put(std::string(kHeader) + kLine + torn);
    testing::internal::CaptureStderr();
    makeAndClose({.path = "", .append = true});
    EXPECT_EQ(content(), std::string(kHeader) + kLine + kHeader) << torn;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "kelctl: " + path() + ": cut off " +
                                                          std::to_string(std::string(torn).size()) +
                                                          " bytes of a line that was not finished\n");
  }
}

TEST_F(CaptureFileTest, AppendMakesAFileThatIsMissingOrEmptyACapture) {
  makeAndClose({.path = "", .append = true});
  EXPECT_EQ(content(), kHeader);
  put("");
  makeAndClose({.path = "", .append = true});
  EXPECT_EQ(content(), kHeader);
}

TEST_F(CaptureFileTest, AppendTouchesNothingThatIsNoCapture) {
  for (const char* const text : {"root:x:0:0::/root:/bin/sh\n", "no line feed", "\n"}) {
    put(text);
    EXPECT_THROW(makeAndClose({.path = "", .append = true}), Failure) << text;
    EXPECT_EQ(content(), text);
  }
}

TEST_F(CaptureFileTest, TwoCapturesDoNotShareAFile) {
  const auto first = open({});
  EXPECT_THROW(makeAndClose({.path = "", .append = true}), Failure);
  EXPECT_THROW(makeAndClose({.path = "", .force = true}), Failure);
  EXPECT_EQ(content(), kHeader);
}

TEST_F(CaptureFileTest, GoesOnInANewFileAtItsSizeAndLosesNothing) {
  const std::uint64_t size = std::string(kHeader).size() + 14;  // two lines reach it
  const auto file = open({.path = "", .rotateBytes = size, .keep = 3});
  for (int n = 0; n < 7; ++n) file->add(lines(n, n + 1));
  file->flush();
  EXPECT_EQ(content(".3"), kHeader + lines(0, 2));
  EXPECT_EQ(content(".2"), kHeader + lines(2, 4));
  EXPECT_EQ(content(".1"), kHeader + lines(4, 6));
  EXPECT_EQ(content(), kHeader + lines(6, 7));
  for (int n = 7; n < 9; ++n) file->add(lines(n, n + 1));
  file->flush();
  EXPECT_EQ(content(".3"), kHeader + lines(2, 4)) << "the oldest is dropped";
  EXPECT_EQ(content(".1"), kHeader + lines(6, 8));
  EXPECT_FALSE(std::filesystem::exists(path(".4")));
  file->addHere(lines(9, 10));
  file->addHere("#end\n");
  file->flush();
  EXPECT_EQ(content(), kHeader + lines(8, 10) + "#end\n") << "the end is no reason for a new file";
}

TEST_F(CaptureFileTest, AFileSmallerThanItsHeaderStillTakesALine) {
  const auto file = open({.path = "", .rotateBytes = 1});
  for (int n = 0; n < 3; ++n) file->add(lines(n, n + 1));
  file->flush();
  EXPECT_EQ(content(".2"), kHeader + lines(0, 1));
  EXPECT_EQ(content(".1"), kHeader + lines(1, 2));
  EXPECT_EQ(content(), kHeader + lines(2, 3));
}

TEST_F(CaptureFileTest, AFileOfAnEarlierCaptureIsRotatedWhereThereIsRoomForNoMore) {
  put(std::string(kHeader) + kLine);
  const auto file = open({.path = "", .append = true, .rotateBytes = 1});
  file->add(lines(0, 1));
  file->add(lines(1, 2));
  file->flush();
  EXPECT_EQ(content(".1"), std::string(kHeader) + kLine + kHeader + lines(0, 1));
  EXPECT_EQ(content(), kHeader + lines(1, 2));
}

TEST_F(CaptureFileTest, AFullDiskLeavesWholeLinesOnly) {
  const auto file = open({});
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
  rlimit small = before;
  small.rlim_cur = std::string(kHeader).size() + 16;  // two of the lines and a part of the third
  const auto handler = std::signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
  for (int n = 0; n < 4; ++n) file->add(lines(n, n + 1));
  std::string reason;
  try {
    file->flush();
  } catch (const Failure& failure) {
    reason = failure.what();
  }
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
  std::signal(SIGXFSZ, handler);
  EXPECT_EQ(reason, "cannot write to " + path() + ": File too large; the capture ends with the last line that fits");
  EXPECT_EQ(content(), kHeader + lines(0, 2));
}

TEST_F(CaptureFileTest, AFullDeviceIsAFailureAtTheHeader) {
  const CaptureFileOptions full{.path = "/dev/full", .force = true};
  try {
    const CaptureFile file(full, [] { return kHeader; });
    FAIL() << "it was written";
  } catch (const Failure& failure) {
    EXPECT_STREQ(failure.what(), "cannot write to /dev/full: No space left on device");
  }
}

TEST_F(CaptureFileTest, ADeviceIsNotRotated) {
  const CaptureFileOptions device{.path = "/dev/null", .force = true, .rotateBytes = 1};
  EXPECT_THROW(CaptureFile(device, [] { return kHeader; }), Failure);
}

}  // namespace
