// The model file's parser and everything that answers from what it read.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "host/platformLog.h"
#include "model/modelFile.h"
#include "model/modelSections.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const platform::ScopedPlatformLog kNoLog([](const std::string&) {});
  const auto parsed = platform::parseModelFile({reinterpret_cast<const char*>(data), size});
  if (!parsed.ok()) return 0;
  // What was accepted is shown, and what is shown is accepted again and means the same.
  const auto shown = platform::modelSections(parsed.value);
  const auto again = platform::parseModelFile(shown.dump());
  if (!again.ok() || platform::modelSections(again.value) != shown) std::abort();
  return 0;
}
