// The catalogue of what the daemon translates, from the correlators' own tables.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "json.h"

namespace kelctl {

struct CatalogEvent {
  std::string_view kind;  ///< "problem", "audit" or "clear"
  std::string_view name;
  std::string_view message;  ///< a template
};

struct CatalogEntry {
  std::string_view observation;
  std::string_view correlator;
  std::vector<std::string_view> arguments;  ///< "string", "int16", "int32", "int64", or "integer" of any size
  std::vector<CatalogEvent> events;
};

/// What a reading ("%p %d", or "si" by index) reads, in order.
std::vector<std::string_view> readArguments(std::string_view read);

/// Every observation that matches one of `globs` (all where there are none), by correlator in the
/// order in which the daemon starts them, then those of the self-test's. Its texts live as long as the
/// process.
std::vector<CatalogEntry> catalog(const std::vector<std::string>& globs = {});

/// One array of objects: observation, correlator, arguments, events of kind, event and text.
Json catalogJson(const std::vector<CatalogEntry>& entries);
/// One table per correlator.
std::string catalogMarkdown(const std::vector<CatalogEntry>& entries);
/// For reading.
std::string catalogText(const std::vector<CatalogEntry>& entries);

}  // namespace kelctl
