#include <charconv>
#include <cstring>

#include "keldLog.h"
#include "keldStream.h"
#include "keldTrace.h"
#include "keldVprobRecord.h"
#include "platform/kel.h"
#include "platform/msgfmt.h"

namespace keld {

namespace {

template <typename Integer>
void appendNumber(std::string& line, Integer value) {
  char digits[24];
  const auto [end, error] = std::to_chars(digits, digits + sizeof digits, value);
  line.append(digits, end);
}

void appendTime(std::string& line, WallTime moment) {
  constexpr std::size_t kNanosecondDigits = 9;
  const auto second = std::chrono::floor<std::chrono::seconds>(moment);
  appendNumber(line, second.time_since_epoch().count());
  line += '.';
  char digits[24];
  const auto [end, error] = std::to_chars(digits, digits + sizeof digits, (moment - second).count());
  line.append(kNanosecondDigits - static_cast<std::size_t>(end - digits), '0');
  line.append(digits, end);
}

void appendQuoted(std::string& line, const char* text) {
  line += '"';
  for (const char* at = text; *at != '\0'; ++at) {
    if (*at == '"') line += '"';
    line += *at;
  }
  line += '"';
}

}  // namespace

void renderTraceLine(std::string& line, WallTime renderedAt, const char* direction, std::uint64_t timestampUs,
                     const char* id, const void* arguments, std::uint32_t count, const void* end) {
  line.clear();
  appendTime(line, renderedAt);
  line += ',';
  line += direction;
  line += ',';
  appendNumber(line, timestampUs);
  line += ',';
  line += id;
  line += ',';
  for (std::uint32_t n = 0; n < count; ++n) {
    const MsgFmt_Arg argument = MsgFmt_LoadArg(arguments, n);
    if (argument.type == MSGFMT_ARG_STRING8) {
      const char* text = nullptr;
      if (!MsgFmt_GetSwizzledString(arguments, n, end, &text)) {
        Log("Invalid argument in kel with ID %s", id);
        break;
      }
      line += ',';
      appendQuoted(line, text != nullptr ? text : "(null)");
      continue;
    }
    switch (argument.type) {
      case MSGFMT_ARG_INT32:
        line += ',';
        appendNumber(line, static_cast<std::int32_t>(static_cast<std::uint32_t>(argument.value)));
        break;
      case MSGFMT_ARG_INT64:
        line += ',';
        appendNumber(line, static_cast<std::int64_t>(argument.value));
        break;
      case MSGFMT_ARG_PTR32:
        line += ',';
        appendNumber(line, static_cast<std::uint32_t>(argument.value));
        break;
      case MSGFMT_ARG_PTR64:
        line += ',';
        appendNumber(line, argument.value);
        break;
      default:
        line += ",???";
        break;
    }
  }
  line += '\n';
}

void TraceServer::Trace_Render(const char* direction, std::uint64_t timestampUs, const char* id, const void* arguments,
                               std::uint32_t count, const void* end) {
  // Kept from line to line, so that tracing allocates nothing once the longest line has passed.
  static thread_local std::string line;
  renderTraceLine(line, clock_.wall(), direction, timestampUs, id, arguments, count, end);
  Trace_AddLine(line);
}

void renderTraceEvent(std::string& line, WallTime renderedAt, const void* record) {
  const auto* bytes = static_cast<const char*>(record);
  const auto nameLength = record::load<std::uint32_t>(record, record::kNameLength);
  renderTraceLine(line, renderedAt, "OUT", record::load<std::uint64_t>(record, record::kTimestamp),
                  bytes + record::kName, bytes + record::kName + nameLength,
                  record::load<std::uint32_t>(record, record::kArgumentCount),
                  bytes + record::load<std::uint32_t>(record, record::kTotalLength));
}

void TraceServer::Trace_Event(const void* record) {
  static thread_local std::string line;
  renderTraceEvent(line, clock_.wall(), record);
  Trace_AddLine(line);
}

void TraceServer::Trace_Observation(const void* record, std::size_t length) {
  Kel_RecordView view;
  if (!Kel_ViewRecord(record, length, &view)) {
    // No library hands such a record on; what is certain of it is its identifier.
    Trace_Render("IN", 0, static_cast<const char*>(record) + kRecordHeaderSize, nullptr, 0, nullptr);
    return;
  }
  Trace_Render("IN", view.timestamp, view.id, view.arguments, view.argumentCount, view.end);
}

}  // namespace keld
