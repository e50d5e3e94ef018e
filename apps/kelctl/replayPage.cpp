#include "replayPage.h"

#include <string>

#include "replayPageText.h"

namespace kelctl {

namespace {

constexpr const char* kSteps = "steps";

/// JSON in ASCII in which nothing looks like markup: a "<" can only stand in a string.
std::string asciiJson(const Json& value) {
  const std::string json = value.dump(-1, ' ', true, Json::error_handler_t::replace);
  std::string text;
  text.reserve(json.size());
  for (const char c : json) {
    if (c == '<') {
      text += "\\u003c";
    } else if (c == '>') {
      text += "\\u003e";
    } else if (c == '&') {
      text += "\\u0026";
    } else {
      text += c;
    }
  }
  return text;
}

void writeSteps(const Json& steps, const std::function<void(std::string_view)>& write) {
  write("[");
  const char* separator = "\n";
  for (const Json& step : steps) {
    write(separator + asciiJson(step));
    separator = ",\n";
  }
  write("]");
}

void writeStory(const Json& story, const std::function<void(std::string_view)>& write) {
  const char* separator = "{";
  for (const auto& [key, value] : story.items()) {
    write(separator + asciiJson(key) + ":");
    separator = ",";
    if (key == kSteps && value.is_array()) {
      writeSteps(value, write);
    } else {
      write(asciiJson(value));
    }
  }
  write(story.empty() ? "{}" : "}");
}

}  // namespace

void writeReplayPage(const Json& story, const std::function<void(std::string_view)>& write) {
  write(kPageBeforeStory);
  writeStory(story, write);
  write(kPageAfterStory);
}

}  // namespace kelctl
