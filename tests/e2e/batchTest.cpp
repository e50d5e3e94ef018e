// Batches at the kernel contexts: what is malformed or too large never reaches or stops the loop.
#include <cstring>
#include <functional>

#include "endToEnd.h"

namespace e2e {
namespace {

constexpr std::size_t kLargestBatch = 131'071;

// Offsets in a raw record, little-endian: the number of arguments, where their array, the identifier
// and the message begin, and the length of it all.
constexpr std::size_t kArgumentCount = 8, kArgumentOffset = 12, kLength = 16, kMessageOffset = 20, kIdentifier = 32;

Batch with(Batch batch, std::size_t offset, std::uint32_t value) {
  std::memcpy(batch.data() + offset, &value, sizeof value);
  return batch;
}

std::uint32_t read32(const Batch& batch, std::size_t offset) {
  std::uint32_t value = 0;
  std::memcpy(&value, batch.data() + offset, sizeof value);
  return value;
}

Batch cut(Batch batch, std::size_t bytes) {
  batch.resize(bytes);
  return batch;
}

struct Malformed {
  std::string what;
  Batch batch;
};

/// One batch of every kind; none may be read.
std::vector<Malformed> malformedBatches() {
  const Batch plain = record("kel.net.firewall.disabled");
  const Batch withText = record("kel.net.firewall.enabled", {support::s("qk0")});
  const auto length = static_cast<std::uint32_t>(plain.size());
  const std::uint32_t area = read32(withText, kArgumentOffset);
  Batch noEnd = plain;  // neither the identifier nor the message behind it has a NUL
  for (std::size_t n = kIdentifier; n < noEnd.size(); ++n) {
    if (noEnd[n] == '\0') noEnd[n] = 'x';
  }
  Batch textWithoutEnd = withText;
  textWithoutEnd.back() = 'x';
  return {
      {"one byte", Batch(1, 'k')},
      {"less than a header", cut(plain, 31)},
      {"a header alone", with(cut(plain, 32), kLength, 32)},
      {"a header alone that claims more", cut(plain, 32)},
      {"zeros", Batch(200, '\0')},
      {"all bits set", Batch(200, '\xff')},
      {"text",
       [] {
         const std::string text(300, 'A');
         return Batch(text.begin(), text.end());
       }()},
      {"a length of 0", with(plain, kLength, 0)},
      {"a length of 31", with(plain, kLength, 31)},
      {"a length of 32", with(plain, kLength, 32)},
      {"a length one short", with(plain, kLength, length - 1)},
      {"a length one beyond", with(plain, kLength, length + 1)},
      {"the greatest length", with(plain, kLength, 0xffff'ffff)},
      {"a length that is negative", with(plain, kLength, 0x8000'0000)},
      {"cut by a byte", cut(plain, plain.size() - 1)},
      {"a byte too many", joined(plain, Batch(1, '\0'))},
      {"a header too many", joined(plain, Batch(32, '\0'))},
      {"nothing terminated", noEnd},
      {"a message outside", with(plain, kMessageOffset, length)},
      {"a message far outside", with(plain, kMessageOffset, 0xffff'fff0)},
      {"more arguments than room", with(withText, kArgumentCount, 100)},
      {"arguments without number", with(withText, kArgumentCount, 0xffff'ffff)},
      {"as many arguments as wrap round", with(withText, kArgumentCount, 0x0800'0001)},
      {"arguments outside", with(withText, kArgumentOffset, static_cast<std::uint32_t>(withText.size()))},
      {"arguments far outside", with(withText, kArgumentOffset, 0xffff'ffe0)},
      {"a string outside", with(withText, area + 8, 0x10000)},
      {"a string far outside", with(with(withText, area + 8, 0xffff'ffff), area + 12, 0xffff'ffff)},
      {"a string without end", textWithoutEnd},
      {"a good record before a bad one", joined(plain, with(plain, kLength, 0))},
      {"a bad record before a good one", joined(with(plain, kLength, length + 1), plain)},
      {"a good record before a cut one", joined(plain, cut(plain, 40))},
  };
}

class Batches : public Serving {
 protected:
  /// Sends the batch with the marker behind it, and returns what was traced of the batch.
  std::vector<TraceLine> traced(const Emitter& emitter, const Batch& batch) {
    emitter.send(batch);
    return settle(daemon(), emitter);
  }
};

TEST_F(Batches, MalformedOnesAreDroppedWholeAndTheDaemonServesOn) {
  for (const bool user : {false, true}) {
    const Emitter emitter = user ? Emitter::toUserContext(workspace()) : Emitter::toContext(workspace());
    for (const Malformed& malformed : malformedBatches()) {
      EXPECT_TRUE(traced(emitter, malformed.batch).empty())
          << malformed.what << (user ? " from a user" : " from the kernel");
    }
  }
  EXPECT_TRUE(daemon().comesToRest());
}

TEST_F(Batches, AnEmptyOneIsIgnored) {
  const Emitter emitter = Emitter::toContext(workspace());
  for (int n = 0; n < 3; ++n) EXPECT_TRUE(traced(emitter, {}).empty());
  EXPECT_TRUE(daemon().comesToRest());
}

TEST_F(Batches, DropsAreLoggedAtMostOnceAMinutePerSender) {
  const Emitter emitter = Emitter::toContext(workspace());
  const auto ofThePlatform = [](const LogLine& line) { return line.text.find("kelplat: ") != std::string::npos; };
  const std::size_t before = log().count(ofThePlatform);
  for (int n = 0; n < 50; ++n) traced(emitter, Batch(100, 'x'));
  log().waitFor("a line of the platform about dropped batches", ofThePlatform, before + 1);
  EXPECT_EQ(log().count(ofThePlatform), before + 1);
}

TEST_F(Batches, ManyRecordsOfOneBatchAreReadInOrder) {
  Batch batch;
  for (int n = 0; n < 500; ++n) batch = joined(batch, record("kel.unheard.number" + std::to_string(n)));
  ASSERT_LE(batch.size(), kLargestBatch);
  const std::vector<TraceLine> lines = traced(Emitter::toContext(workspace()), batch);
  ASSERT_EQ(lines.size(), 500U);
  for (std::size_t n = 0; n < lines.size(); ++n) EXPECT_EQ(lines[n].id, "kel.unheard.number" + std::to_string(n));
}

TEST_F(Batches, EverySizeUpToTheLargestIsDelivered) {
  const Emitter emitter = Emitter::toContext(workspace());
  std::vector<std::size_t> sizes;
  for (const std::size_t capacity : {8192U, 12288U, 18432U, 27648U, 41472U, 62208U, 93312U, 131072U}) {
    sizes.insert(sizes.end(), {capacity - 1, capacity, capacity + 1});
  }
  sizes.resize(sizes.size() - 2);
  ASSERT_EQ(sizes.back(), kLargestBatch);
  for (const std::size_t size : sizes) {
    EXPECT_EQ(traced(emitter, recordOfSize("kel.unheard.large", size)).size(), 1U) << size;
  }
}

TEST_F(Batches, TheLargestIsDeliveredAtOnce) {
  EXPECT_EQ(traced(Emitter::toContext(workspace()), recordOfSize("kel.unheard.large", kLargestBatch)).size(), 1U);
}

TEST_F(Batches, OneTooLargeIsDroppedAndTheOneBehindItDelivered) {
  const Emitter emitter = Emitter::toContext(workspace());
  for (const std::size_t size : {kLargestBatch + 1, kLargestBatch + 2, std::size_t{180'000}}) {
    emitter.send(recordOfSize("kel.unheard.toolarge", size));
    emitter.send("kel.unheard.behind");
    const std::vector<TraceLine> lines = settle(daemon(), emitter);
    ASSERT_EQ(lines.size(), 1U) << size;
    EXPECT_EQ(lines[0].id, "kel.unheard.behind");
  }
  EXPECT_TRUE(daemon().comesToRest());
}

TEST_F(Batches, TwoTooLargeInARowAreBothDropped) {
  const Emitter emitter = Emitter::toContext(workspace());
  emitter.send(recordOfSize("kel.unheard.toolarge", kLargestBatch + 1));
  emitter.send(recordOfSize("kel.unheard.toolarge", kLargestBatch + 1));
  EXPECT_TRUE(settle(daemon(), emitter).empty());
}

TEST_F(Batches, OneTooLargeOnOneContextLeavesTheOthersAlone) {
  const Emitter first = Emitter::toContext(workspace(), 3), second = Emitter::toContext(workspace(), 4);
  first.send(recordOfSize("kel.unheard.toolarge", kLargestBatch + 1));
  second.send("kel.unheard.other");
  daemon().trace().waitFor("IN", "kel.unheard.other");
  EXPECT_TRUE(settle(daemon(), first).empty());
}

TEST_F(Batches, OneTooLargeFromAUserIsDroppedAndItsConnectionServedOn) {
  const Emitter emitter = Emitter::toUserContext(workspace());
  for (const std::size_t size : {kLargestBatch + 1, std::size_t{180'000}}) {
    EXPECT_TRUE(traced(emitter, recordOfSize("kel.user.toolarge", size)).empty()) << size;
  }
  EXPECT_EQ(traced(emitter, recordOfSize("kel.user.large", kLargestBatch)).size(), 1U);
  EXPECT_TRUE(daemon().comesToRest());
}

TEST_F(Batches, ARecordLargerThanAPipeReachesItsCorrelatorInPieces) {
  const EventReceiver agent(workspace().eventSocket());
  const std::string port(100'000, 'p');
  Emitter::toContext(workspace()).send("kel.net.lacp.enable", {support::s("msw1"), support::s(port)});
  daemon().trace().waitFor("OUT", "orn.audit.net.lacp.enable");
}

}  // namespace
}  // namespace e2e
