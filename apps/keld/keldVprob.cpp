#include "keldVprob.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <string_view>

#include "keldLog.h"
#include "keldVprobRecord.h"
#include "platform/msgfmt.h"
#include "platform/vsi.h"
#include "platform/vthread.h"

namespace keld {

namespace {

constexpr const char* kModule = "keldVprob";
constexpr std::size_t kFirstBufferSize = 1171;
constexpr int kMaxAttempts = 5;
constexpr std::size_t kMarkerLength = 8;
constexpr std::size_t kIdentityOffset = 16;  // in the host's system UUID value

struct Freed {
  void operator()(char* memory) const noexcept { std::free(memory); }
};
using Buffer = std::unique_ptr<char, Freed>;

/// What the template of a kind has before the identifier's remainder. Panics on any other kind.
struct Prefix {
  const char* text;
  std::size_t skip;
};

Prefix prefixOf(VProbKind kind) {
  const char* text = nullptr;
  switch (kind) {
    case VProbKind::problem:
      text = "orn.problem.";
      break;
    case VProbKind::audit:
      text = "orn.audit.";
      break;
    case VProbKind::clear:
      text = "orn.clear.";
      break;
  }
  if (text == nullptr) Panic("NOT_REACHED %s:%d\n", kModule, __LINE__);
  return {text, kMarkerLength + std::strlen(text)};
}

/// Writes the fields before the argument area; `length` is the name's with its NUL.
void fillHeader(char* record, const char* prefix, const char* remainder, std::uint32_t length,
                const std::array<char, 38>& hostIdentity, std::uint64_t timestampUs) {
  record::store(record, record::kNameLength, length);
  const std::size_t prefixLength = std::strlen(prefix);
  std::string_view(prefix).copy(record + record::kName, prefixLength);
  std::string_view(remainder).copy(record + record::kName + prefixLength, length - prefixLength);
  record::store(record, record::kArgumentCount, std::uint32_t{0});
  std::memcpy(record + record::kHostIdentity, hostIdentity.data(), hostIdentity.size());
  record::store(record, record::kTotalLength, static_cast<std::uint32_t>(length + record::kHeader));
  record::store(record, record::kTimestamp, timestampUs);
}

/// Collects the template's arguments behind the name, growing the record as they need it. Returns
/// false where they could not be collected: the record is then lost.
bool collectArguments(Buffer& record, const char* messageTemplate, std::va_list args, std::uint32_t* count,
                      std::size_t* used) {
  std::size_t size = kFirstBufferSize;
  for (int attempt = 0; attempt < kMaxAttempts; ++attempt) {
    const auto total = record::load<std::uint32_t>(record.get(), record::kTotalLength);
    const auto nameLength = record::load<std::uint32_t>(record.get(), record::kNameLength);
    std::va_list copy;
    va_copy(copy, args);
    *used = size - total;
    const bool collected =
        MsgFmt_GetArgsWithBuf(messageTemplate, copy, record.get() + record::kName + nameLength, used, count, nullptr);
    va_end(copy);
    if (collected) return true;
    char* grown = static_cast<char*>(std::realloc(record.get(), size * 2));
    if (grown == nullptr) {
      Log("Failed to allocate %zu bytes for prob buffer.", size * 2);
      return false;
    }
    static_cast<void>(record.release());
    record.reset(grown);
    size *= 2;
  }
  return false;
}

}  // namespace

bool RateLimit::allow(std::int64_t now) {
  const std::int64_t start = periodStart_.load();
  if (start == 0 || now - start >= kPeriodSeconds) {
    periodCount_.store(1);
    periodStart_.store(now);
    return true;
  }
  const std::int32_t count = periodCount_.load();
  if (count < std::numeric_limits<std::int32_t>::max()) periodCount_.fetch_add(1);
  return count < kMaxPosts;
}

void VProb::VProb_Init() {
  delivery_.createRetryTimer();
  std::array<char, VSI_SYSTEM_UUID_SIZE> uuid{};
  if (VSI_Get(VSI_NODE_system_systemUuid, nullptr, uuid.data(), uuid.size()) == QK_OK) {
    std::memcpy(hostIdentity_.data(), uuid.data() + kIdentityOffset, hostIdentity_.size());
  }
}

void VProb::post(bool queueOnly, VProbKind kind, const char* markedTemplate, std::va_list args) {
  const Prefix prefix = prefixOf(kind);
  // Kept blind: neither marker nor prefix is compared, the constants are trusted.
  const char* identifier = markedTemplate + prefix.skip;
  const char* end = std::strchr(identifier, ')');
  if (end == nullptr) end = identifier + std::strlen(identifier);
  const auto length = static_cast<std::size_t>(end - identifier);
  const Buffer remainder(static_cast<char*>(std::malloc(length + 1)));
  if (!remainder) Panic("MEM_ALLOC %s:%d\n", kModule, __LINE__);
  std::memcpy(remainder.get(), identifier, length);
  remainder.get()[length] = '\0';
  compose(queueOnly, prefix.text, remainder.get(), *end == ')' ? end + 1 : end, args);
}

void VProb::postUnmarked(const char* id, const char* messageTemplate, std::va_list args) {
  Log("Using discouraged \"Keld_PostProblem\" interface for vprob: %s", id);
  compose(false, "orn.problem.", id, messageTemplate, args);
}

void VProb::compose(bool queueOnly, const char* prefix, const char* remainder, const char* messageTemplate,
                    std::va_list args) {
  Buffer owned(static_cast<char*>(std::calloc(1, kFirstBufferSize)));
  if (!owned) {
    Log("Failed to allocate %zu bytes for prob buffer.\n", kFirstBufferSize);
    return;
  }
  const WallTime now = clock_.wall();
  if (!rateLimit_.allow(std::chrono::floor<std::chrono::seconds>(now.time_since_epoch()).count())) {
    Log("Event rate limit reached. Dropping vprob: %s%s\n", prefix, remainder);
    if (decisions_ != nullptr) {
      kEventDropped.report(decisions_, std::string(prefix) + remainder, RateLimit::kMaxPosts,
                           RateLimit::kPeriodSeconds);
    }
    return;
  }
  const std::size_t nameLength = std::strlen(prefix) + std::strlen(remainder) + 1;
  if (nameLength > record::kMaxNameLength) return;
  const auto timestampUs =
      static_cast<std::uint64_t>(std::chrono::floor<std::chrono::microseconds>(now.time_since_epoch()).count());
  fillHeader(owned.get(), prefix, remainder, static_cast<std::uint32_t>(nameLength), hostIdentity_, timestampUs);

  std::uint32_t count = 0;
  std::size_t used = 0;
  if (!collectArguments(owned, messageTemplate, args, &count, &used)) return;
  char* record = owned.get();
  const char* name = record + record::kName;
  char* area = record + record::kName + nameLength;
  const Buffer text(MsgFmt_Asprintf(nullptr, messageTemplate, area, count));
  logObservation(name, text.get(), timestampUs);

  MsgFmt_SwizzleArgs(area, used, count);
  record::store(record, record::kArgumentCount, count);
  const std::size_t total = record::kHeader + nameLength + used;
  record::store(record, record::kTotalLength, static_cast<std::uint32_t>(total));
  std::memset(area + used, 0, record::kHeader - record::kName);

  trace_.Trace_Event(record);
  if (queueOnly || delivery_.VProb_SendNow(record, total) != 0) {
    Log("An event (%s) could not be sent immediately to hagd; queueing for retry.", name);
    delivery_.VProb_Enqueue(record, total);
  }
}

}  // namespace keld
