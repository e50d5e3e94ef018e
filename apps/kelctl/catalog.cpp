#include "catalog.h"

#include <fmt/format.h>

#include "glob.h"
#include "keldCorrelator.h"
#include "keldTestCorrelator.h"

namespace kelctl {

namespace {

std::string_view kindName(keld::VProbKind kind) {
  switch (kind) {
    case keld::VProbKind::problem:
      return "problem";
    case keld::VProbKind::audit:
      return "audit";
    case keld::VProbKind::clear:
      break;
  }
  return "clear";
}

CatalogEvent eventOf(keld::VProbKind kind, std::string_view marked) {
  return {kindName(kind), keld::eventName(marked), keld::eventMessage(marked)};
}

std::string joined(const std::vector<std::string_view>& words) {
  std::string text;
  for (const std::string_view word : words) text.append(text.empty() ? "" : ", ").append(word);
  return text;
}

void add(const keld::CorrelatorInfo& correlator, const std::vector<std::string>& globs,
         std::vector<CatalogEntry>& entries) {
  for (const keld::Row& row : correlator.rows) {
    if (!matchesAny(globs, std::string(row.observation))) continue;
    entries.push_back({row.observation, correlator.nameWord, readArguments(row.read), {eventOf(row.kind, row.text)}});
  }
  for (const keld::Judged& judged : correlator.judged) {
    if (!matchesAny(globs, std::string(judged.observation))) continue;
    CatalogEntry entry{judged.observation, correlator.nameWord, readArguments(judged.read), {}};
    for (const keld::EventInfo* event : judged.events) entry.events.push_back(eventOf(event->kind, event->text));
    entries.push_back(std::move(entry));
  }
}

/// Text as a cell of a table shows it: what Markdown would take for its own is escaped.
std::string cell(std::string_view text) {
  constexpr std::string_view kSpecial = "|\\`*_<>[]~";
  std::string shown;
  for (const char c : text) {
    if (kSpecial.find(c) != std::string_view::npos) shown += '\\';
    shown += c == '\n' ? ' ' : c;
  }
  return shown;
}

}  // namespace

std::vector<std::string_view> readArguments(std::string_view read) {
  std::vector<std::string_view> arguments;
  if (read.find('%') == std::string_view::npos) {
    for (const char letter : read) arguments.emplace_back(letter == 's' ? "string" : "integer");
    return arguments;
  }
  for (std::size_t at = read.find('%'); at != std::string_view::npos; at = read.find('%', at + 1)) {
    const std::string_view conversion =
        read.substr(std::min(read.find_first_not_of("#-+ .0123456789", at + 1), read.size()));
    if (conversion.starts_with('p') || conversion.starts_with('s')) {
      arguments.emplace_back("string");
    } else if (conversion.starts_with('l')) {
      arguments.emplace_back("int64");
    } else {
      arguments.emplace_back(conversion.starts_with('h') ? "int16" : "int32");
    }
  }
  return arguments;
}

std::vector<CatalogEntry> catalog(const std::vector<std::string>& globs) {
  std::vector<CatalogEntry> entries;
  for (const keld::CorrelatorInfo* correlator : keld::correlators()) add(*correlator, globs, entries);
  add(keld::kTestCorrelator, globs, entries);
  return entries;
}

Json catalogJson(const std::vector<CatalogEntry>& entries) {
  Json all = Json::array();
  for (const CatalogEntry& entry : entries) {
    Json events = Json::array();
    for (const CatalogEvent& event : entry.events) {
      events.push_back({{"kind", event.kind}, {"event", event.name}, {"text", event.message}});
    }
    all.push_back({{"observation", entry.observation},
                   {"correlator", entry.correlator},
                   {"arguments", entry.arguments},
                   {"events", std::move(events)}});
  }
  return all;
}

std::string catalogMarkdown(const std::vector<CatalogEntry>& entries) {
  std::string text = "# Observations and events\n";
  std::string_view correlator;
  for (const CatalogEntry& entry : entries) {
    if (entry.correlator != correlator) {
      correlator = entry.correlator;
      text += fmt::format("\n## {}\n\n| Observation | Arguments | Kind | Event | Text |\n|---|---|---|---|---|\n",
                          correlator);
    }
    const std::string first = fmt::format("| `{}` | {} ", entry.observation, joined(entry.arguments));
    if (entry.events.empty()) text += first + "| | | |\n";
    bool isFirst = true;
    for (const CatalogEvent& event : entry.events) {
      text += isFirst ? first : "| | ";
      text += fmt::format("| {} | `{}` | {} |\n", event.kind, event.name, cell(event.message));
      isFirst = false;
    }
  }
  return text;
}

std::string catalogText(const std::vector<CatalogEntry>& entries) {
  std::string text;
  for (const CatalogEntry& entry : entries) {
    text += fmt::format("{} ({})\n", entry.observation, joined(entry.arguments));
    for (const CatalogEvent& event : entry.events) {
      text += fmt::format("  {:<8}{}\n          {}\n", event.kind, event.name, event.message);
    }
  }
  return text;
}

}  // namespace kelctl
