#include "catalog.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "glob.h"
#include "keldCorrelator.h"
#include "keldTestCorrelator.h"

namespace {

using kelctl::catalog;
using kelctl::CatalogEntry;
using Names = std::vector<std::string_view>;

const CatalogEntry* find(const std::vector<CatalogEntry>& entries, std::string_view observation) {
  const auto found = std::find_if(entries.begin(), entries.end(),
                                  [&](const CatalogEntry& entry) { return entry.observation == observation; });
  return found == entries.end() ? nullptr : &*found;
}

TEST(Catalog, HasEveryRowOfEveryCorrelator) {
  const std::vector<CatalogEntry> entries = catalog();
  std::size_t expected = 0;
  for (const keld::CorrelatorInfo* correlator : keld::correlators()) {
    expected += correlator->rows.size() + correlator->judged.size();
    for (const keld::Row& row : correlator->rows) {
      const CatalogEntry* entry = find(entries, row.observation);
      ASSERT_NE(entry, nullptr) << row.observation;
      EXPECT_EQ(entry->arguments.empty(), row.read.empty()) << row.observation;
      EXPECT_NE(row.text.find(entry->events.at(0).message), std::string_view::npos) << row.observation;
      EXPECT_NE(row.text.find("(" + std::string(entry->events.at(0).name) + ")"), std::string_view::npos);
    }
    for (const keld::Judged& judged : correlator->judged) {
      const CatalogEntry* entry = find(entries, judged.observation);
      ASSERT_NE(entry, nullptr) << judged.observation;
      EXPECT_EQ(entry->events.size(), judged.events.size()) << judged.observation;
    }
  }
  EXPECT_EQ(entries.size(), expected + keld::kTestCorrelator.judged.size());
}

TEST(Catalog, EndsWithTheMarkersAndTestsOfTheSelfTest) {
  const std::vector<CatalogEntry> entries = catalog();
  const std::size_t daemons = entries.size() - 4 - 21;
  for (std::size_t n = 0; n < entries.size(); ++n) {
    EXPECT_EQ(entries[n].correlator == "KeldTest", n >= daemons) << entries[n].observation;
  }
  EXPECT_EQ(entries[daemons].observation, "kel.tests.marker.start");
  const CatalogEntry* strings = find(entries, "kel.tests.async.withLongStringParams");
  ASSERT_NE(strings, nullptr);
  EXPECT_EQ(strings->arguments, (Names{"string", "string"}));
  EXPECT_TRUE(strings->events.empty());
  const CatalogEntry* integers = find(entries, "kel.tests.corrupt.format.tag.nestedInval");
  ASSERT_NE(integers, nullptr);
  EXPECT_EQ(integers->arguments, (Names{"integer", "integer"}));
}

TEST(Catalog, HasTheNetworkCorrelatorsTexts) {
  const std::vector<CatalogEntry> entries = catalog();
  const CatalogEntry* row = find(entries, "kel.net.portset.port.connect.fail");
  ASSERT_NE(row, nullptr);
  EXPECT_EQ(row->correlator, "net");
  EXPECT_EQ(row->arguments, (Names{"string", "string", "string"}));
  ASSERT_EQ(row->events.size(), 1U);
  EXPECT_EQ(row->events[0].kind, "problem");
  EXPECT_EQ(row->events[0].name, "orn.problem.net.proxyswitch.port.unavailable");
  EXPECT_EQ(row->events[0].message,
            "Virtual NIC with hardware address %s failed to connect to distributed virtual port %s on switch %s. No "
            "more ports available on the host proxy switch");
  const CatalogEntry* judged = find(entries, "kel.net.pg.uplink.transition.down");
  ASSERT_NE(judged, nullptr);
  EXPECT_EQ(judged->arguments, (Names{"string", "string", "integer", "integer"}));
  EXPECT_EQ(judged->events.size(), 3U);
}

TEST(Catalog, ListsNoObservationTwice) {
  std::set<std::string_view> seen;
  for (const CatalogEntry& entry : catalog()) EXPECT_TRUE(seen.insert(entry.observation).second) << entry.observation;
}

TEST(Catalog, EventsNamesBeginWithTheirKind) {
  for (const CatalogEntry& entry : catalog()) {
    for (const kelctl::CatalogEvent& event : entry.events) {
      EXPECT_TRUE(event.name.starts_with("orn." + std::string(event.kind) + ".")) << event.name;
    }
  }
}

TEST(Catalog, CanBeLimitedByGlobs) {
  const std::vector<CatalogEntry> entries = catalog({"*.heap.below*", "kel.net.lacp.?nable"});
  ASSERT_EQ(entries.size(), 2U);
  EXPECT_NE(find(entries, "kel.net.lacp.enable"), nullptr);
  EXPECT_NE(find(entries, "kel.net.heap.belowthreshold"), nullptr);
  EXPECT_TRUE(catalog({"kel.net"}).empty());
}

TEST(CatalogArguments, AreNamedByWhatIsRead) {
  EXPECT_EQ(kelctl::readArguments(""), Names{});
  EXPECT_EQ(kelctl::readArguments("si"), (Names{"string", "integer"}));
  EXPECT_EQ(kelctl::readArguments("%p %d"), (Names{"string", "int32"}));
  EXPECT_EQ(kelctl::readArguments("%s %u %lu %lld %hd %#x %08lx"),
            (Names{"string", "int32", "int64", "int64", "int16", "int32", "int64"}));
  EXPECT_EQ(kelctl::readArguments("%"), Names{"int32"});
}

TEST(CatalogJson, IsOneArrayOfObjects) {
  EXPECT_EQ(kelctl::jsonLine(kelctl::catalogJson(catalog({"kel.net.heap.*"}))),
            R"([{"observation":"kel.net.heap.belowthreshold","correlator":"net","arguments":["string","int32"],)"
            R"("events":[{"kind":"problem","event":"orn.problem.net.heap.belowthreshold",)"
            R"("text":"%s free size dropped below %d percent."}]}])");
  EXPECT_EQ(kelctl::jsonLine(kelctl::catalogJson({})), "[]");
}

TEST(CatalogMarkdown, HasOneTablePerCorrelator) {
  const std::vector<CatalogEntry> entries{
      {"kel.a", "one", {"string", "int32"}, {{"problem", "orn.problem.a", "A | b %s"}, {"clear", "orn.clear.a", "C"}}},
      {"kel.b", "two", {}, {}},
  };
  EXPECT_EQ(kelctl::catalogMarkdown(entries),
            "# Observations and events\n"
            "\n## one\n\n| Observation | Arguments | Kind | Event | Text |\n|---|---|---|---|---|\n"
            "| `kel.a` | string, int32 | problem | `orn.problem.a` | A \\| b %s |\n"
            "| | | clear | `orn.clear.a` | C |\n"
            "\n## two\n\n| Observation | Arguments | Kind | Event | Text |\n|---|---|---|---|---|\n"
            "| `kel.b` |  | | | |\n");
}

TEST(CatalogText, ShowsEventsBelowTheirObservation) {
  EXPECT_EQ(kelctl::catalogText(catalog({"kel.net.heap.*"})),
            "kel.net.heap.belowthreshold (string, int32)\n"
            "  problem orn.problem.net.heap.belowthreshold\n"
            "          %s free size dropped below %d percent.\n");
}

TEST(Globs, MatchWholeIdentifiers) {
  EXPECT_TRUE(kelctl::matchesAny({}, "kel.x"));
  EXPECT_TRUE(kelctl::matchesAny({"kel.*"}, "kel.net.x"));
  EXPECT_TRUE(kelctl::matchesAny({"a", "k?l.[n]*"}, "kel.net.x"));
  EXPECT_FALSE(kelctl::matchesAny({"kel"}, "kel.x"));
  EXPECT_FALSE(kelctl::matchesAny({"el.*"}, "kel.x"));
}

}  // namespace
