// The trace socket: exact lines, history, clients that come and go.
#include <numeric>
#include <regex>

#include "endToEnd.h"

namespace e2e {
namespace {

using support::d, support::i, support::l, support::L, support::null, support::s, support::u;

constexpr std::size_t kHistoryBytes = 131'072;

class Trace : public Serving {
 protected:
  void SetUp() override {
    Serving::SetUp();
    if (IsSkipped()) return;
    emitter_ = std::make_unique<Emitter>(Emitter::toContext(workspace()));
  }
  const Emitter& emitter() { return *emitter_; }

  /// The line of one observation without its first field, the rendering time.
  std::string line(const Arguments& arguments, std::uint64_t stampUs = kStampUs) {
    emitter().send(record("kel.unheard.line", arguments, {}, stampUs));
    const std::string raw = daemon().trace().nextRaw();
    EXPECT_TRUE(std::regex_match(raw.substr(0, raw.find(',')), std::regex(R"(\d{10}\.\d{9})"))) << raw;
    return raw.substr(raw.find(',') + 1);
  }
  static std::string inLine(const std::string& arguments) {
    return "IN," + std::to_string(kStampUs) + ",kel.unheard.line," + arguments;
  }

 private:
  std::unique_ptr<Emitter> emitter_;
};

TEST_F(Trace, AnObservationWithoutArgumentsEndsWithAComma) {
  EXPECT_EQ(line({}), inLine(""));
}

TEST_F(Trace, IntegersAreSignedDecimals) {
  EXPECT_EQ(line({i(0), i(-1), i(2147483647), i(-2147483647 - 1)}), inLine(",0,-1,2147483647,-2147483648"));
  EXPECT_EQ(line({l(-1), l(9223372036854775807)}), inLine(",-1,9223372036854775807"));
  EXPECT_EQ(line({u(0xffff'ffff), L(0xffff'ffff'ffff'ffff)}), inLine(",-1,-1"));
}

TEST_F(Trace, StringsStandBetweenQuotesAndTheirQuotesAreDoubled) {
  EXPECT_EQ(line({s("qnic0"), s(""), s("a, b")}), inLine(R"(,"qnic0","","a, b")"));
  EXPECT_EQ(line({s("say \"x\"")}), inLine(R"(,"say ""x""")"));
  EXPECT_EQ(line({s("\"")}), inLine(R"(,"""")"));
}

TEST_F(Trace, AMissingStringIsNull) {
  EXPECT_EQ(line({null(), i(1)}), inLine(R"-(,"(null)",1)-"));
}

TEST_F(Trace, FloatingPointIsNotShownAndWhatFollowsIs) {
  EXPECT_EQ(line({i(1), d(0.5), s("x")}), inLine(R"(,1,???,"x")"));
}

TEST_F(Trace, TheTimeStampIsTheObservationsUnsigned) {
  EXPECT_EQ(line({}, 0), "IN,0,kel.unheard.line,");
  EXPECT_EQ(line({}, 0xffff'ffff'ffff'ffff), "IN,18446744073709551615,kel.unheard.line,");
}

TEST_F(Trace, TheRenderingTimeIsTheRealTimeClocks) {
  const auto now = [] {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
  };
  const double before = now();
  emitter().send("kel.unheard.line");
  const double rendered = std::stod(daemon().trace().next().time);
  EXPECT_GE(rendered, before - 0.001);
  EXPECT_LE(rendered, now() + 0.001);
}

TEST_F(Trace, AnEventIsTracedOutAfterItsObservationIn) {
  EventReceiver agent(workspace().eventSocket());
  emitter().send("kel.net.fence.port.fail", {s("port \"7\""), s("dvs"), i(0xbad0007), i(501)});
  const TraceLine in = daemon().trace().next(), out = daemon().trace().next();
  EXPECT_EQ(in.direction + in.rest, R"(IN,,"port ""7""","dvs",195887111,501)");
  EXPECT_EQ(out.direction, "OUT");
  EXPECT_EQ(out.id, "orn.problem.net.fence.port.badfenceid");
  EXPECT_EQ(out.rest, R"(,,501,"port ""7""","dvs")");
  EXPECT_EQ(out.stamp, std::to_string(agent.waitForCount(1)[0].timestampUs));
}

TEST_F(Trace, ANewClientGetsTheHistoryThenABlankLineThenLiveLines) {
  std::vector<std::string> all;
  for (int n = 0; n < 5; ++n) {
    line({i(n)});
    emitter().send("kel.unheard.kept" + std::to_string(n));
    all.push_back(daemon().trace().next().id);
  }
  TraceClient late(workspace().traceSocket());
  std::vector<std::string> history;
  for (const std::string& raw : late.history()) {
    if (parseTraceLine(raw).id != "kel.unheard.line") history.push_back(parseTraceLine(raw).id);
  }
  EXPECT_EQ(history, all);
  emitter().send("kel.unheard.live");
  EXPECT_EQ(late.next().id, "kel.unheard.live");
}

TEST_F(Trace, TheHistoryIsTheNewestLinesOf131072BytesAtMost) {
  std::vector<std::string> all;
  std::size_t bytes = 0;
  for (int n = 0; bytes < 204'800U; ++n) {
    emitter().send("kel.unheard.history", {s(std::string(static_cast<std::size_t>(n % 97), 'h')), i(n)});
    all.push_back(daemon().trace().nextRaw());
    bytes += all.back().size() + 1;
  }
  std::size_t from = 0;
  while (bytes > kHistoryBytes) bytes -= all[from++].size() + 1;
  all.erase(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(from));

  TraceClient late(workspace().traceSocket());
  EXPECT_EQ(late.history(), all);
  emitter().send("kel.unheard.live");
  EXPECT_EQ(late.next().id, "kel.unheard.live");
}

TEST_F(Trace, ALineLargerThanTheHistoryLeavesItEmpty) {
  // Every quote is doubled.
  line({s(std::string(100'000, '"'))});
  TraceClient late(workspace().traceSocket());
  EXPECT_TRUE(late.history().empty());
}

TEST_F(Trace, AllClientsGetTheSameLines) {
  TraceClient second(workspace().traceSocket()), third(workspace().traceSocket());
  second.history();
  third.history();
  for (int n = 0; n < 100; ++n) {
    emitter().send("kel.unheard.shared", {i(n)});
    const std::string raw = daemon().trace().nextRaw();
    EXPECT_EQ(second.nextRaw(), raw);
    EXPECT_EQ(third.nextRaw(), raw);
  }
}

TEST_F(Trace, WhatAClientWritesIsDiscarded) {
  daemon().trace().write("kel.net.firewall.disabled\nquit\n");
  daemon().trace().write(std::string(70'000, '\0'));
  EXPECT_EQ(line({i(1)}), inLine(",1"));
}

TEST_F(Trace, ClientsThatLeaveDisturbNobody) {
  const std::size_t descriptors = daemon().openDescriptors();
  for (int n = 0; n < 20; ++n) {
    TraceClient leaving(workspace().traceSocket());
    if (n % 2 == 0) leaving.history();
    if (n % 4 == 0) leaving.write("bye");
    emitter().send("kel.unheard.meanwhile");
    leaving.hangUp();
    emitter().send("kel.unheard.afterwards");
  }
  settle(daemon(), emitter());
  EXPECT_TRUE(eventually([&] { return daemon().openDescriptors() == descriptors; }))
      << daemon().openDescriptors() << " descriptors, once " << descriptors;
  EXPECT_EQ(log().count([](const LogLine& text) { return text.text.find("write error") != std::string::npos; }), 0U);
  EXPECT_TRUE(daemon().terminate().with(0));
}

TEST_F(Trace, AClientThatNeverReadsDelaysNobodyElse) {
  const TraceClient deaf(workspace().traceSocket());
  const std::string text(4000, 't');
  for (int n = 0; n < 500; ++n) {
    emitter().send("kel.unheard.flood", {s(text), i(n)});
    EXPECT_EQ(daemon().trace().next().id, "kel.unheard.flood");
  }
  EXPECT_TRUE(daemon().terminate(Deadline(std::chrono::seconds(8))).with(0));
}

}  // namespace
}  // namespace e2e
