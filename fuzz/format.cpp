// A template and a swizzled argument area, both from outside: what a kernel's record brings.
// Input: a count (4 bytes), the template up to its NUL, the area.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "msgfmt/limits.h"
#include "platform/msgfmt.h"

namespace {

void require(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::uint32_t count = 0;
  if (size < sizeof count) return 0;
  std::memcpy(&count, data, sizeof count);
  const std::string input(reinterpret_cast<const char*>(data) + sizeof count, size - sizeof count);
  const std::string format = input.substr(0, input.find('\0'));
  // An allocation of its own, so that a read beyond the area is seen.
  const std::vector<char> area(input.begin() + static_cast<std::ptrdiff_t>(std::min(format.size() + 1, input.size())),
                               input.end());

  std::size_t length = 0;
  char* text = MsgFmt_AsprintfSwizzled(&length, format.c_str(), area.data(), area.size(), count);
  require(text != nullptr && std::strlen(text) == length && length <= msgfmt::kMaxTextBytes);
  std::free(text);

  const char* const end = area.data() + area.size();
  const std::size_t entries = area.size() / sizeof(MsgFmt_Arg);
  for (std::uint32_t index = 0; index <= entries; ++index) {
    const char* string = nullptr;
    if (!MsgFmt_GetSwizzledString(area.data(), index, end, &string) || string == nullptr) continue;
    require(index < entries && string >= area.data() && string + std::strlen(string) < end);
  }
  return 0;
}
