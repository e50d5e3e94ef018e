// Every translation of observations into events, from the identifier that goes in to the bytes, the
// log lines and the trace lines that come out.
#include "rowTable.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "endToEnd.h"

namespace e2e {
namespace {

using support::Row;
using support::RowKind;

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

std::string queued(const std::string& event) {
  return "An event (" + event + ") could not be sent immediately to hagd; queueing for retry.";
}

struct Table {
  std::string name;
  std::string thread;
};
void PrintTo(const Table& table, std::ostream* out) {
  *out << table.name;
}

std::vector<Row> loadTable(const Table& table) {
  return support::loadRows(std::string(KELD_TEST_DATA) + "/" + table.name + "-rows.tsv");
}

class Rows : public EndToEnd, public testing::WithParamInterface<Table> {
 protected:
  void SetUp() override {
    EndToEnd::SetUp();
    if (IsSkipped()) return;
    rows_ = loadTable(GetParam());
    workspace().setModel(rows_.front().model);
    agent_ = std::make_unique<EventReceiver>(workspace().eventSocket());
    daemon_ = std::make_unique<Daemon>(workspace());
    daemon_->startAndServe();
    emitter_ = std::make_unique<Emitter>(Emitter::toContext(workspace()));
  }
  [[nodiscard]] const std::vector<Row>& rows() const { return rows_; }

  /// Sends the row's observation and sees to what becomes of it.
  void follow(const Row& row) {
    SCOPED_TRACE(row.id);
    if (row.model != model_) workspace().setModel(model_ = row.model);
    const std::uint64_t stampUs = send(row.id, row.arguments);
    if (row.kind != RowKind::unknown) expectLine(observationLine(GetParam().thread, stampUs, row.id, row.id) + "\n");
    if (row.posts()) followEvent(row);
    for (const Row& further : row.further) followEvent(further);
    expectLine(row.log);
    if (!row.log.empty()) log().waitFor(row.log, [&](const LogLine& line) { return wholeText(line) == row.log; });
  }

  /// Sends the row's observation without its last argument.
  void followShortened(const Row& row) {
    SCOPED_TRACE(row.id + " without its last argument");
    const std::uint64_t stampUs = send(row.id, row.shortened());
    expectLine(observationLine(GetParam().thread, stampUs, row.id, row.id) + "\n");
    expectLine(row.withoutLast.value());
  }

  /// Ends the daemon; all that it did from the first observation on is what was expected.
  void expectNothingElse() {
    ASSERT_TRUE(daemon_->terminate().with(0));
    EXPECT_EQ(agent_->count(), sent_);
    log().waitFor("Exiting. rc:0");
    std::vector<std::string> lines;
    for (const LogLine& line : log().lines()) {
      if (line.stamp.empty() || (lines.empty() && wholeText(line) != expected_.at(0))) continue;
      lines.push_back(wholeText(line));
    }
    expected_.emplace_back("Exiting due to signal.\n");
    for (std::size_t n = 0; n < expected_.size(); ++n) {
      ASSERT_LT(n, lines.size()) << "not logged: " << expected_[n];
      ASSERT_EQ(lines[n], expected_[n]) << "after: " << (n == 0 ? "" : lines[n - 1]);
    }
  }

 private:
  static std::string wholeText(const LogLine& line) { return line.text + (line.lineFeed ? "\n" : ""); }

  void expectLine(const std::string& line) {
    if (!line.empty()) expected_.push_back(line);
  }

  std::uint64_t send(const std::string& id, const Arguments& arguments) {
    const std::uint64_t stampUs = ++stampUs_;
    emitter_->send(record(id, arguments, {}, stampUs));
    const TraceLine in = daemon_->trace().next();
    std::string fields = ",";
    for (const KelEmit::Argument& argument : arguments) fields += traced(argument);
    EXPECT_EQ(in.raw.substr(in.time.size()), ",IN," + std::to_string(stampUs) + "," + id + fields);
    return stampUs;
  }

  void followEvent(const Row& row) {
    const TraceLine out = daemon_->trace().next();
    EXPECT_EQ(out.direction, "OUT");
    EXPECT_EQ(out.id, row.event);
    if (row.kind != RowKind::queued) {
      const EventRecord event = agent_->waitForCount(++sent_).back();
      EXPECT_EQ(event.name, row.event);
      EXPECT_EQ(out.raw.substr(out.time.size()),
                ",OUT," + std::to_string(event.timestampUs) + "," + row.event + "," + traceArguments(event.arguments));
    }
    expectLine(observationLine(GetParam().thread, std::stoull(out.stamp), row.event, row.text) + "\n");
    if (row.kind == RowKind::queued) expectLine(queued(row.event));
  }

  std::vector<Row> rows_;
  std::string model_;
  std::unique_ptr<EventReceiver> agent_;
  std::unique_ptr<Daemon> daemon_;
  std::unique_ptr<Emitter> emitter_;
  std::uint64_t stampUs_ = kStampUs;
  std::size_t sent_ = 0;
  std::vector<std::string> expected_;  ///< the daemon's lines, with their line feeds
};

TEST_P(Rows, EachBecomesItsEventAtTheAgentInTheLogAndInTheTrace) {
  for (const Row& row : rows()) {
    follow(row);
    if (HasFailure()) return;
  }
  expectNothingElse();
}

TEST_P(Rows, WithoutTheLastArgumentNothingIsPostedAndTheWholeObservationAfterItStillIs) {
  for (const Row& row : rows()) {
    if (row.withoutLast) followShortened(row);
    follow(row);
    if (HasFailure()) return;
  }
  expectNothingElse();
}

const std::vector<Table>& tables() {
  static const std::vector<Table> kTables{{"net", "netCorrelator"},
                                          {"scsi", "scsiCorrelator"},
                                          {"apd", "APDCorrelator"},
                                          {"iscsi", "iscsiCorrelator"},
                                          {"vscsi", "vscsiCorrelator"},
                                          {"clock", "ClockCorrelator"},
                                          {"cpu", "cpuCorrelator"},
                                          {"pageretire", "pageretireCorrelator"},
                                          {"cvfs", "cvfsCorrelator"},
                                          {"hardware", "HardwareCorrelator"},
                                          {"uw", "UserWorldCorrelator"},
                                          {"swap", "SWAPCorrelator"},
                                          {"vm", "VMCorrelator"},
                                          {"migrate", "migrateCorrelator"},
                                          {"memfs", "MemfsCorrelator"},
                                          {"vfat", "VfatCorrelator"},
                                          {"sched", "schedCorrelator"},
                                          {"user", "UserLevelCorrelator"},
                                          {"external", "GenericCorrelator"},
                                          {"hcm", "HCMCorrelator"},
                                          {"dstor", "DstorCorrelator"}};
  return kTables;
}

INSTANTIATE_TEST_SUITE_P(Of, Rows, testing::ValuesIn(tables()),
                         [](const testing::TestParamInfo<Table>& table) { return table.param.name; });

class RowTables : public EndToEnd {};

using Observations = std::map<std::string, std::set<std::string>>;  // and the events of each

void expectListed(const Observations& observations, const std::string& event) {
  const bool listed = std::any_of(observations.begin(), observations.end(),
                                  [&](const auto& entry) { return entry.second.count(event) != 0; });
  EXPECT_TRUE(listed) << event;
}

TEST_F(RowTables, HoldEveryObservationOfTheCatalogueAndNoEventThatItLacks) {
  const Outcome catalogue = run(workspace(), KELCTL_PROGRAM, {"catalog", "--json"});
  ASSERT_TRUE(catalogue.ending.with(0)) << catalogue.error;
  std::map<std::string, Observations> listed;  // by thread
  for (const auto& entry : nlohmann::json::parse(catalogue.output)) {
    auto& events = listed[entry["correlator"].get<std::string>() + "Correlator"][entry["observation"]];
    for (const auto& event : entry["events"]) events.insert(event["event"].get<std::string>());
  }
  for (const Table& table : tables()) {
    SCOPED_TRACE(table.name);
    const auto& observations = listed[table.thread];
    std::set<std::string> held;
    for (const Row& row : loadTable(table)) {
      held.insert(row.id);
      if (row.posts()) expectListed(observations, row.event);
      for (const Row& further : row.further) expectListed(observations, further.event);
    }
    // What the network correlator makes of its uplinks is no table.
    if (table.name == "net") continue;
    EXPECT_FALSE(observations.empty());
    for (const auto& entry : observations) {
      // "group.*" stands for the identifiers that have no entry of their own.
      const bool any = entry.first.ends_with(".*");
      EXPECT_TRUE(any ? std::any_of(held.begin(), held.end(), [&](const auto& id) { return !observations.count(id); })
                      : held.count(entry.first) != 0)
          << entry.first;
    }
  }
}

/// "NAME WORD<TAB>IDENTIFIER", as the lines of observations.tsv.
using Listed = std::multiset<std::string>;

Listed difference(const Listed& from, const Listed& taken) {
  Listed left;
  std::set_difference(from.begin(), from.end(), taken.begin(), taken.end(), std::inserter(left, left.end()));
  return left;
}

TEST(Catalog, ListsEachObservationThatIsTranslatedOnceAndNoOther) {
  Listed expected;
  std::ifstream file(KELD_TEST_DATA "/observations.tsv");
  for (std::string line; std::getline(file, line);) {
    if (!line.starts_with('#')) expected.insert(line);
  }
  EXPECT_EQ(expected.size(), 386U);  // 360, the rest of the root file system's group, 25 of the self-test
  const Workspace workspace;
  const Outcome catalogue = run(workspace, KELCTL_PROGRAM, {"catalog", "--json"});
  ASSERT_TRUE(catalogue.ending.with(0)) << catalogue.error;
  Listed listed;
  for (const auto& entry : nlohmann::json::parse(catalogue.output)) {
    listed.insert(entry["correlator"].get<std::string>() + '\t' + entry["observation"].get<std::string>());
  }
  EXPECT_EQ(difference(expected, listed), Listed()) << "not listed";
  EXPECT_EQ(difference(listed, expected), Listed()) << "listed in vain or twice";
}

}  // namespace
}  // namespace e2e
