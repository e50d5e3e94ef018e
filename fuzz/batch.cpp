// A batch from a socket: what the observation library checks before the daemon walks it.
// Input: one byte, even for a privileged sender; the batch.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

#include "kel/batch.h"
#include "platform/kel.h"

namespace {

void require(bool condition) {
  if (!condition) std::abort();
}

/// What the daemon relies on: the length at offset 16 and the identifier at 32 of every record.
void walk(const std::vector<char>& batch, bool privileged) {
  std::size_t at = 0;
  while (at < batch.size()) {
    std::uint32_t length = 0;
    require(batch.size() - at >= 34);
    std::memcpy(&length, batch.data() + at + 16, sizeof length);
    require(length >= 34 && length <= batch.size() - at);
    const std::string_view id(batch.data() + at + 32);
    require(!id.empty() && 32 + id.size() < length);
    require(privileged || id.starts_with("kel.user.") || id.starts_with("kel.external."));
    Kel_RecordView view;
    require(Kel_ViewRecord(batch.data() + at, length, &view) && view.id == id.data());
    at += length;
  }
  require(at == batch.size() && at != 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const bool privileged = data[0] % 2 == 0;
  // An allocation of its own, so that a read beyond the batch is seen.
  const std::vector<char> batch(data + 1, data + size);
  const platform::Emitter emitter = privileged ? platform::Emitter::privileged : platform::Emitter::unprivileged;
  if (platform::checkBatch(batch.data(), batch.size(), emitter) == platform::BatchVerdict::sound) {
    walk(batch, privileged);
  }
  return 0;
}
