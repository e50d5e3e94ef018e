#include "linux/systemUuid.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <optional>
#include <string_view>

#include "host/files.h"
#include "platform/vsi.h"

namespace platform {

namespace {

constexpr std::size_t kUuidBytes = 16;
constexpr std::size_t kUuidFileBytes = 256;
using Uuid = std::array<std::uint8_t, kUuidBytes>;

std::optional<unsigned> digitOf(char c) {
  if (c >= '0' && c <= '9') return static_cast<unsigned>(c - '0');
  if (c >= 'a' && c <= 'f') return static_cast<unsigned>(c - 'a') + 10;
  if (c >= 'A' && c <= 'F') return static_cast<unsigned>(c - 'A') + 10;
  return std::nullopt;
}

/// 32 hexadecimal digits, with or without hyphens between them, and a newline.
std::optional<Uuid> parseUuid(std::string_view text) {
  Uuid uuid{};
  std::size_t digits = 0;
  for (const char c : text.substr(0, text.find('\n'))) {
    if (c == '-') continue;
    const auto digit = digitOf(c);
    if (!digit || digits == 2 * kUuidBytes) return std::nullopt;
    std::uint8_t& byte = uuid[digits / 2];
    byte = static_cast<std::uint8_t>(unsigned{byte} << 4U | *digit);
    ++digits;
  }
  if (digits != 2 * kUuidBytes) return std::nullopt;
  // Firmware without a UUID of its own says all zeros or all ones.
  const bool alike = std::all_of(uuid.begin(), uuid.end(), [&](std::uint8_t byte) { return byte == uuid[0]; });
  if (alike && (uuid[0] == 0 || uuid[0] == 0xff)) return std::nullopt;
  return uuid;
}

std::optional<Uuid> readUuid(const std::string& path) {
  const Answer<std::string> content = readFile(path, kUuidFileBytes);
  return content.ok() ? parseUuid(content.value) : std::nullopt;
}

std::string textOf(const Uuid& uuid) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string text;
  for (std::size_t byte = 0; byte < kUuidBytes; ++byte) {
    if (byte == 4 || byte == 6 || byte == 8 || byte == 10) text += '-';
    text += kDigits[uuid[byte] >> 4U];
    text += kDigits[uuid[byte] & 0xfU];
  }
  return text;
}

}  // namespace

Answer<std::string> readSystemUuid(const std::string& sys, const std::string& etc) {
  const std::string machineId = etc + "/machine-id";
  auto uuid = readUuid(sys + "/class/dmi/id/product_uuid");
  if (!uuid) uuid = readUuid(machineId);
  if (!uuid) return {{ENOENT, "neither the firmware nor " + machineId + " names this machine"}, {}};
  std::string value(uuid->begin(), uuid->end());
  value += textOf(*uuid);
  value.resize(VSI_SYSTEM_UUID_SIZE, '\0');
  return {{}, std::move(value)};
}

}  // namespace platform
