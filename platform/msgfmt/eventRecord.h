// The event record as the management agent receives it: one per connection to the event socket.
// The agent's side, for the operator's tool and for tests; docs/formats/event-record.md has the bytes.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "platform/kelemit.h"

namespace platform {

/// Longest record that is ever sent, in bytes.
inline constexpr std::size_t kMaxEventRecordBytes = 18736;
/// Longest event name in bytes, with its NUL.
inline constexpr std::size_t kMaxEventNameBytes = 129;
/// Bytes of the host's system-UUID value that a record carries.
inline constexpr std::size_t kHostIdentityBytes = 38;

enum class EventKind { problem, audit, clear };

/// The kind's word: "problem", "audit" or "clear".
std::string_view eventKindName(EventKind kind);

/// What one record says. The message template is not sent: a receiver knows it by the name.
struct EventRecord {
  std::uint64_t timestamp = 0;  ///< microseconds since the epoch
  std::uint64_t kernelWord = 0;
  std::array<std::uint8_t, kHostIdentityBytes> hostIdentity{};
  EventKind kind = EventKind::problem;  ///< by the name's prefix
  std::string name;
  /// In order; a pointer-sized value is an unsigned integer of its width.
  std::vector<KelEmit::Argument> arguments;
  std::string argumentArea;  ///< the swizzled area itself

  /// The message, where `messageTemplate` is the event's template.
  [[nodiscard]] std::string text(const std::string& messageTemplate) const;
};

/// Why bytes are no event record, in one line without a line end.
struct EventRecordError {
  std::string reason;
};

/// Decodes what one connection brought, from any source. Bytes beyond the record's own length are
/// passed over: a sender whose socket took a record in pieces sends some of it twice.
std::variant<EventRecord, EventRecordError> decodeEventRecord(std::span<const char> bytes);

}  // namespace platform
