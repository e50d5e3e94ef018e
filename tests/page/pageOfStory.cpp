// Reads a replay's story as JSON from standard input and writes its page to standard output.
#include <iostream>
#include <iterator>
#include <string>

#include "replayPage.h"

int main() {
  const std::string text{std::istreambuf_iterator<char>(std::cin), {}};
  const auto story = kelctl::Json::parse(text, nullptr, false);
  if (story.is_discarded()) {
    std::cerr << "pageOfStory: no JSON\n";
    return 2;
  }
  kelctl::writeReplayPage(story, [](std::string_view piece) { std::cout << piece; });
  return std::cout.flush() ? 0 : 1;
}
