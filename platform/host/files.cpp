#include "host/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "host/paths.h"
#include "host/uniqueFd.h"

namespace platform {

namespace {

constexpr std::size_t kReadStepBytes = std::size_t{64} * 1024;

template <typename Call>
auto retryInterrupted(Call call) {
  auto result = call();
  while (result < 0 && errno == EINTR) result = call();
  return result;
}

}  // namespace

std::string errnoText(int status) {
  return std::generic_category().message(status);
}

std::string reasonOf(const Outcome& outcome) {
  return outcome.text.empty() ? errnoText(outcome.status) : outcome.text;
}

Answer<std::string> readFile(const std::string& path, std::size_t limitBytes) {
  // O_NONBLOCK: a FIFO in the file's place must not hang the caller.
  const UniqueFd file(retryInterrupted([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK); }));
  if (!file) return {{errno, {}}, {}};
  struct stat facts {};
  if (::fstat(file.get(), &facts) != 0) return {{errno, {}}, {}};
  if (!S_ISREG(facts.st_mode)) return {{EINVAL, "not a regular file"}, {}};

  Answer<std::string> content;
  std::string& text = content.value;
  while (true) {
    const std::size_t have = text.size();
    text.resize(have + kReadStepBytes);
    const ssize_t got = retryInterrupted([&] { return ::read(file.get(), text.data() + have, kReadStepBytes); });
    if (got < 0) return {{errno, {}}, {}};
    text.resize(have + static_cast<std::size_t>(got));
    if (text.size() > limitBytes) return {{EFBIG, {}}, {}};
    if (got == 0) return content;
  }
}

int appendLine(const std::string& path, std::string_view line) {
  constexpr int kFlags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW;
  constexpr mode_t kOwnerOnly = 0600;
  const auto openFile = [&] { return retryInterrupted([&] { return ::open(path.c_str(), kFlags, kOwnerOnly); }); };
  UniqueFd file(openFile());
  if (!file && errno == ENOENT) {
    const int status = makePrivateDirectory(std::filesystem::path(path).parent_path());
    if (status != 0) return status;
    file.reset(openFile());
  }
  if (!file) return errno;

  std::string whole(line);
  whole += '\n';
  const ssize_t written = retryInterrupted([&] { return ::write(file.get(), whole.data(), whole.size()); });
  if (written < 0) return errno;
  if (static_cast<std::size_t>(written) == whole.size()) return 0;
  // The disk is full. End the torn line if that still fits, so that the next record stands alone.
  const ssize_t ended = retryInterrupted([&] { return ::write(file.get(), "\n", 1); });
  return ended < 0 ? errno : ENOSPC;
}

}  // namespace platform
