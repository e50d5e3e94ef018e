// Reading an observation's arguments one after the other.
#pragma once

#include <cstdint>
#include <string>

#include "platform/kel.h"

namespace keld {

/// Reads arguments in order; one failed read fails all. A null text reads as an empty one.
class Arguments {
 public:
  explicit Arguments(const Kel* observation) : observation_(observation) {}

  std::string text() {
    const char* value = nullptr;
    failed_ |= Kel_GetStringArg(observation_, next_++, &value) != 0;
    return value != nullptr ? value : "";
  }
  std::int32_t integer() {
    std::int64_t value = 0;
    failed_ |= Kel_GetIntArg(observation_, next_++, &value) != 0;
    return static_cast<std::int32_t>(value);
  }
  [[nodiscard]] bool failed() const { return failed_; }

 private:
  const Kel* observation_;
  unsigned next_ = 0;
  bool failed_ = false;
};

/// The observation's identifier. Where it has none that is logged, and nullptr returned.
const char* identifierOf(const Kel* observation);

}  // namespace keld
