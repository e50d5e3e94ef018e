#include "msgfmt/eventRecord.h"

#include <bit>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>

#include "msgfmt/entries.h"

namespace platform {

namespace {

constexpr std::size_t kTimestampOffset = 0;
constexpr std::size_t kKernelWordOffset = 8;
constexpr std::size_t kHostIdentityOffset = 16;
constexpr std::size_t kTotalLengthOffset = 56;
constexpr std::size_t kArgumentCountOffset = 60;
constexpr std::size_t kNameLengthOffset = 64;
constexpr std::size_t kNameOffset = 68;
constexpr std::size_t kTailBytes = 4;
/// What a record has besides its name and its argument area.
constexpr std::size_t kFixedBytes = kNameOffset + kTailBytes;

constexpr EventKind kKinds[] = {EventKind::problem, EventKind::audit, EventKind::clear};

template <typename T>
T load(std::span<const char> bytes, std::size_t offset) {
  T value;
  std::memcpy(&value, bytes.data() + offset, sizeof value);
  return value;
}

EventRecordError malformed(std::string reason) {
  return {std::move(reason)};
}

std::optional<EventKind> kindOf(std::string_view name) {
  for (const EventKind kind : kKinds) {
    const std::string prefix = "orn." + std::string(eventKindName(kind)) + ".";
    if (name.starts_with(prefix)) return kind;
  }
  return std::nullopt;
}

/// The value of an entry of a swizzled area whose array has `arrayBytes`; nothing where its type has
/// no value here or its string cannot be fetched.
std::optional<KelEmit::Argument> argumentOf(const MsgFmt_Arg& entry, std::span<const char> area,
                                            std::size_t arrayBytes) {
  const bool isUnsigned = (entry.flags & MSGFMT_FLAG_UNSIGNED) != 0;
  switch (entry.type) {
    case MSGFMT_ARG_INT32:
      if (isUnsigned) return static_cast<std::uint32_t>(entry.value);
      return static_cast<std::int32_t>(static_cast<std::uint32_t>(entry.value));
    case MSGFMT_ARG_INT64:
      if (isUnsigned) return entry.value;
      return static_cast<std::int64_t>(entry.value);
    case MSGFMT_ARG_PTR32:
      return static_cast<std::uint32_t>(entry.value);
    case MSGFMT_ARG_PTR64:
      return entry.value;
    case MSGFMT_ARG_FLOAT64:
      return std::bit_cast<double>(entry.value);
    case MSGFMT_ARG_STRING8: {
      const char* text = nullptr;
      std::size_t length = 0;
      if (!msgfmt::findSwizzledText(entry, area.data(), area.size(), arrayBytes, &text, &length)) return std::nullopt;
      if (text == nullptr) return KelEmit::NullText{};
      return std::string(text, length);
    }
    default:
      return std::nullopt;
  }
}

}  // namespace

std::string_view eventKindName(EventKind kind) {
  switch (kind) {
    case EventKind::problem:
      return "problem";
    case EventKind::audit:
      return "audit";
    case EventKind::clear:
      break;
  }
  return "clear";
}

std::string EventRecord::text(const std::string& messageTemplate) const {
  std::size_t length = 0;
  const std::unique_ptr<char, decltype(&std::free)> message(
      MsgFmt_AsprintfSwizzled(&length, messageTemplate.c_str(), argumentArea.data(), argumentArea.size(),
                              static_cast<std::uint32_t>(arguments.size())),
      &std::free);
  return message == nullptr ? std::string() : std::string(message.get(), length);
}

std::variant<EventRecord, EventRecordError> decodeEventRecord(std::span<const char> bytes) {
  if (bytes.size() < kFixedBytes) {
    return malformed("a record has at least " + std::to_string(kFixedBytes) + " bytes, this one has " +
                     std::to_string(bytes.size()));
  }
  const auto totalLength = load<std::uint32_t>(bytes, kTotalLengthOffset);
  const auto argumentCount = load<std::uint32_t>(bytes, kArgumentCountOffset);
  const auto nameLength = load<std::uint32_t>(bytes, kNameLengthOffset);
  if (totalLength > kMaxEventRecordBytes) {
    return malformed("a length of " + std::to_string(totalLength) + " bytes is beyond the longest record");
  }
  if (totalLength > bytes.size()) {
    return malformed("the record says " + std::to_string(totalLength) + " bytes, but " + std::to_string(bytes.size()) +
                     " arrived");
  }
  if (nameLength == 0 || nameLength > kMaxEventNameBytes) {
    return malformed("a name cannot have " + std::to_string(nameLength) + " bytes");
  }
  if (totalLength < kFixedBytes + nameLength) return malformed("the name reaches beyond the record");
  bytes = bytes.first(totalLength);

  const std::string_view name(bytes.data() + kNameOffset, nameLength - 1);
  if (bytes[kNameOffset + nameLength - 1] != '\0' || name.find('\0') != std::string_view::npos) {
    return malformed("the name does not end where its length says");
  }
  const std::optional<EventKind> kind = kindOf(name);
  if (!kind) return malformed("the name begins with no kind of event");

  const std::span<const char> area = bytes.subspan(kNameOffset + nameLength, totalLength - kFixedBytes - nameLength);
  if (argumentCount > area.size() / sizeof(MsgFmt_Arg)) {
    return malformed(std::to_string(argumentCount) + " arguments do not fit into " + std::to_string(area.size()) +
                     " bytes");
  }
  EventRecord record;
  record.timestamp = load<std::uint64_t>(bytes, kTimestampOffset);
  record.kernelWord = load<std::uint64_t>(bytes, kKernelWordOffset);
  std::memcpy(record.hostIdentity.data(), bytes.data() + kHostIdentityOffset, kHostIdentityBytes);
  record.kind = *kind;
  record.name = name;
  record.argumentArea.assign(area.begin(), area.end());
  record.arguments.reserve(argumentCount);
  for (std::uint32_t index = 0; index < argumentCount; ++index) {
    const MsgFmt_Arg entry = MsgFmt_LoadArg(area.data(), index);
    std::optional<KelEmit::Argument> argument = argumentOf(entry, area, argumentCount * sizeof(MsgFmt_Arg));
    if (!argument) {
      return malformed("argument " + std::to_string(index) + " has no usable value (type " +
                       std::to_string(entry.type) + ")");
    }
    record.arguments.push_back(std::move(*argument));
  }
  return record;
}

}  // namespace platform
