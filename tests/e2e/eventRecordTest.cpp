// The bytes that reach the management agent.
#include <chrono>

#include "endToEnd.h"

namespace e2e {
namespace {

std::uint64_t nowUs() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(now).count());
}

std::string littleEndian(std::uint64_t value, unsigned bytes) {
  std::string text;
  for (unsigned n = 0; n < bytes; ++n) text += static_cast<char>(value >> (8 * n) & 0xff);
  return text;
}

/// One entry of the argument array.
std::string entry(std::uint32_t type, std::uint64_t value) {
  return littleEndian(type, 4) + littleEndian(0, 4) + littleEndian(value, 8) + std::string(16, '\0');
}

class EventRecords : public EndToEnd {
 protected:
  void SetUp() override {
    EndToEnd::SetUp();
    if (IsSkipped()) return;
    std::string uuid;  // bytes 0, 1, 2 and so on
    for (unsigned n = 0; n < 56; ++n) {
      uuid += "0123456789abcdef"[n / 16];
      uuid += "0123456789abcdef"[n % 16];
      if (n >= 16 && n < 54) identity_ += static_cast<char>(n);
    }
    workspace().setModel(R"({"system": {"uuid": ")" + uuid + R"("}})");
    agent_ = std::make_unique<EventReceiver>(workspace().eventSocket());
    daemon_ = std::make_unique<Daemon>(workspace());
    daemon_->startAndServe();
    emitter_ = std::make_unique<Emitter>(Emitter::toContext(workspace()));
  }
  EventReceiver& agent() { return *agent_; }
  const Emitter& emitter() { return *emitter_; }
  /// A record's bytes, all but the stamp of 16 bytes before them.
  std::string expected(const std::string& name, std::uint32_t arguments, const std::string& area) {
    const std::size_t nameLength = name.size() + 1;
    return identity_ + std::string(2, '\0') + littleEndian(72 + nameLength + area.size(), 4) +
           littleEndian(arguments, 4) + littleEndian(nameLength, 4) + name + '\0' + area + std::string(4, '\0');
  }

 private:
  std::string identity_;
  std::unique_ptr<EventReceiver> agent_;
  std::unique_ptr<Daemon> daemon_;
  std::unique_ptr<Emitter> emitter_;
};

TEST_F(EventRecords, AnEventWithoutArgumentsHasAnEmptyArea) {
  const std::uint64_t before = nowUs();
  emitter().send("kel.net.firewall.disabled");
  const EventRecord record = agent().waitForCount(1)[0];
  EXPECT_EQ(record.bytes.substr(16), expected("orn.audit.net.firewall.disabled", 0, ""));
  EXPECT_EQ(record.totalLength, 72U + 32U);
  EXPECT_EQ(record.bytes.size(), record.totalLength);
  EXPECT_GE(record.timestampUs, before);
  EXPECT_LE(record.timestampUs, nowUs());
}

TEST_F(EventRecords, StringsStandBehindTheEntriesThatPointAtThem) {
  emitter().send("kel.net.lacp.lag.transition.down", {support::s("lag1"), support::s("msw \"2\"")});
  const EventRecord record = agent().waitForCount(1)[0];
  const std::string area = entry(6, 64) + entry(6, 69) + "lag1" + '\0' + "msw \"2\"" + '\0';
  EXPECT_EQ(record.bytes.substr(16), expected("orn.problem.net.lacp.lag.transition.down", 2, area));
}

TEST_F(EventRecords, IntegersAndStringsStandInTheTemplatesOrder) {
  emitter().send("kel.net.fence.port.fail",
                 {support::s("port-1"), support::s("dvs"), support::i(0xbad0002), support::i(-5)});
  const EventRecord record = agent().waitForCount(1)[0];
  const std::string area = entry(1, 0xffff'fffb) + entry(6, 96) + entry(6, 103) + "port-1" + '\0' + "dvs" + '\0';
  EXPECT_EQ(record.bytes.substr(16), expected("orn.problem.net.fence.switch.unavailable", 3, area));
}

TEST_F(EventRecords, ANullStringIsNullAtTheAgent) {
  emitter().send("kel.net.lacp.enable", {support::null()});
  const EventRecord record = agent().waitForCount(1)[0];
  ASSERT_EQ(record.arguments.size(), 1U);
  EXPECT_EQ(record.arguments[0].type, 6U);
  EXPECT_TRUE(record.arguments[0].null || record.arguments[0].text == "(null)");
}

TEST_F(EventRecords, EachEventComesOnAConnectionOfItsOwnInOrder) {
  for (int n = 0; n < 50; ++n) emitter().send("kel.net.lacp.enable", {support::s("msw" + std::to_string(n))});
  const std::vector<EventRecord> records = agent().waitForCount(50);
  for (std::size_t n = 0; n < records.size(); ++n) {
    EXPECT_EQ(records[n].bytes.size(), records[n].totalLength);
    EXPECT_EQ(records[n].name, "orn.audit.net.lacp.enable");
    ASSERT_EQ(records[n].arguments.size(), 1U);
    EXPECT_EQ(records[n].arguments[0].text, "msw" + std::to_string(n));
    if (n > 0) {
      EXPECT_GE(records[n].timestampUs, records[n - 1].timestampUs);
    }
  }
}

TEST_F(EventRecords, TheLargestRecordIsSentWholeAndALargerOneDropped) {
  // What the name and the 72 bytes around it leave of 18736 is the area's: one entry and its string.
  constexpr std::size_t kBuffer = 18736, kNameLength = 26, kEntry = 32;
  const std::size_t fits = kBuffer - 72 - kNameLength - kEntry - 1;
  emitter().send("kel.net.lacp.enable", {support::s(std::string(fits, 'f'))});
  emitter().send("kel.net.lacp.enable", {support::s(std::string(fits + 1, 'x'))});
  emitter().send("kel.net.lacp.enable", {support::s(std::string(50'000, 'x'))});
  emitter().send("kel.net.firewall.disabled");
  const std::vector<EventRecord> records = agent().waitForCount(2);
  EXPECT_EQ(records[0].bytes.size(), kBuffer);
  EXPECT_EQ(records[0].totalLength, kBuffer);
  ASSERT_EQ(records[0].arguments.size(), 1U);
  EXPECT_EQ(records[0].arguments[0].text, std::string(fits, 'f'));
  EXPECT_EQ(records[1].name, "orn.audit.net.firewall.disabled");
}

}  // namespace
}  // namespace e2e
