#include <bit>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <limits>

#include "kel/record.h"
#include "platform/clock.h"
#include "platform/kelemit.h"
#include "platform/msgfmt.h"

namespace KelEmit {

namespace {

using platform::RecordHeader;

std::uint64_t nowMicroseconds() {
  const auto now = std::chrono::floor<std::chrono::microseconds>(systemClock().wall());
  return static_cast<std::uint64_t>(now.time_since_epoch().count());
}

bool holdsNul(const std::string& text) {
  return text.find('\0') != std::string::npos;
}

std::size_t textBytes(const Argument& argument) {
  const auto* text = std::get_if<std::string>(&argument);
  return text != nullptr ? text->size() + 1 : 0;
}

/// The entry of an argument whose text, if it has one, is placed at `textOffset` of the area.
struct EntryOf {
  std::uint64_t textOffset;

  static MsgFmt_Arg entry(MsgFmt_ArgType type, std::uint64_t value, std::uint32_t flags = 0) {
    MsgFmt_Arg made;
    made.type = type;
    made.flags = flags;
    made.value = value;
    return made;
  }

  MsgFmt_Arg operator()(const std::string& /*text*/) const { return entry(MSGFMT_ARG_STRING8, textOffset); }
  MsgFmt_Arg operator()(NullText /*none*/) const { return entry(MSGFMT_ARG_STRING8, 0); }
  MsgFmt_Arg operator()(std::int32_t value) const { return entry(MSGFMT_ARG_INT32, static_cast<std::uint32_t>(value)); }
  MsgFmt_Arg operator()(std::uint32_t value) const { return entry(MSGFMT_ARG_INT32, value, MSGFMT_FLAG_UNSIGNED); }
  MsgFmt_Arg operator()(std::int64_t value) const { return entry(MSGFMT_ARG_INT64, static_cast<std::uint64_t>(value)); }
  MsgFmt_Arg operator()(std::uint64_t value) const { return entry(MSGFMT_ARG_INT64, value, MSGFMT_FLAG_UNSIGNED); }
  MsgFmt_Arg operator()(double value) const { return entry(MSGFMT_ARG_FLOAT64, std::bit_cast<std::uint64_t>(value)); }
};

}  // namespace

int appendRecord(const Observation& observation, std::vector<char>& batch) {
  const std::string& message = observation.message ? *observation.message : observation.id;
  if (holdsNul(observation.id) || holdsNul(message)) return EINVAL;
  std::size_t texts = 0;
  for (const Argument& argument : observation.arguments) {
    const auto* text = std::get_if<std::string>(&argument);
    if (text != nullptr && holdsNul(*text)) return EINVAL;
    texts += textBytes(argument);
  }
  const std::size_t count = observation.arguments.size();
  const std::size_t messageOffset = platform::kRecordHeaderBytes + observation.id.size() + 1;
  const std::size_t argumentOffset = messageOffset + message.size() + 1;
  const std::size_t length = argumentOffset + count * sizeof(MsgFmt_Arg) + texts;
  if (length > std::numeric_limits<std::uint32_t>::max()) return EMSGSIZE;

  const std::size_t start = batch.size();
  batch.resize(start + length);
  char* record = batch.data() + start;
  RecordHeader header;
  header.timestamp = observation.timestamp ? *observation.timestamp : nowMicroseconds();
  header.argumentCount = static_cast<std::uint32_t>(count);
  header.argumentOffset = static_cast<std::uint32_t>(argumentOffset);
  header.length = static_cast<std::uint32_t>(length);
  header.messageOffset = static_cast<std::uint32_t>(messageOffset);
  std::memcpy(record, &header, sizeof header);
  std::memcpy(record + platform::kRecordHeaderBytes, observation.id.c_str(), observation.id.size() + 1);
  std::memcpy(record + messageOffset, message.c_str(), message.size() + 1);

  char* area = record + argumentOffset;
  std::size_t textOffset = count * sizeof(MsgFmt_Arg);
  for (std::size_t index = 0; index < count; ++index) {
    const Argument& argument = observation.arguments[index];
    const MsgFmt_Arg entry = std::visit(EntryOf{textOffset}, argument);
    std::memcpy(area + index * sizeof(MsgFmt_Arg), &entry, sizeof entry);
    if (const auto* text = std::get_if<std::string>(&argument)) {
      std::memcpy(area + textOffset, text->c_str(), text->size() + 1);
      textOffset += text->size() + 1;
    }
  }
  return 0;
}

}  // namespace KelEmit
