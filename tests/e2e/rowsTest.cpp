// Every translation of one observation into one event, from the identifier that goes in to the bytes,
// the log lines and the trace lines that come out.
#include <algorithm>
#include <fstream>
#include <sstream>

#include "endToEnd.h"

namespace e2e {
namespace {

struct Row {
  std::string id;
  Arguments arguments;
  std::string event;
  std::string text;
};

KelEmit::Argument argumentOf(const std::string& token) {
  const std::string value = token.substr(2);
  switch (token[0]) {
    case 's':
      return value;
    case 'n':
      return KelEmit::NullText{};
    case 'i':
      return static_cast<std::int32_t>(std::stoll(value, nullptr, 0));
    case 'u':
      return static_cast<std::uint32_t>(std::stoull(value, nullptr, 0));
    case 'l':
      return static_cast<std::int64_t>(std::stoll(value, nullptr, 0));
    case 'L':
      return static_cast<std::uint64_t>(std::stoull(value, nullptr, 0));
    case 'd':
      return std::stod(value);
    default:
      throw HarnessError("no argument: " + token);
  }
}

/// The field of a trace line, with its comma.
std::string traced(const KelEmit::Argument& argument) {
  struct Field {
    std::string operator()(const std::string& text) const { return ",\"" + text + '"'; }
    std::string operator()(KelEmit::NullText) const { return ",\"(null)\""; }
    std::string operator()(std::int32_t value) const { return "," + std::to_string(value); }
    std::string operator()(std::uint32_t value) const { return (*this)(static_cast<std::int32_t>(value)); }
    std::string operator()(std::int64_t value) const { return "," + std::to_string(value); }
    std::string operator()(std::uint64_t value) const { return (*this)(static_cast<std::int64_t>(value)); }
    std::string operator()(double) const { return ",???"; }
  };
  return std::visit(Field{}, argument);
}

std::vector<Row> loadRows(const std::string& file) {
  std::ifstream table(std::string(KELD_TEST_DATA) + "/" + file);
  std::vector<Row> rows;
  for (std::string line; std::getline(table, line);) {
    if (line.empty() || line[0] == '#') continue;
    Row row;
    std::istringstream columns(line);
    std::string tokens, kind;
    std::getline(columns, row.id, '\t');
    std::getline(columns, tokens, '\t');
    std::getline(columns, kind, '\t');
    std::getline(columns, row.event, '\t');
    std::getline(columns, row.text, '\t');
    std::istringstream words(tokens);
    for (std::string token; words >> token;) row.arguments.push_back(argumentOf(token));
    EXPECT_EQ(row.event.rfind("orn." + kind + ".", 0), 0U) << line;
    rows.push_back(row);
  }
  return rows;
}

struct Table {
  std::string file;
  std::string thread;
  std::string model;
};

class Rows : public EndToEnd, public testing::WithParamInterface<Table> {};

TEST_P(Rows, EachBecomesItsEventAtTheAgentInTheLogAndInTheTrace) {
  const std::vector<Row> rows = loadRows(GetParam().file);
  ASSERT_FALSE(rows.empty());
  workspace().setModel(GetParam().model);
  EventReceiver agent(workspace().eventSocket());
  Daemon daemon(workspace());
  daemon.startAndServe();
  const Emitter emitter = Emitter::toContext(workspace());
  for (std::size_t n = 0; n < rows.size(); ++n) {
    const Row& row = rows[n];
    SCOPED_TRACE(row.id);
    const std::uint64_t stampUs = kStampUs + n;
    emitter.send(record(row.id, row.arguments, {}, stampUs));

    const TraceLine in = daemon.trace().next(), out = daemon.trace().next();
    std::string arguments = ",";
    for (const KelEmit::Argument& argument : row.arguments) arguments += traced(argument);
    EXPECT_EQ(in.raw.substr(in.time.size()), ",IN," + std::to_string(stampUs) + "," + row.id + arguments);

    const EventRecord event = agent.waitForCount(n + 1).back();
    EXPECT_EQ(event.name, row.event);
    EXPECT_EQ(out.raw.substr(out.time.size()),
              ",OUT," + std::to_string(event.timestampUs) + "," + row.event + "," + traceArguments(event.arguments));

    log().waitFor(observationLine(GetParam().thread, stampUs, row.id, row.id));
    log().waitFor(observationLine(GetParam().thread, event.timestampUs, row.event, row.text));
  }
  ASSERT_TRUE(daemon.terminate().with(0));
  EXPECT_EQ(agent.count(), rows.size());
}

INSTANTIATE_TEST_SUITE_P(OneToOne, Rows,
                         testing::Values(Table{"net-rows.tsv", "netCorrelator",
                                               R"({"vms": [{"worldId": 1, "groupId": 12, "name": "web01"}]})"}),
                         [](const testing::TestParamInfo<Table>& table) {
                           return table.param.file.substr(0, table.param.file.find('-'));
                         });

}  // namespace
}  // namespace e2e
