// What a connection to the event socket brought, decoded as the management agent does it.
#include "msgfmt/eventRecord.h"

#include <cstdint>
#include <cstdlib>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // An allocation of its own, so that a read beyond the record is seen.
  const std::vector<char> bytes(data, data + size);
  const auto decoded = platform::decodeEventRecord(bytes);
  if (const auto* record = std::get_if<platform::EventRecord>(&decoded)) {
    if (record->name.size() >= platform::kMaxEventNameBytes) std::abort();
    (void)record->text("%s %d %5.3s %p %lu %f %*d %s");
  } else if (std::get<platform::EventRecordError>(decoded).reason.empty()) {
    std::abort();
  }
  return 0;
}
