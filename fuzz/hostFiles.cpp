// Any bytes in place of what the kernel and its processes say in small files: mountinfo, a command
// line, a list of processors, and names with escapes. The first byte says which.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "linux/kernelFiles.h"
#include "linux/mounts.h"
#include "linux/processors.h"
#include "linux/virtualMachines.h"

namespace {

void require(bool holds) {
  if (!holds) std::abort();
}

void mounts(std::string_view text) {
  const auto mounts = platform::parseMounts(text);
  require(mounts.size() <= platform::kMounts);
  const std::string path(text.substr(0, text.find('\n')));
  const platform::Mount* const mount = platform::mountOf(mounts, path);
  if (mount != nullptr) require(!platform::pathBelow(mount->point, path).starts_with('/'));
  for (const platform::Mount& one : mounts) {
    require(platform::mountOf(mounts, one.point) != nullptr);
    require(platform::pathBelow(one.point, one.point + "/x") == "x" || one.point.ends_with('/'));
  }
}

void commandLine(std::string_view text) {
  (void)platform::isVirtualMachine("main", text);
  const auto name = platform::virtualMachineName(text);
  if (!name) return;
  require(!name->empty() && name->size() <= platform::kShownBytes);
  for (const char c : *name) require(static_cast<unsigned char>(c) >= ' ' && c != 0x7f);
}

void processors(std::string_view text) {
  const auto list = platform::parseProcessorList(std::string(text));
  if (!list) return;
  require(list->size() <= platform::kProcessors);
  for (std::size_t i = 1; i < list->size(); ++i) require((*list)[i - 1] < (*list)[i]);
}

void names(std::string_view text) {
  require(platform::decodeHexEscapes(text).size() <= text.size());
  require(platform::decodeOctalEscapes(text).size() <= text.size());
  require(platform::shownName(text).size() <= platform::kShownBytes);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
  switch (data[0]) {
    case 'm':
      mounts(text);
      break;
    case 'c':
      commandLine(text);
      break;
    case 'p':
      processors(text);
      break;
    default:
      names(text);
  }
  return 0;
}
