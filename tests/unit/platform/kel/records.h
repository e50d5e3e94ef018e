// Raw records for the tests: sound ones, and one for each way of being malformed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "observation.h"
#include "platform/kel.h"
#include "platform/kelemit.h"

namespace records {

using Bytes = std::vector<char>;

/// Writes `value` at `offset`.
template <typename Number>
void put(Bytes& bytes, std::size_t offset, Number value) {
  std::memcpy(bytes.data() + offset, &value, sizeof value);
}

/// Where an entry's fields lie in the record of twoStrings().
inline constexpr std::size_t kArrayAt = 32 + 13 + 6;
inline constexpr std::size_t kTypeAt = kArrayAt;
inline constexpr std::size_t kValueAt = kArrayAt + 8;
inline constexpr std::size_t kSecondTypeAt = kArrayAt + 32;
inline constexpr std::size_t kSecondValueAt = kArrayAt + 40;

/// Identifier "kel.user.one", template "%s %s", arguments "ab" and "cde": 122 bytes.
Bytes twoStrings();

/// A sound record that is `length` bytes long.
Bytes ofLength(std::size_t length, const std::string& id = "kel.user.long");

/// `parts`, back to back.
Bytes batchOf(const std::vector<Bytes>& parts);

struct Malformed {
  std::string what;
  Bytes bytes;
};
/// Records that each break one rule, and are otherwise sound.
std::vector<Malformed> malformed();

}  // namespace records
