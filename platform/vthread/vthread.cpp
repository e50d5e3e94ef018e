#include "platform/vthread.h"

#include <pthread.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstring>

namespace {

/// Longest name kept, with its NUL.
constexpr std::size_t kNameBytes = 64;
/// What the kernel keeps of a thread's name, with its NUL: TASK_COMM_LEN, pthread_setname_np(3).
constexpr std::size_t kKernelNameBytes = 16;

thread_local std::array<char, kNameBytes> currentName{};

template <std::size_t N>
void copyCut(std::array<char, N>& to, const char* from) {
  const std::size_t length = strnlen(from, N - 1);
  std::memmove(to.data(), from, length);
  to[length] = '\0';
}

}  // namespace

void VThreadBase_SetName(const char* name) {
  copyCut(currentName, name == nullptr ? "" : name);
  std::array<char, kKernelNameBytes> shown{};
  copyCut(shown, currentName.data());
  // Cannot fail: the name is short enough, and the thread is the caller itself.
  (void)pthread_setname_np(pthread_self(), shown.data());
}

const char* VThreadBase_CurName() {
  if (currentName[0] == '\0') {
    const pid_t thread = gettid();
    if (thread == getpid()) {
      copyCut(currentName, "main");
    } else {
      (void)std::snprintf(currentName.data(), currentName.size(), "thread-%d", static_cast<int>(thread));
    }
  }
  return currentName.data();
}
