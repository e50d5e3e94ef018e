// What a boot report makes of a record, and what keeps it from being made twice.
#include "bootReport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "bootReportMarker.h"
#include "emitWords.h"
#include "failure.h"

namespace {

using kelctl::bootObservation;
using kelctl::BootReportMarker;
using kelctl::emitLine;
using Values = std::vector<std::pair<std::string, std::string>>;

constexpr const char* kUnknownReason =
    "Last reboot reason is unknown. Please check ORNi and the BMC logs for further details. ";

platform::StoredObject record(const Values& values) {
  return {"reboot_reason", "qkernel", "orn", "", values};
}

platform::StoredObject record(const std::string& type, const std::string& user, const std::string& reason) {
  return record({{"type", type},
                 {"user", user},
                 {"subsystem", "hagd"},
                 {"timestamp", "Thu, 01 Jan 26 00:00:00 +0000"},
                 {"reason", reason}});
}

/// The identifier and the strings, as words.
std::vector<std::string> reported(const std::optional<platform::StoredObject>& stored) {
  const KelEmit::Observation observation = bootObservation(stored);
  std::vector<std::string> words{observation.id};
  for (const auto& argument : observation.arguments) words.push_back(std::get<std::string>(argument));
  return words;
}
using Words = std::vector<std::string>;

TEST(BootReport, AWholeRecordIsReportedWithUserSubsystemTimeAndReason) {
  const Words rest{"root", "hagd", "Thu, 01 Jan 26 00:00:00 +0000", "planned upgrade"};
  Words reboot{"kel.user.host.reboot.reason.management"};
  reboot.insert(reboot.end(), rest.begin(), rest.end());
  EXPECT_EQ(reported(record("REBOOT", "root", "planned upgrade")), reboot);
  Words poweroff{"kel.user.host.poweroff.reason.management"};
  poweroff.insert(poweroff.end(), rest.begin(), rest.end());
  EXPECT_EQ(reported(record("POWEROFF", "root", "planned upgrade")), poweroff);
}

TEST(BootReport, TheOrderOfTheValuesDoesNotMatter) {
  EXPECT_EQ(
      reported(record({{"reason", "r"}, {"timestamp", "t"}, {"subsystem", "s"}, {"user", "u"}, {"type", "REBOOT"}})),
      (Words{"kel.user.host.reboot.reason.management", "u", "s", "t", "r"}));
}

TEST(BootReport, TheConsolesRecordIsAnUnknownReason) {
  EXPECT_EQ(reported(record("REBOOT", "Unknown", kUnknownReason)), Words{"kel.user.host.reboot.reason.unavailable"});
  EXPECT_EQ(reported(record("POWEROFF", "Unknown", kUnknownReason)),
            Words{"kel.user.host.poweroff.reason.unavailable"});
}

TEST(BootReport, AReasonOfAnUnknownUserIsAvailable) {
  EXPECT_EQ(reported(record("REBOOT", "Unknown", "new firmware")),
            (Words{"kel.user.host.reboot.reason.available", "new firmware"}));
  EXPECT_EQ(reported(record("POWEROFF", "Unknown", "new firmware")),
            (Words{"kel.user.host.poweroff.reason.available", "new firmware"}));
}

TEST(BootReport, TheUnknownReasonOfAUserIsThatUsers) {
  EXPECT_EQ(reported(record("REBOOT", "root", kUnknownReason)).front(), "kel.user.host.reboot.reason.management");
}

TEST(BootReport, AReasonWithoutOneOfTheOtherValuesIsAvailable) {
  const Values whole = record("REBOOT", "root", "planned").values;
  for (std::size_t missing = 0; missing + 1 < whole.size(); ++missing) {
    Values values = whole;
    values.erase(values.begin() + static_cast<std::ptrdiff_t>(missing));
    EXPECT_EQ(reported(record(values)), (Words{"kel.user.host.reboot.reason.available", "planned"})) << missing;
    values = whole;
    values[missing].second.clear();
    EXPECT_EQ(reported(record(values)), (Words{"kel.user.host.reboot.reason.available", "planned"})) << missing;
  }
}

TEST(BootReport, ATypeThatIsNotKnownCountsAsAReboot) {
  EXPECT_EQ(reported(record("CRASH", "root", "planned")), (Words{"kel.user.host.reboot.reason.available", "planned"}));
  EXPECT_EQ(reported(record("CRASH", "root", "")), Words{"kel.user.host.reboot.reason.unavailable"});
}

TEST(BootReport, WithoutAReasonItIsUnavailable) {
  EXPECT_EQ(reported(std::nullopt), Words{"kel.user.host.reboot.reason.unavailable"});
  EXPECT_EQ(reported(record(Values{})), Words{"kel.user.host.reboot.reason.unavailable"});
  EXPECT_EQ(reported(record("POWEROFF", "root", "")), Words{"kel.user.host.poweroff.reason.unavailable"});
}

TEST(BootReport, WhatFitsNoBatchIsLeftOut) {
  const std::string longText(65536, 'x');
  EXPECT_EQ(reported(record("REBOOT", longText, longText)), (Words{"kel.user.host.reboot.reason.available", longText}));
  EXPECT_EQ(reported(record("REBOOT", "root", std::string(131072, 'x'))),
            Words{"kel.user.host.reboot.reason.unavailable"});
  EXPECT_EQ(reported(record("REBOOT", std::string("a\0b", 3), "planned")),
            (Words{"kel.user.host.reboot.reason.available", "planned"}));
  EXPECT_EQ(reported(record("POWEROFF", "root", std::string("a\0b", 3))),
            Words{"kel.user.host.poweroff.reason.unavailable"});
}

TEST(BootReport, ItsLineIsThatOfEmit) {
  EXPECT_EQ(emitLine(bootObservation(std::nullopt)), "kelctl emit kel.user.host.reboot.reason.unavailable");
  EXPECT_EQ(emitLine(bootObservation(record("REBOOT", "root", "it's planned"))),
            "kelctl emit kel.user.host.reboot.reason.management s:root s:hagd 's:Thu, 01 Jan 26 00:00:00 +0000' "
            "'s:it'\\''s planned'");
}

TEST(BootReport, ItsLineHoldsNoControlCharacters) {
  EXPECT_EQ(emitLine(bootObservation(record("REBOOT", "Unknown",
                                            "a\x1b[2J\n\x7f"
                                            "1\\'"))),
            "kelctl emit kel.user.host.reboot.reason.available $'s:a\\033[2J\\012\\1771\\\\\\''");
}

TEST(BootReport, EmitReadsItsLine) {
  const std::string line = emitLine(bootObservation(record("REBOOT", "a \"b\" $c `d` \\", "*? it's ; | & ~ !")));
  const auto words = kelctl::splitWords(line);
  EXPECT_EQ(std::get<std::vector<std::string>>(words),
            (Words{"kelctl", "emit", "kel.user.host.reboot.reason.management", "s:a \"b\" $c `d` \\", "s:hagd",
                   "s:Thu, 01 Jan 26 00:00:00 +0000", "s:*? it's ; | & ~ !"}));
}

class BootMarker : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (std::filesystem::temp_directory_path() / "kelctl-XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    directory_ = pattern;
  }
  void TearDown() override { std::filesystem::remove_all(directory_); }

  [[nodiscard]] std::string bootId(const std::string& text) const {
    std::ofstream(directory_ / "boot_id") << text;
    return directory_ / "boot_id";
  }
  [[nodiscard]] std::string path() const { return directory_ / "boot-reported"; }

  std::filesystem::path directory_;
};

TEST_F(BootMarker, HoldsForItsBoot) {
  const BootReportMarker first(path(), bootId("11111111-2222-3333-4444-555555555555\n"));
  EXPECT_FALSE(first.isSet());
  first.set();
  EXPECT_TRUE(first.isSet());
  const BootReportMarker next(path(), bootId("99999999-2222-3333-4444-555555555555\n"));
  EXPECT_FALSE(next.isSet());
  next.set();
  EXPECT_TRUE(next.isSet());
  EXPECT_FALSE(first.isSet());
}

TEST_F(BootMarker, ItsPresenceCountsWhereTheBootHasNoIdentity) {
  const BootReportMarker marker(path(), directory_ / "none");
  EXPECT_FALSE(marker.isSet());
  marker.set();
  EXPECT_TRUE(marker.isSet());
  std::ofstream(path()) << "";
  EXPECT_TRUE(marker.isSet());
  const BootReportMarker other(path(), bootId("\n"));
  EXPECT_TRUE(other.isSet());
}

TEST_F(BootMarker, OneThatIsNoFileIsAFailure) {
  std::filesystem::create_directory(path());
  EXPECT_THROW((void)BootReportMarker(path(), bootId("1\n")).isSet(), kelctl::Failure);
  EXPECT_THROW(BootReportMarker(path(), bootId("1\n")).set(), kelctl::Failure);
}

TEST_F(BootMarker, NothingIsWrittenThroughALink) {
  const std::string target = directory_ / "target";
  std::ofstream(target) << "kept";
  std::filesystem::create_symlink(target, path());
  BootReportMarker(path(), bootId("1\n")).set();
  std::ifstream file(target);
  std::string text;
  std::getline(file, text);
  EXPECT_EQ(text, "kept");
  EXPECT_FALSE(std::filesystem::is_symlink(path()));
}

TEST_F(BootMarker, NeedsItsDirectory) {
  EXPECT_THROW(BootReportMarker((directory_ / "none" / "marker").string(), bootId("1\n")).set(), kelctl::Failure);
}

}  // namespace
