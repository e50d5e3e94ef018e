#include "eventRecord.h"

#include <cstring>

#include "deadline.h"

namespace e2e {
namespace {

constexpr std::size_t kNameOffset = 68;
constexpr std::size_t kEntryBytes = 32;
constexpr std::size_t kTailBytes = 4;

template <typename Integer>
Integer at(const std::string& bytes, std::size_t offset) {
  if (offset + sizeof(Integer) > bytes.size()) throw HarnessError("event record too short");
  Integer value = 0;
  for (std::size_t n = 0; n < sizeof(Integer); ++n) {
    value = static_cast<Integer>(
        value | static_cast<Integer>(Integer{static_cast<unsigned char>(bytes[offset + n])} << (8 * n)));
  }
  return value;
}

std::string textAt(const std::string& area, std::size_t offset) {
  const std::size_t end = area.find('\0', offset);
  if (offset >= area.size() || end == std::string::npos) throw HarnessError("event record's string leaves its area");
  return area.substr(offset, end - offset);
}

}  // namespace

EventRecord decodeEventRecord(const std::string& bytes) {
  EventRecord record;
  record.bytes = bytes;
  record.timestampUs = at<std::uint64_t>(bytes, 0);
  record.hostIdentity = bytes.substr(16, 38);
  record.padding = at<std::uint16_t>(bytes, 54);
  record.totalLength = at<std::uint32_t>(bytes, 56);
  record.argumentCount = at<std::uint32_t>(bytes, 60);
  record.nameLength = at<std::uint32_t>(bytes, 64);
  const std::size_t areaOffset = kNameOffset + record.nameLength;
  if (record.totalLength > bytes.size() || record.nameLength == 0 || areaOffset + kTailBytes > record.totalLength) {
    throw HarnessError("event record's lengths do not fit");
  }
  if (bytes[areaOffset - 1] != '\0') throw HarnessError("event record's name is not terminated");
  record.name = bytes.substr(kNameOffset, record.nameLength - 1);
  record.argumentAreaBytes = record.totalLength - kTailBytes - areaOffset;
  record.tail = bytes.substr(record.totalLength - kTailBytes, kTailBytes);
  const std::string area = bytes.substr(areaOffset, record.argumentAreaBytes);
  for (std::size_t n = 0; n < record.argumentCount; ++n) {
    EventArgument argument;
    argument.type = at<std::uint32_t>(area, n * kEntryBytes);
    argument.value = at<std::uint64_t>(area, n * kEntryBytes + 8);
    if (argument.type == 6) {
      argument.null = argument.value == 0;
      if (!argument.null) argument.text = textAt(area, argument.value);
    }
    record.arguments.push_back(argument);
  }
  return record;
}

std::string traceArguments(const std::vector<EventArgument>& arguments) {
  std::string line;
  for (const EventArgument& argument : arguments) {
    line += ',';
    switch (argument.type) {
      case 1:
        line += std::to_string(static_cast<std::int32_t>(argument.value));
        break;
      case 2:
        line += std::to_string(static_cast<std::int64_t>(argument.value));
        break;
      case 3:
        line += std::to_string(static_cast<std::uint32_t>(argument.value));
        break;
      case 4:
        line += std::to_string(argument.value);
        break;
      case 6:
        line += '"';
        for (const char c : argument.null ? "(null)" : argument.text) line += c == '"' ? "\"\"" : std::string(1, c);
        line += '"';
        break;
      default:
        line += "???";
    }
  }
  return line;
}

}  // namespace e2e
