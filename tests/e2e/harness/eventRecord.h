// An event record as it arrives at the management agent, decoded from its byte table.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace e2e {

struct EventArgument {
  std::uint32_t type = 0;
  std::uint64_t value = 0;  ///< as it stands in the entry
  std::string text;         ///< of a string
  bool null = false;        ///< a string that is none
};

/// The fields of one record, each read at its offset; little-endian.
struct EventRecord {
  std::string bytes;
  std::uint64_t timestampUs = 0;
  std::string hostIdentity;  ///< 38 bytes
  std::uint16_t padding = 0;
  std::uint32_t totalLength = 0;
  std::uint32_t argumentCount = 0;
  std::uint32_t nameLength = 0;
  std::string name;
  std::size_t argumentAreaBytes = 0;
  std::vector<EventArgument> arguments;
  std::string tail;  ///< the last four bytes
};

/// Decodes what one connection brought. Throws HarnessError where it is no record.
EventRecord decodeEventRecord(const std::string& bytes);

/// The arguments as a trace line has them: each with a comma before it.
std::string traceArguments(const std::vector<EventArgument>& arguments);

}  // namespace e2e
