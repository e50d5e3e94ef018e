#include "linux/actionTrail.h"

#include "host/files.h"
#include "platform/audit.h"

namespace platform {

Outcome recordAction(const char* record, const std::string& text) {
  const int status = KrvAudit_Log(record, nullptr, text.c_str(), true);
  if (status == 0) return {};
  return {status, "the audit trail cannot be written: " + errnoText(status)};
}

}  // namespace platform
