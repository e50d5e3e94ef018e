#include "fakeTime.h"

#include <cstdlib>
#include <filesystem>

namespace e2e {
namespace {

std::string preloadLibrary() {
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator("/usr/lib", ignored)) {
    const auto library = entry.path() / "faketime" / "libfaketimeMT.so.1";
    if (std::filesystem::exists(library, ignored)) return library;
  }
  return {};
}

void addOptions(Program& program, const char* variable, const std::string& options) {
  const char* const before = std::getenv(variable);
  program.setEnvironment(variable, (before == nullptr ? "" : std::string(before) + ":") + options);
}

void preload(Program& program) {
  program.setEnvironment("LD_PRELOAD", preloadLibrary());
  // A preloaded library stands before the sanitizer's own.
  addOptions(program, "ASAN_OPTIONS", "verify_asan_link_order=0");
  addOptions(program, "TSAN_OPTIONS", "suppressions=" KELD_FAKETIME_SUPPRESSIONS);
}

}  // namespace

std::string FakeTime::missing() {
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
  return "time cannot be shifted: this compiler's address sanitizer is linked in statically";
#endif
#endif
  return preloadLibrary().empty() ? "time cannot be shifted: package faketime is not installed" : "";
}

void FakeTime::runFast(Program& program, int factor) {
  preload(program);
  program.setEnvironment("FAKETIME", "@2026-01-01 00:00:00 x" + std::to_string(factor));
}

FakeTime::FakeTime(const Workspace& workspace, Program& program, const std::string& time)
    : file_(workspace.root() + "/faketime") {
  set(time);
  preload(program);
  program.setEnvironment("FAKETIME_TIMESTAMP_FILE", file_);
  program.setEnvironment("FAKETIME_NO_CACHE", "1");
}

void FakeTime::set(const std::string& time) const {
  replaceFile(file_, time + "\n");
}

}  // namespace e2e
