#include "rowTable.h"

#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>

#include "emitWords.h"
#include "words.h"

namespace support {
namespace {

constexpr std::size_t kColumns = 7;
constexpr const char* kNotTried = "-";

const std::map<std::string, RowKind> kKinds{{"problem", RowKind::problem}, {"audit", RowKind::audit},
                                            {"clear", RowKind::clear},     {"queued", RowKind::queued},
                                            {"none", RowKind::none},       {"unknown", RowKind::unknown}};

std::string eventPrefix(RowKind kind) {
  switch (kind) {
    case RowKind::problem:
    case RowKind::queued:
      return "orn.problem.";
    case RowKind::audit:
      return "orn.audit.";
    case RowKind::clear:
      return "orn.clear.";
    case RowKind::none:
    case RowKind::unknown:
      break;
  }
  return {};
}

std::vector<std::string> columnsOf(const std::string& line) {
  std::vector<std::string> columns;
  std::istringstream in(line);
  for (std::string column; std::getline(in, column, '\t');) columns.push_back(column);
  if (columns.size() > kColumns) throw std::runtime_error("too many columns");
  columns.resize(kColumns);
  return columns;
}

std::string plain(const std::string& escaped) {
  static const std::map<char, char> kMeanings{{'t', '\t'}, {'n', '\n'}, {'s', ' '}, {'\\', '\\'}};
  std::string text;
  for (std::size_t at = 0; at < escaped.size(); ++at) {
    text += escaped[at] == '\\' && at + 1 < escaped.size() ? kMeanings.at(escaped[++at]) : escaped[at];
  }
  return text;
}

template <typename Value>
Value understood(std::variant<Value, kelctl::WordsError> read) {
  if (const auto* error = std::get_if<kelctl::WordsError>(&read)) throw std::runtime_error(error->reason);
  return std::get<Value>(std::move(read));
}

/// The kind, event and text of a line.
Row eventOf(const std::vector<std::string>& columns) {
  Row row;
  row.kind = kKinds.at(columns[2]);
  row.event = columns[3];
  row.text = plain(columns[4]);
  if (row.posts() == row.event.empty() || !row.event.starts_with(eventPrefix(row.kind)))
    throw std::runtime_error("the event does not fit the kind");
  return row;
}

Row rowOf(const std::vector<std::string>& columns) {
  const auto words = understood(kelctl::splitWords(columns[0] + " " + columns[1]));
  kelctl::EmitWords emitted = understood(kelctl::parseEmitWords(words));
  Row row = eventOf(columns);
  row.id = emitted.id.value();
  row.arguments = std::move(emitted.arguments);
  row.log = plain(columns[5]);
  if (row.posts() && !row.arguments.empty() && columns[6] != kNotTried) row.withoutLast = plain(columns[6]);
  return row;
}

void addLine(std::vector<Row>& rows, const std::string& line) {
  const std::vector<std::string> columns = columnsOf(line);
  if (!columns[0].empty()) {
    rows.push_back(rowOf(columns));
    return;
  }
  Row further = eventOf(columns);
  if (rows.empty() || !rows.back().posts() || !further.posts())
    throw std::runtime_error("a further event needs one before it");
  if (!columns[1].empty() || !columns[5].empty() || !columns[6].empty())
    throw std::runtime_error("a further event has a kind, a name and a text only");
  rows.back().further.push_back(std::move(further));
}

}  // namespace

std::vector<KelEmit::Argument> Row::shortened() const {
  return {arguments.begin(), arguments.end() - 1};
}

std::vector<Row> loadRows(const std::string& file) {
  const std::string kModel = "model\t";
  std::ifstream table(file);
  std::vector<Row> rows;
  std::string model = "{}";
  std::size_t number = 0;
  for (std::string line; std::getline(table, line);) {
    ++number;
    if (line.empty() || line[0] == '#') continue;
    if (line.starts_with(kModel)) {
      model = line.substr(kModel.size());
      continue;
    }
    try {
      addLine(rows, line);
    } catch (const std::exception& trouble) {
      throw std::runtime_error(file + ":" + std::to_string(number) + ": " + trouble.what());
    }
    rows.back().model = model;
  }
  if (rows.empty() || !rows.back().posts()) throw std::runtime_error(file + ": the last row does not post");
  return rows;
}

PostedEvent posted(const Row& row) {
  const auto kind = row.kind == RowKind::audit   ? keld::VProbKind::audit
                    : row.kind == RowKind::clear ? keld::VProbKind::clear
                                                 : keld::VProbKind::problem;
  return {kind, row.event, row.text, row.kind == RowKind::queued};
}

}  // namespace support
