#include "linux/kernelFiles.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <memory>

#include "host/keyValueLines.h"
#include "host/uniqueFd.h"

namespace platform {

namespace {

constexpr std::size_t kWordBytes = 4096;
constexpr std::size_t kReadStepBytes = 4096;
constexpr int kHexadecimal = 16;
constexpr int kOctal = 8;

template <typename Call>
auto retryInterrupted(Call call) {
  auto result = call();
  while (result < 0 && errno == EINTR) result = call();
  return result;
}

/// Each backslash, `lead` and `digits` digits of `base` as the byte that they stand for.
std::string decodeEscapes(std::string_view text, std::string_view lead, std::size_t digits, int base) {
  std::string decoded;
  decoded.reserve(text.size());
  while (!text.empty()) {
    std::optional<std::uint64_t> byte;
    if (text.starts_with(lead) && text.size() >= lead.size() + digits) {
      byte = parseNumber(text.substr(lead.size(), digits), base);
    }
    if (byte && *byte <= UCHAR_MAX) {
      decoded += static_cast<char>(*byte);
      text.remove_prefix(lead.size() + digits);
    } else {
      decoded += text.front();
      text.remove_prefix(1);
    }
  }
  return decoded;
}

struct DirectoryCloser {
  void operator()(DIR* directory) const { ::closedir(directory); }
};

}  // namespace

Answer<std::string> readStart(const std::string& path, std::size_t limitBytes) {
  // O_NONBLOCK: a FIFO in the file's place must not hang the caller.
  const UniqueFd file(retryInterrupted([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK); }));
  if (!file) return {{errno, {}}, {}};
  struct stat facts {};
  if (::fstat(file.get(), &facts) != 0) return {{errno, {}}, {}};
  if (!S_ISREG(facts.st_mode)) return {{EINVAL, "not a regular file"}, {}};
  Answer<std::string> start;
  std::string& text = start.value;
  while (text.size() < limitBytes) {
    const std::size_t have = text.size();
    text.resize(std::min(limitBytes, have + std::max(have, kReadStepBytes)));
    const ssize_t got = retryInterrupted([&] { return ::read(file.get(), text.data() + have, text.size() - have); });
    if (got < 0) return {{errno, {}}, {}};
    text.resize(have + static_cast<std::size_t>(got));
    if (got == 0) break;
  }
  return start;
}

std::optional<std::string> readWord(const std::string& path) {
  const Answer<std::string> start = readStart(path, kWordBytes);
  if (!start.ok()) return std::nullopt;
  const std::string_view text = start.value;
  return std::string(trimBlanks(text.substr(0, text.find('\n'))));
}

std::optional<std::uint64_t> readNumber(const std::string& path) {
  const auto word = readWord(path);
  return word ? parseNumber(*word) : std::nullopt;
}

std::optional<std::uint64_t> parseNumber(std::string_view text, int base) {
  std::uint64_t value = 0;
  const char* const end = text.data() + text.size();
  if (std::from_chars(text.data(), end, value, base) != std::from_chars_result{end, std::errc()}) return std::nullopt;
  return value;
}

std::string hexadecimalText(std::uint64_t value) {
  std::array<char, 2 * sizeof value> digits{};
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value, kHexadecimal).ptr;
  return "0x" + std::string(digits.data(), end);
}

int forEachName(const std::string& directory, const std::function<bool(const char* name)>& take) {
  const std::unique_ptr<DIR, DirectoryCloser> stream(::opendir(directory.c_str()));
  if (stream == nullptr) return errno;
  while (true) {
    errno = 0;
    const dirent* const entry = ::readdir(stream.get());
    if (entry == nullptr) return errno;
    const std::string_view name = entry->d_name;
    if (name != "." && name != ".." && !take(entry->d_name)) return 0;
  }
}

std::vector<std::string> namesIn(const std::string& directory) {
  std::vector<std::string> names;
  (void)forEachName(directory, [&](const char* name) {
    names.emplace_back(name);
    return names.size() < kDirectoryNames;
  });
  std::sort(names.begin(), names.end());
  return names;
}

std::optional<std::string> linkName(const std::string& path) {
  std::array<char, PATH_MAX> target{};
  const ssize_t length = ::readlink(path.c_str(), target.data(), target.size());
  if (length <= 0) return std::nullopt;
  const std::string_view whole(target.data(), static_cast<std::size_t>(length));
  const std::string_view last = whole.substr(whole.rfind('/') + 1);
  if (!isPlainName(last)) return std::nullopt;
  return std::string(last);
}

bool isPlainName(std::string_view name) {
  return !name.empty() && name.size() <= NAME_MAX && name != "." && name != ".." &&
         name.find('/') == std::string_view::npos && name.find('\0') == std::string_view::npos;
}

bool exists(const std::string& path) {
  return ::access(path.c_str(), F_OK) == 0;
}

int writeKernelFile(const std::string& path, std::string_view text) {
  constexpr int kFlags = O_WRONLY | O_TRUNC | O_CLOEXEC | O_NONBLOCK;
  const UniqueFd file(retryInterrupted([&] { return ::open(path.c_str(), kFlags); }));
  if (!file) return errno;
  const ssize_t written = retryInterrupted([&] { return ::write(file.get(), text.data(), text.size()); });
  if (written < 0) return errno;
  return static_cast<std::size_t>(written) == text.size() ? 0 : EIO;
}

std::string decodeHexEscapes(std::string_view text) {
  return decodeEscapes(text, "\\x", 2, kHexadecimal);
}

std::string decodeOctalEscapes(std::string_view text) {
  return decodeEscapes(text, "\\", 3, kOctal);
}

std::string shownName(std::string_view text) {
  std::size_t length = text.size();
  if (length > kShownBytes) {
    length = kShownBytes;
    while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xc0) == 0x80) --length;
  }
  std::string shown(text.substr(0, length));
  for (char& c : shown) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < ' ' || byte == 0x7f) c = '?';
  }
  return shown;
}

Outcome notAvailable(const std::string& why) {
  return {ENOTSUP, "not available: " + why};
}

}  // namespace platform
