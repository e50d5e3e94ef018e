// One raw record, made into an observation and read in every way there is.
// Input: the record; its length field is set right, so that inputs of any length get past it.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/kel.h"
#include "platform/msgfmt.h"

namespace {

void require(bool condition) {
  if (!condition) std::abort();
}

/// Lets the sanitizer see a string to its end.
void readThrough(const char* text) {
  if (text != nullptr) require(std::string(text).size() == std::strlen(text));
}

void readArguments(const Kel* observation, std::uint32_t count) {
  for (std::uint32_t index = 0; index <= count; ++index) {
    std::int64_t number = 0;
    const char* text = nullptr;
    const int asNumber = Kel_GetIntArg(observation, index, &number);
    const int asText = Kel_GetStringArg(observation, index, &text);
    require((index == count) == (asNumber == KEL_ERR_NO_ARGUMENT && asText == KEL_ERR_NO_ARGUMENT));
    require(asNumber != 0 || asText == KEL_ERR_ARGUMENT_TYPE);
    if (asText == 0) readThrough(text);

    signed char narrow = 0;
    long wide = 0;
    const char* again = nullptr;
    require(Kel_GetArgs(observation, index, "%hhd", &narrow) == asNumber);
    require(Kel_GetArgs(observation, index, "%ld", &wide) == asNumber);
    require(asNumber != 0 || (wide == number && narrow == static_cast<signed char>(number)));
    require(Kel_GetArgs(observation, index, "%p", &again) == asText && again == text);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 131071) return 0;
  auto* bytes = static_cast<char*>(std::malloc(size + (size == 0 ? 1 : 0)));
  require(bytes != nullptr);
  std::memcpy(bytes, data, size);
  const auto length = static_cast<std::uint32_t>(size);
  if (size >= 20) std::memcpy(bytes + 16, &length, sizeof length);

  Kel_RecordView view;
  const bool sound = Kel_ViewRecord(bytes, size, &view);
  Kel* observation = Kel_MakeKel(bytes, size);
  require(sound == (observation != nullptr));
  if (observation == nullptr) {
    std::free(bytes);
    return 0;
  }
  const char* id = nullptr;
  Kel_GetID(observation, &id);
  require(id == nullptr ? *view.id == '\0' : std::strcmp(id, view.id) == 0);
  require(Kel_GetTimestamp(observation) == view.timestamp);
  readArguments(observation, view.argumentCount);
  char* message = Kel_GetMsg(observation);
  require(message != nullptr);
  readThrough(message);
  std::free(message);
  Kel_Free(observation);
  return 0;
}
