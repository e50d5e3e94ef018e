#include "emitWords.h"

#include <gtest/gtest.h>

namespace {

using kelctl::Emission;
using kelctl::EmitOptions;
using kelctl::EmitTarget;
using kelctl::EmitWords;
using kelctl::parseEmitLine;
using kelctl::parseEmitWords;
using kelctl::WordsError;

EmitWords parse(const std::vector<std::string>& words) {
  auto parsed = parseEmitWords(words);
  if (const auto* error = std::get_if<WordsError>(&parsed)) {
    ADD_FAILURE() << error->reason;
    return {};
  }
  return std::get<EmitWords>(std::move(parsed));
}

std::string errorOf(const std::vector<std::string>& words) {
  const auto parsed = parseEmitWords(words);
  const auto* error = std::get_if<WordsError>(&parsed);
  return error != nullptr ? error->reason : "no error";
}

template <typename Value>
void expectArgument(const std::string& token, const Value& value) {
  const EmitWords words = parse({"kel.x", token});
  ASSERT_EQ(words.arguments.size(), 1U) << token;
  ASSERT_TRUE(std::holds_alternative<Value>(words.arguments[0])) << token;
  EXPECT_EQ(std::get<Value>(words.arguments[0]), value) << token;
}

TEST(EmitArguments, AreTyped) {
  expectArgument("s:nic0", std::string("nic0"));
  expectArgument("s:", std::string());
  expectArgument("s:i:7", std::string("i:7"));
  expectArgument("i:-7", std::int32_t{-7});
  expectArgument("u:7", std::uint32_t{7});
  expectArgument("l:-7", std::int64_t{-7});
  expectArgument("L:7", std::uint64_t{7});
  expectArgument("d:12.5", 12.5);
  EXPECT_TRUE(std::holds_alternative<KelEmit::NullText>(parse({"kel.x", "n:"}).arguments.at(0)));
}

TEST(EmitArguments, KeepTheirOrder) {
  const EmitWords words = parse({"kel.x", "i:1", "s:a", "i:2"});
  ASSERT_EQ(words.arguments.size(), 3U);
  EXPECT_EQ(std::get<std::int32_t>(words.arguments[0]), 1);
  EXPECT_EQ(std::get<std::string>(words.arguments[1]), "a");
  EXPECT_EQ(std::get<std::int32_t>(words.arguments[2]), 2);
}

TEST(EmitArguments, TakeTheEndsOfTheirRanges) {
  expectArgument("i:-2147483648", std::numeric_limits<std::int32_t>::min());
  expectArgument("i:2147483647", std::numeric_limits<std::int32_t>::max());
  expectArgument("i:0xbad0007", std::int32_t{0xbad0007});
  expectArgument("i:0xffffffff", std::int32_t{-1});
  expectArgument("u:4294967295", std::numeric_limits<std::uint32_t>::max());
  expectArgument("u:0xffffffff", std::numeric_limits<std::uint32_t>::max());
  expectArgument("l:-9223372036854775808", std::numeric_limits<std::int64_t>::min());
  expectArgument("l:0xffffffffffffffff", std::int64_t{-1});
  expectArgument("L:18446744073709551615", std::numeric_limits<std::uint64_t>::max());
}

TEST(EmitArguments, OutsideTheirRangesAreRefused) {
  for (const char* token : {"i:2147483648", "i:-2147483649", "i:0x100000000", "u:-1", "u:4294967296",
                            "l:9223372036854775808", "L:-1", "L:18446744073709551616", "d:1e999"}) {
    EXPECT_NE(errorOf({"kel.x", token}), "no error") << token;
  }
}

TEST(EmitArguments, OfNoKnownFormAreRefused) {
  for (const char* token : {"nic0", "", "x:1", "S:a", "i", "i:", "u:x", "d:", "n:x", ":", "ss:a"}) {
    EXPECT_NE(errorOf({"kel.x", token}), "no error") << token;
  }
  EXPECT_EQ(errorOf({"kel.x", "nic0"}), "'nic0' is no argument: write s:TEXT, n:, i:N, u:N, l:N, L:N or d:X");
}

TEST(EmitOptions, AreReadAnywhere) {
  for (const auto& words : {std::vector<std::string>{"--msg", "M", "--time", "5", "kel.x", "i:1"},
                            {"kel.x", "--msg", "M", "i:1", "--time", "5"},
                            {"kel.x", "i:1", "--time=5", "--msg=M"}}) {
    const EmitWords parsed = parse(words);
    EXPECT_EQ(parsed.id, "kel.x");
    EXPECT_EQ(parsed.arguments.size(), 1U);
    EXPECT_EQ(parsed.options.message, "M");
    EXPECT_EQ(parsed.options.timestamp, 5U);
  }
}

TEST(EmitOptions, AreAllKnown) {
  const EmitWords parsed = parse({"--context", "23", "--repeat", "3", "--rate", "2.5", "--batch", "7", "--file", "-"});
  EXPECT_EQ(parsed.options.target, (EmitTarget{false, 23}));
  EXPECT_EQ(parsed.options.repeat, 3U);
  EXPECT_EQ(parsed.options.rate, 2.5);
  EXPECT_EQ(parsed.options.batch, 7U);
  EXPECT_EQ(parsed.options.file, "-");
  EXPECT_FALSE(parsed.id);
}

TEST(EmitOptions, ValueMayLookLikeAnOption) {
  EXPECT_EQ(parse({"kel.x", "--msg", "--user"}).options.message, "--user");
}

TEST(EmitOptions, EmptyMessageIsAMessage) {
  EXPECT_EQ(parse({"kel.x", "--msg="}).options.message, "");
}

TEST(EmitOptions, EndAtTwoDashes) {
  EXPECT_EQ(parse({"--", "-kel.x"}).id, "-kel.x");
}

TEST(EmitOptions, OutOfRangeAreRefused) {
  using Words = std::vector<std::string>;
  for (const Words& words :
       {Words{"--context", "24"}, Words{"--context", "-1"}, Words{"--repeat", "0"}, Words{"--repeat", "-1"},
        Words{"--batch", "0"}, Words{"--rate", "0"}, Words{"--rate", "-1"}, Words{"--rate", "nan"},
        Words{"--rate", "inf"}, Words{"--time", "-1"}, Words{"--time", "now"}, Words{"--msg"}, Words{"--user=1"},
        Words{"--nope"}, Words{"-x"}, Words{"--user", "--context", "1"}, Words{"--context", "1", "--user"}}) {
    Words all{"kel.x"};
    all.insert(all.end(), words.begin(), words.end());
    EXPECT_NE(errorOf(all), "no error") << testing::PrintToString(words);
  }
}

TEST(EmitIdentifier, IsNotEmpty) {
  EXPECT_EQ(errorOf({""}), "the identifier is empty");
}

TEST(EmitHelp, NamesEveryOptionThatIsRead) {
  for (const kelctl::EmitOptionHelp& option : kelctl::emitOptionHelp()) {
    const std::string error = errorOf({"kel.x", option.name, "1"});
    EXPECT_EQ(error.find("unknown"), std::string::npos) << option.name;
  }
}

Emission emissionOf(const std::string& line, const EmitOptions& defaults = {}) {
  auto parsed = parseEmitLine(line, defaults);
  if (const auto* error = std::get_if<WordsError>(&parsed)) {
    ADD_FAILURE() << error->reason;
    return {};
  }
  return std::get<std::optional<Emission>>(std::move(parsed)).value_or(Emission{});
}

TEST(EmitLine, IsReadAsACommandLineIs) {
  const Emission emission = emissionOf(R"(kel.net.lacp.enable "s:switch 0" 'n:' --msg "a \"b\"" --time 9)");
  EXPECT_EQ(emission.observation.id, "kel.net.lacp.enable");
  ASSERT_EQ(emission.observation.arguments.size(), 2U);
  EXPECT_EQ(std::get<std::string>(emission.observation.arguments[0]), "switch 0");
  EXPECT_EQ(emission.observation.message, "a \"b\"");
  EXPECT_EQ(emission.observation.timestamp, 9U);
  EXPECT_EQ(emission.repeat, 1U);
  EXPECT_EQ(emission.batch, 1U);
  EXPECT_FALSE(emission.rate);
}

TEST(EmitLine, GoesToContextZeroUnlessItSaysOtherwise) {
  EXPECT_EQ(emissionOf("kel.net.x").target, (EmitTarget{false, 0}));
  EXPECT_EQ(emissionOf("kel.net.x --context 3").target, (EmitTarget{false, 3}));
  EXPECT_EQ(emissionOf("kel.net.x --user").target, (EmitTarget{true, 0}));
}

TEST(EmitLine, OfTheUserGroupGoesToTheUserContextUnlessItSaysOtherwise) {
  EXPECT_EQ(emissionOf("kel.user.host.x").target, (EmitTarget{true, 0}));
  EXPECT_EQ(emissionOf("kel.user.x --context 0").target, (EmitTarget{false, 0}));
  EXPECT_EQ(emissionOf("kel.users").target, (EmitTarget{false, 0}));
}

TEST(EmitLine, OverridesTheCommandLine) {
  EmitOptions defaults;
  defaults.message = "M";
  defaults.target = EmitTarget{false, 5};
  defaults.repeat = 2;
  defaults.batch = 10;
  defaults.rate = 100;
  defaults.timestamp = 1;
  const Emission plain = emissionOf("kel.user.x", defaults);
  EXPECT_EQ(plain.observation.message, "M");
  EXPECT_EQ(plain.observation.timestamp, 1U);
  EXPECT_EQ(plain.target, (EmitTarget{false, 5}));
  EXPECT_EQ(plain.repeat, 2U);
  EXPECT_EQ(plain.batch, 10U);
  EXPECT_EQ(plain.rate, 100.0);
  const Emission own = emissionOf("kel.x --msg N --user --repeat 3 --batch 4 --rate 5 --time 6", defaults);
  EXPECT_EQ(own.observation.message, "N");
  EXPECT_EQ(own.observation.timestamp, 6U);
  EXPECT_EQ(own.target, (EmitTarget{true, 0}));
  EXPECT_EQ(own.repeat, 3U);
  EXPECT_EQ(own.batch, 4U);
  EXPECT_EQ(own.rate, 5.0);
}

TEST(EmitLine, IsSkippedWhereBlankOrComment) {
  for (const char* line : {"", "   ", "\t", "#", "# kel.x", "#kel.x 'open"}) {
    const auto parsed = parseEmitLine(line, {});
    ASSERT_TRUE(std::holds_alternative<std::optional<Emission>>(parsed)) << line;
    EXPECT_FALSE(std::get<std::optional<Emission>>(parsed)) << line;
  }
}

TEST(EmitLine, IsRefusedWhereBad) {
  for (const char* line : {"--repeat 2", "''", "kel.x 'open", "kel.x bad", "kel.x --file f", "kel.x i:99999999999"}) {
    EXPECT_TRUE(std::holds_alternative<WordsError>(parseEmitLine(line, {}))) << line;
  }
}

}  // namespace
