// Observations for tests, as whole raw records.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/kel.h"
#include "platform/kelemit.h"

namespace support {

struct KelFree {
  void operator()(Kel* observation) const noexcept { Kel_Free(observation); }
};
using KelPtr = std::unique_ptr<Kel, KelFree>;

/// Arguments by type: s("nic0"), null(), i(1), u(2), l(3), L(4), d(0.5).
KelEmit::Argument s(std::string text);
KelEmit::Argument null();
KelEmit::Argument i(std::int32_t value);
KelEmit::Argument u(std::uint32_t value);
KelEmit::Argument l(std::int64_t value);
KelEmit::Argument L(std::uint64_t value);
KelEmit::Argument d(double value);

/// The raw record of an observation; its message template is `message`, or the identifier.
std::vector<char> rawRecord(const std::string& id, const std::vector<KelEmit::Argument>& arguments = {},
                            const std::string& message = {}, std::uint64_t timestampUs = 1'767'225'600'000'000);
/// The observation itself, made of that record.
KelPtr observation(const std::string& id, const std::vector<KelEmit::Argument>& arguments = {},
                   const std::string& message = {});

}  // namespace support
