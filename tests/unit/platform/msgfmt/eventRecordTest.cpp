#include "msgfmt/eventRecord.h"

#include <gtest/gtest.h>

#include <cstring>

#include "hexdump.h"
#include "testArea.h"

namespace {

using platform::decodeEventRecord;
using platform::EventKind;
using platform::EventRecord;
using platform::EventRecordError;

/// Puts a record together by the documented offsets.
struct RecordBytes {
  std::string name = "orn.audit.test";
  std::string area;
  std::uint32_t count = 0;
  std::string identity = std::string(38, '\x11');

  [[nodiscard]] std::string bytes() const {
    std::string record(68, '\0');
    const auto nameLength = static_cast<std::uint32_t>(name.size() + 1);
    put(record, 0, std::uint64_t{1767225600000000});
    put(record, 8, std::uint64_t{0x0102030405060708});
    record.replace(16, identity.size(), identity);
    put(record, 56, static_cast<std::uint32_t>(72 + nameLength + area.size()));
    put(record, 60, count);
    put(record, 64, nameLength);
    record.append(name).push_back('\0');
    return record + area + std::string(4, '\0');
  }

  template <typename T>
  static void put(std::string& record, std::size_t offset, T value) {
    std::memcpy(record.data() + offset, &value, sizeof value);
  }
};

std::string reason(const std::string& bytes) {
  const auto decoded = decodeEventRecord(bytes);
  const auto* error = std::get_if<EventRecordError>(&decoded);
  return error == nullptr ? "(a record)" : error->reason;
}

EventRecord decode(const std::string& bytes) {
  auto decoded = decodeEventRecord(bytes);
  if (const auto* error = std::get_if<EventRecordError>(&decoded)) {
    ADD_FAILURE() << error->reason;
    return {};
  }
  return std::get<EventRecord>(std::move(decoded));
}

TEST(EventRecord, workedExampleOfTheDocumentIsDecoded) {
  const EventRecord record = decode(documentedBytes("event-record.md"));
  EXPECT_EQ(record.timestamp, 1767225599999999U);
  EXPECT_EQ(record.kernelWord, 0U);
  for (std::size_t n = 0; n < record.hostIdentity.size(); ++n) EXPECT_EQ(record.hostIdentity[n], 0x10 + n);
  EXPECT_EQ(record.kind, EventKind::problem);
  EXPECT_EQ(record.name, "orn.problem.net.redundancy.lost");
  ASSERT_EQ(record.arguments.size(), 3U);
  EXPECT_EQ(std::get<std::string>(record.arguments[0]), "switch0");
  EXPECT_EQ(std::get<std::string>(record.arguments[1]), "nic0");
  EXPECT_EQ(std::get<std::string>(record.arguments[2]), "\"Production\"");
  EXPECT_EQ(
      record.text("Lost uplink redundancy on virtual switch %s. Physical NIC %s is down. Affected port groups: %s"),
      "Lost uplink redundancy on virtual switch switch0. Physical NIC nic0 is down. Affected port groups: "
      "\"Production\"");
}

TEST(EventRecord, workedExampleIsWhatTheLibraryWrites) {
  RecordBytes record;
  record.name = "orn.problem.net.redundancy.lost";
  record.identity.clear();
  for (int byte = 0x10; byte < 0x10 + 38; ++byte) record.identity.push_back(static_cast<char>(byte));
  TestArea area = TestArea::read(TestArea::kPlenty, "%s %s %s", "switch0", "nic0", "\"Production\"");
  ASSERT_TRUE(area.swizzle());
  record.area = area.bytes();
  record.count = area.count();
  std::string bytes = record.bytes();
  RecordBytes::put(bytes, 0, std::uint64_t{1767225599999999});
  RecordBytes::put(bytes, 8, std::uint64_t{0});
  EXPECT_EQ(bytes, documentedBytes("event-record.md"));
}

TEST(EventRecord, recordWithoutArgumentsIsDecoded) {
  const EventRecord record = decode(RecordBytes{}.bytes());
  EXPECT_EQ(record.timestamp, 1767225600000000U);
  EXPECT_EQ(record.kernelWord, 0x0102030405060708U);
  EXPECT_EQ(record.name, "orn.audit.test");
  EXPECT_TRUE(record.arguments.empty());
  EXPECT_TRUE(record.argumentArea.empty());
  EXPECT_EQ(record.text("No args"), "No args");
}

TEST(EventRecord, kindFollowsThePrefix) {
  RecordBytes record;
  for (const auto& [name, kind, word] :
       {std::tuple{"orn.problem.x", EventKind::problem, "problem"},
        std::tuple{"orn.audit.x", EventKind::audit, "audit"}, std::tuple{"orn.clear.x", EventKind::clear, "clear"}}) {
    record.name = name;
    EXPECT_EQ(decode(record.bytes()).kind, kind);
    EXPECT_EQ(platform::eventKindName(kind), word);
  }
  for (const char* name : {"", "orn.", "orn.problem", "orn.other.x", "xorn.problem.x", "ORN.problem.x"}) {
    record.name = name;
    EXPECT_EQ(reason(record.bytes()), "the name begins with no kind of event") << name;
  }
}

TEST(EventRecord, everyTypeOfArgumentHasItsValue) {
  RecordBytes record;
  record.area = entryBytes({makeEntry(MSGFMT_ARG_INT32, 0xffffffffU), makeEntry(MSGFMT_ARG_INT32, 0xffffffffU, 1),
                            makeEntry(MSGFMT_ARG_INT64, UINT64_MAX), makeEntry(MSGFMT_ARG_INT64, UINT64_MAX, 1),
                            makeEntry(MSGFMT_ARG_PTR32, 0x1234567800000010U), makeEntry(MSGFMT_ARG_PTR64, 0x20),
                            makeEntry(MSGFMT_ARG_FLOAT64, 0x4029000000000000U), makeEntry(MSGFMT_ARG_STRING8, 0),
                            makeEntry(MSGFMT_ARG_STRING8, 9 * 32)}) +
                std::string("end\0", 4);
  record.count = 9;
  const std::vector<KelEmit::Argument> arguments = decode(record.bytes()).arguments;
  ASSERT_EQ(arguments.size(), 9U);
  EXPECT_EQ(std::get<std::int32_t>(arguments[0]), -1);
  EXPECT_EQ(std::get<std::uint32_t>(arguments[1]), 0xffffffffU);
  EXPECT_EQ(std::get<std::int64_t>(arguments[2]), -1);
  EXPECT_EQ(std::get<std::uint64_t>(arguments[3]), UINT64_MAX);
  EXPECT_EQ(std::get<std::uint32_t>(arguments[4]), 0x10U);
  EXPECT_EQ(std::get<std::uint64_t>(arguments[5]), 0x20U);
  EXPECT_EQ(std::get<double>(arguments[6]), 12.5);
  EXPECT_TRUE(std::holds_alternative<KelEmit::NullText>(arguments[7]));
  EXPECT_EQ(std::get<std::string>(arguments[8]), "end");
}

TEST(EventRecord, bytesBehindTheRecordArePassedOver) {
  EXPECT_EQ(decode(RecordBytes{}.bytes() + "sent twice").name, "orn.audit.test");
}

TEST(EventRecord, everyTruncationIsRefused) {
  const std::string whole = documentedBytes("event-record.md");
  for (std::size_t length = 0; length < whole.size(); ++length) {
    // An allocation of exactly this length, so that a sanitizer sees a read beyond it.
    const std::vector<char> cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
    EXPECT_TRUE(std::holds_alternative<EventRecordError>(decodeEventRecord(cut))) << length;
  }
}

TEST(EventRecord, lengthsThatDoNotFitAreRefused) {
  const std::string good = RecordBytes{}.bytes();  // 72 + 15 bytes
  std::string bytes = good;
  RecordBytes::put(bytes, 56, std::uint32_t{88});
  EXPECT_EQ(reason(bytes), "the record says 88 bytes, but 87 arrived");
  RecordBytes::put(bytes, 56, std::uint32_t{18737});
  EXPECT_EQ(reason(bytes), "a length of 18737 bytes is beyond the longest record");
  RecordBytes::put(bytes, 56, UINT32_MAX);
  EXPECT_EQ(reason(bytes), "a length of 4294967295 bytes is beyond the longest record");
  RecordBytes::put(bytes, 56, std::uint32_t{86});
  EXPECT_EQ(reason(bytes), "the name reaches beyond the record");
  RecordBytes::put(bytes, 56, std::uint32_t{0});
  EXPECT_EQ(reason(bytes), "the name reaches beyond the record");
  bytes = good;
  RecordBytes::put(bytes, 64, std::uint32_t{0});
  EXPECT_EQ(reason(bytes), "a name cannot have 0 bytes");
  RecordBytes::put(bytes, 64, std::uint32_t{130});
  EXPECT_EQ(reason(bytes), "a name cannot have 130 bytes");
  RecordBytes::put(bytes, 64, UINT32_MAX);
  EXPECT_EQ(reason(bytes), "a name cannot have 4294967295 bytes");
  EXPECT_EQ(reason("short"), "a record has at least 72 bytes, this one has 5");
}

TEST(EventRecord, longestNameIsDecoded) {
  RecordBytes record;
  record.name = "orn.problem." + std::string(116, 'x');
  EXPECT_EQ(decode(record.bytes()).name, record.name);
  record.name += 'x';
  EXPECT_EQ(reason(record.bytes()), "a name cannot have 130 bytes");
}

TEST(EventRecord, nameThatDoesNotEndWhereItShouldIsRefused) {
  std::string bytes = RecordBytes{}.bytes();
  bytes[68 + 14] = 'x';
  EXPECT_EQ(reason(bytes), "the name does not end where its length says");
  bytes = RecordBytes{}.bytes();
  bytes[68 + 12] = '\0';
  EXPECT_EQ(reason(bytes), "the name does not end where its length says");
}

TEST(EventRecord, argumentsThatDoNotFitAreRefused) {
  RecordBytes record;
  record.area = entryBytes({makeEntry(MSGFMT_ARG_INT32, 1)});
  record.count = 2;
  EXPECT_EQ(reason(record.bytes()), "2 arguments do not fit into 32 bytes");
  record.count = UINT32_MAX;
  EXPECT_EQ(reason(record.bytes()), "4294967295 arguments do not fit into 32 bytes");
}

TEST(EventRecord, argumentWithoutUsableValueIsRefused) {
  RecordBytes record;
  record.count = 2;
  const auto second = [&](const MsgFmt_Arg& entry, const std::string& strings) {
    record.area = entryBytes({makeEntry(MSGFMT_ARG_INT32, 1), entry}) + strings;
    return reason(record.bytes());
  };
  const std::string noString = "argument 1 has no usable value (type 6)";
  const std::string strings("abc\0", 4);
  EXPECT_EQ(second(makeEntry(MSGFMT_ARG_STRING8, 64), strings), "(a record)");
  EXPECT_EQ(second(makeEntry(MSGFMT_ARG_STRING8, 63), strings), noString);
  EXPECT_EQ(second(makeEntry(MSGFMT_ARG_STRING8, 1), strings), noString);
  EXPECT_EQ(second(makeEntry(MSGFMT_ARG_STRING8, 68), strings), noString) << "a string in the tail";
  EXPECT_EQ(second(makeEntry(MSGFMT_ARG_STRING8, UINT64_MAX), strings), noString);
  EXPECT_EQ(second(makeEntry(MSGFMT_ARG_STRING8, 64), "abc"), noString) << "ended by the tail only";
  EXPECT_EQ(second(makeEntry(MSGFMT_ARG_STRING16, 64), strings), "argument 1 has no usable value (type 7)");
  EXPECT_EQ(second(makeEntry(MSGFMT_ARG_STRING32, 64), strings), "argument 1 has no usable value (type 8)");
  EXPECT_EQ(second(makeEntry(0, 64), strings), "argument 1 has no usable value (type 0)");
  EXPECT_EQ(second(makeEntry(99, 64), strings), "argument 1 has no usable value (type 99)");
}

}  // namespace
