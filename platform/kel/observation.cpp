// An observation is its checked record: making one allocates nothing, and every accessor finds its
// part through the header, which Kel_MakeKel has found sound.
#include <cstdarg>
#include <cstdlib>

#include "kel/extraction.h"
#include "kel/record.h"
#include "platform/kel.h"
#include "platform/msgfmt.h"

namespace {

using platform::RecordHeader;

const char* bytesOf(const Kel* observation) {
  return reinterpret_cast<const char*>(observation);
}

platform::ArgumentArea argumentsOf(const Kel* observation) {
  const char* record = bytesOf(observation);
  const RecordHeader header = platform::loadRecordHeader(record);
  return {record + header.argumentOffset, record + header.length, header.argumentCount};
}

}  // namespace

Kel* Kel_MakeKel(char* record, std::size_t length) {
  Kel_RecordView view;
  if (record == nullptr || !Kel_ViewRecord(record, length, &view)) return nullptr;
  return reinterpret_cast<Kel*>(record);
}

void Kel_Free(Kel* observation) {
  std::free(observation);
}

void Kel_GetID(const Kel* observation, const char** id) {
  const char* text = bytesOf(observation) + platform::kRecordHeaderBytes;
  *id = *text != '\0' ? text : nullptr;
}

bool Kel_IsID(const char* left, const char* right) {
  return left != nullptr && right != nullptr && std::strcmp(left, right) == 0;
}

int Kel_GetArgs(const Kel* observation, unsigned first, const char* format, ...) {
  const platform::ArgumentArea area = argumentsOf(observation);
  if (const int status = platform::checkExtraction(area, first, format); status != 0) return status;
  std::va_list outputs;
  va_start(outputs, format);
  platform::extract(area, first, format, outputs);
  va_end(outputs);
  return 0;
}

int Kel_GetIntArg(const Kel* observation, unsigned index, std::int64_t* value) {
  return platform::integerArgument(argumentsOf(observation), index, value);
}

int Kel_GetUintArg(const Kel* observation, unsigned index, std::uint64_t* value) {
  return platform::unsignedArgument(argumentsOf(observation), index, value);
}

int Kel_GetStringArg(const Kel* observation, unsigned index, const char** value) {
  return platform::stringArgument(argumentsOf(observation), index, value);
}

char* Kel_GetMsg(const Kel* observation) {
  const char* record = bytesOf(observation);
  const RecordHeader header = platform::loadRecordHeader(record);
  return MsgFmt_AsprintfSwizzled(nullptr, record + header.messageOffset, record + header.argumentOffset,
                                 header.length - header.argumentOffset, header.argumentCount);
}

std::uint64_t Kel_GetTimestamp(const Kel* observation) {
  return platform::loadRecordHeader(bytesOf(observation)).timestamp;
}
