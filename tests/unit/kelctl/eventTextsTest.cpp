#include "eventTexts.h"

#include <gtest/gtest.h>

#include "platform/kel.h"

namespace {

using kelctl::argumentsFit;
using kelctl::CatalogEntry;
using kelctl::EventTexts;

/// A record as the decoder would give it.
platform::EventRecord record(const std::string& name, std::vector<KelEmit::Argument> arguments) {
  platform::EventRecord made;
  made.timestamp = 1767225599999999;
  made.kind = platform::EventKind::problem;
  made.name = name;
  std::vector<char> bytes;
  EXPECT_EQ(KelEmit::appendRecord({"kel.x", std::nullopt, arguments, 1}, bytes), 0);
  Kel_RecordView view;
  EXPECT_TRUE(Kel_ViewRecord(bytes.data(), bytes.size(), &view));
  made.argumentArea.assign(static_cast<const char*>(view.arguments), static_cast<const char*>(view.end));
  made.arguments = std::move(arguments);
  return made;
}

const std::vector<CatalogEntry> kEntries{
    {"kel.a", "net", {}, {{"problem", "orn.problem.a", "Text %s of %d."}, {"clear", "orn.clear.a", "Plain 100%%."}}},
    {"kel.b", "net", {}, {{"problem", "orn.problem.a", "Other %d of %d."}, {"problem", "orn.problem.a", "None."}}},
};

TEST(EventTexts, FillsTheTemplateOfTheName) {
  const EventTexts texts(kEntries);
  EXPECT_EQ(texts.textOf(record("orn.problem.a", {std::string("one"), std::int32_t{2}})), "Text one of 2.");
  EXPECT_EQ(texts.textOf(record("orn.clear.a", {})), "Plain 100%.");
}

TEST(EventTexts, TakesTheFirstTemplateThatFits) {
  const EventTexts texts(kEntries);
  EXPECT_EQ(texts.textOf(record("orn.problem.a", {std::int32_t{1}, std::int32_t{2}})), "Other 1 of 2.");
  EXPECT_EQ(texts.textOf(record("orn.problem.a", {})), "None.");
}

TEST(EventTexts, ShowsNameAndArgumentsWhereNoTemplateFits) {
  const EventTexts texts(kEntries);
  EXPECT_EQ(texts.textOf(record("orn.problem.a", {12.5})), "orn.problem.a (12.5)");
  EXPECT_EQ(
      texts.textOf(record("orn.problem.unknown", {std::string("a \"b\""), KelEmit::NullText{}, std::int64_t{-3}})),
      "orn.problem.unknown (\"a \\\"b\\\"\", null, -3)");
  EXPECT_EQ(texts.textOf(record("orn.problem.unknown", {})), "orn.problem.unknown ()");
}

TEST(EventTexts, KnowsWhatTheDaemonPosts) {
  const EventTexts texts(kelctl::catalog());
  EXPECT_EQ(texts.textOf(record("orn.problem.net.redundancy.lost",
                                {std::string("switch0"), std::string("nic0"), std::string("\"Production\"")})),
            "Lost uplink redundancy on virtual switch switch0. Physical NIC nic0 is down. Affected port groups: "
            "\"Production\"");
}

TEST(ArgumentsFit, ComparesNumberAndKind) {
  const std::string text = "%s %d %lu %% %#x %f";
  EXPECT_TRUE(argumentsFit(text, {std::string("a"), std::int32_t{1}, std::uint64_t{2}, std::uint32_t{3}, 1.5}));
  EXPECT_TRUE(argumentsFit(text, {KelEmit::NullText{}, std::int64_t{1}, std::int32_t{2}, std::uint32_t{3}, 1.5}));
  EXPECT_FALSE(argumentsFit(text, {std::string("a"), std::int32_t{1}, std::uint64_t{2}, std::uint32_t{3}}));
  EXPECT_FALSE(argumentsFit(text, {std::int32_t{0}, std::int32_t{1}, std::uint64_t{2}, std::uint32_t{3}, 1.5}));
  EXPECT_FALSE(argumentsFit("%d", {std::string("a")}));
  EXPECT_FALSE(argumentsFit("", {std::string("a")}));
  EXPECT_FALSE(argumentsFit("%", {std::string("a")}));
  EXPECT_TRUE(argumentsFit("", {}));
}

TEST(EventJson, HasTheContractsKeysInOneLine) {
  platform::EventRecord one =
      record("orn.problem.x", {std::string("a\nb"), KelEmit::NullText{}, std::int32_t{-1}, 1.5});
  for (std::size_t n = 0; n < one.hostIdentity.size(); ++n) one.hostIdentity[n] = static_cast<std::uint8_t>(0x10 + n);
  EXPECT_EQ(kelctl::eventJson(one, "the text"),
            R"({"time_us":1767225599999999,"kind":"problem","event":"orn.problem.x","text":"the text",)"
            R"("args":["a\nb",null,-1,1.5],)"
            R"("host":"101112131415161718191a1b1c1d1e1f202122232425262728292a2b2c2d2e2f303132333435"})");
}

TEST(UtcTime, IsTheCalendars) {
  EXPECT_EQ(kelctl::utcTime(0), "1970-01-01T00:00:00.000000Z");
  EXPECT_EQ(kelctl::utcTime(1767225599999999), "2025-12-31T23:59:59.999999Z");
  EXPECT_EQ(kelctl::utcTime(1709210096000001), "2024-02-29T12:34:56.000001Z");
  EXPECT_EQ(kelctl::utcTime(253402300799999999), "9999-12-31T23:59:59.999999Z");
  EXPECT_EQ(kelctl::utcTime(253402300800000000), "253402300800000000us");
  EXPECT_EQ(kelctl::utcTime(18446744073709551615U), "18446744073709551615us");
}

}  // namespace
