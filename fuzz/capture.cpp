// Captures from anywhere, through everything that replay does with them: whatever the bytes are, replaying them
// twice gives the same lines and the same story, and each line of JSON is one.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "capture.h"
#include "explain.h"
#include "replayEngine.h"
#include "replayOutput.h"
#include "replayStory.h"

namespace {

/// What has come of a capture, in the order in which it did.
class Everything final : public kelctl::ReplayWatcher {
 public:
  void begins(const kelctl::ReplayStep& step) override {
    teller_.begins(step);
    text_.begins(step);
    json_.begins(step);
  }
  void taken(const keld::CorrelatorInfo& by, bool handler) override { teller_.taken(by, handler); }
  void decided(const keld::Decision& decision, std::string_view subject,
               std::span<const keld::DecisionValue> values) override {
    teller_.decided(decision, subject, values);
    text_.decided(decision, subject, values);
    json_.decided(decision, subject, values);
  }
  void posted(std::string_view record, std::string_view line) override {
    teller_.posted(record, line);
    text_.posted(record, line);
    json_.posted(record, line);
  }
  void acted(const std::string& action) override {
    teller_.acted(action);
    text_.acted(action);
    json_.acted(action);
  }
  void logged(const char* text) override { teller_.logged(text); }
  void stopped(const std::string& why) override {
    teller_.stopped(why);
    text_.stopped(why);
    json_.stopped(why);
  }
  void finish() { teller_.finish(); }

  std::string all;

 private:
  void checkJson(std::string_view line) {
    if (!kelctl::Json::accept(line)) std::abort();
    all += line;
  }

  kelctl::StoryTeller teller_{[this](kelctl::StoryStep&& step) {
    all += kelctl::explainStep(step);
    checkJson(kelctl::jsonLine(kelctl::storyJson(step)));
  }};
  kelctl::ReplayLines text_{kelctl::ReplayForm::text, {}, {}, [this](std::string_view line) {
                              if (line.find('\n') != line.size() - 1) std::abort();
                              all += line;
                            }};
  kelctl::ReplayLines json_{kelctl::ReplayForm::json, {}, {}, [this](std::string_view line) { checkJson(line); }};
};

std::string replayed(std::string_view bytes, std::size_t chunk) {
  Everything everything;
  kelctl::ReplayEngine engine(everything, kelctl::Json::object());
  const auto take = [&](const kelctl::CaptureItem& item) {
    if (const auto* const header = std::get_if<kelctl::CaptureHeader>(&item.what)) {
      everything.all += engine.setFacts(header->facts);
    } else {
      everything.all += engine.take(item);
    }
    return true;
  };
  kelctl::CaptureReader reader(
      take, [&](std::uint64_t line, const std::string& reason) { everything.all += std::to_string(line) + reason; });
  for (std::size_t at = 0; at < bytes.size(); at += chunk) reader.feed(bytes.substr(at, chunk));
  everything.finish();
  return std::move(everything.all);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  constexpr std::size_t kSmallChunk = 7;
  if (replayed(bytes, size + 1) != replayed(bytes, kSmallChunk)) std::abort();
  return 0;
}
