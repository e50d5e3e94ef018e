#include "kel/batch.h"

#include <string_view>

#include "kel/record.h"
#include "platform/kel.h"

namespace platform {

namespace {

bool isOpenToAll(std::string_view id) {
  return id.starts_with("kel.user.") || id.starts_with("kel.external.");
}

}  // namespace

BatchVerdict checkBatch(const void* batch, std::size_t length, Emitter emitter) {
  const char* at = static_cast<const char*>(batch);
  const char* const end = at + length;
  if (at == end) return BatchVerdict::malformed;
  while (at != end) {
    const auto left = static_cast<std::size_t>(end - at);
    if (left < kRecordHeaderBytes) return BatchVerdict::malformed;
    const std::size_t recordLength = loadRecordHeader(at).length;
    Kel_RecordView view;
    if (recordLength > left || !Kel_ViewRecord(at, recordLength, &view) || *view.id == '\0') {
      return BatchVerdict::malformed;
    }
    if (emitter == Emitter::unprivileged && !isOpenToAll(view.id)) return BatchVerdict::forbidden;
    at += recordLength;
  }
  return BatchVerdict::sound;
}

}  // namespace platform
