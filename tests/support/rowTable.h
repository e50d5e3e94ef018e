// The tables under tests/data: one observation a line and what becomes of it.
//
// Columns, parted by one tab; trailing empty ones may be left out:
//   observation   the identifier
//   arguments     as "kelctl emit" takes them
//   kind          see RowKind
//   event, text   empty where nothing is posted
//   log           what the daemon logs beside its lines of the observation and of the event
//   without last  what it logs where the last argument is missing, and then posts nothing; "-" where
//                 such an observation is not to be tried
// A line whose observation and arguments are empty is a further event of the observation above it.
// In the last three columns \t, \n, \s and \\ stand for a tab, a line feed, a blank and a backslash.
// A line "model", a tab and JSON puts a model of the host in force for the rows that follow; a line
// that begins with '#' is a remark. Rows are made to be sent in their order to a fresh correlator.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/kelemit.h"
#include "recordingPost.h"

namespace support {

enum class RowKind {
  problem,
  audit,
  clear,
  queued,   ///< a problem that goes to the retry queue without an attempt to send it
  none,     ///< has a handler, which posts nothing
  unknown,  ///< goes to the default handler, which posts nothing
};

struct Row {
  std::string model;  ///< of the host, JSON
  std::string id;
  std::vector<KelEmit::Argument> arguments;
  RowKind kind = RowKind::none;
  std::string event;
  std::string text;
  std::string log;
  /// What is logged without the last argument; none where that is not to be tried.
  std::optional<std::string> withoutLast;
  /// The events that the same observation posts after this one: kind, event and text.
  std::vector<Row> further;

  [[nodiscard]] bool posts() const { return kind != RowKind::none && kind != RowKind::unknown; }
  /// The arguments less the last one.
  [[nodiscard]] std::vector<KelEmit::Argument> shortened() const;
};

/// The rows of `file`. Throws std::runtime_error, naming the line, where it is no such table; an
/// event's name has to begin as its kind demands, and the last row has to post.
std::vector<Row> loadRows(const std::string& file);

/// What a RecordingPost holds after a row that posts.
PostedEvent posted(const Row& row);

}  // namespace support
