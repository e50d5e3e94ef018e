// Event records as text: the message of an event is not sent, but known by the event's name.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "catalog.h"
#include "json.h"
#include "msgfmt/eventRecord.h"

namespace kelctl {

/// True where the record's arguments are as many as the placeholders of the template, each of its kind.
bool argumentsFit(const std::string& messageTemplate, const std::vector<KelEmit::Argument>& arguments);

/// The templates of all events by name.
class EventTexts {
 public:
  explicit EventTexts(const std::vector<CatalogEntry>& entries);

  /// The message: by the event's first template that fits, else the name and the arguments.
  [[nodiscard]] std::string textOf(const platform::EventRecord& record) const;

 private:
  std::map<std::string, std::vector<std::string>, std::less<>> templates_;
};

/// Those of the catalogue's events, made once.
const EventTexts& knownEventTexts();

/// The record as one JSON object in one line: time_us, kind, event, text, args, host (hexadecimal).
std::string eventJson(const platform::EventRecord& record, const std::string& text);

/// Microseconds since the epoch as "2026-01-01T00:00:00.000000Z".
std::string utcTime(std::uint64_t microseconds);

}  // namespace kelctl
