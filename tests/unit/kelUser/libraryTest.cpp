// The shared library as a file: what it shows of itself, and that its manual page tells the truth.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>

namespace {

std::string contentOf(const std::string& path) {
  std::ifstream file(path);
  EXPECT_TRUE(file) << path;
  return {std::istreambuf_iterator<char>(file), {}};
}

/// Standard output of a command.
std::string outputOf(const std::string& command) {
  struct Close {
    void operator()(FILE* stream) const { EXPECT_EQ(::pclose(stream), 0); }
  };
  const std::unique_ptr<FILE, Close> stream(::popen(command.c_str(), "r"));
  std::string output;
  std::array<char, 4096> part{};
  while (const std::size_t length = std::fread(part.data(), 1, part.size(), stream.get())) {
    output.append(part.data(), length);
  }
  return output;
}

const std::set<std::string> kFunctions{"kel_user_open", "kel_user_emit", "kel_user_emit_batch", "kel_user_counts",
                                       "kel_user_close"};

TEST(KelUserLibrary, ShowsTheFunctionsOfItsHeaderAndNothingElse) {
  std::istringstream lines(outputOf(KEL_USER_NM " -D --defined-only " KEL_USER_LIBRARY));
  std::set<std::string> shown;
  for (std::string address, type, name; lines >> address >> type >> name;) {
    if (type == "T") {
      shown.insert(name.substr(0, name.find('@')));
    } else {
      EXPECT_EQ(type, "A") << name;
    }
  }
  EXPECT_EQ(shown, kFunctions);
}

TEST(KelUserManualPage, NamesEveryFunction) {
  const std::string page = contentOf(KEL_USER_PAGE);
  for (const std::string& name : kFunctions) EXPECT_NE(page.find(".Fn " + name), std::string::npos) << name;
}

TEST(KelUserManualPage, HasTheExampleThatIsCompiledAndRun) {
  std::string page = contentOf(KEL_USER_PAGE);
  // mdoc(7) writes a backslash as \e.
  for (std::size_t at = 0; (at = page.find("\\e", at)) != std::string::npos; ++at) page.replace(at, 2, "\\");
  EXPECT_NE(page.find(contentOf(KEL_USER_EXAMPLE)), std::string::npos);
}

}  // namespace
