#include "observation.h"

#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace support {

KelEmit::Argument s(std::string text) {
  return text;
}
KelEmit::Argument null() {
  return KelEmit::NullText{};
}
KelEmit::Argument i(std::int32_t value) {
  return value;
}
KelEmit::Argument u(std::uint32_t value) {
  return value;
}
KelEmit::Argument l(std::int64_t value) {
  return value;
}
KelEmit::Argument L(std::uint64_t value) {
  return value;
}
KelEmit::Argument d(double value) {
  return value;
}

std::vector<char> rawRecord(const std::string& id, const std::vector<KelEmit::Argument>& arguments,
                            const std::string& message, std::uint64_t timestampUs) {
  KelEmit::Observation observation{id, std::nullopt, arguments, timestampUs};
  if (!message.empty()) observation.message = message;
  std::vector<char> batch;
  if (KelEmit::appendRecord(observation, batch) != 0)
    throw std::invalid_argument("observation cannot be encoded: " + id);
  return batch;
}

KelPtr observation(const std::string& id, const std::vector<KelEmit::Argument>& arguments, const std::string& message) {
  const std::vector<char> record = rawRecord(id, arguments, message);
  auto* copy = static_cast<char*>(std::malloc(record.size()));
  if (copy == nullptr) throw std::bad_alloc();
  std::memcpy(copy, record.data(), record.size());
  Kel* kel = Kel_MakeKel(copy, record.size());
  if (kel == nullptr) {
    std::free(copy);
    throw std::invalid_argument("not an observation: " + id);
  }
  return KelPtr(kel);
}

}  // namespace support
