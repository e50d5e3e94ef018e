#include <gtest/gtest.h>

#include "hexdump.h"
#include "platform/msgfmt.h"
#include "records.h"

namespace {

using records::Bytes;
using records::put;
using support::d;
using support::i;
using support::l;
using support::null;
using support::s;
using support::u;

bool isSound(const Bytes& bytes) {
  Kel_RecordView view;
  return Kel_ViewRecord(bytes.data(), bytes.size(), &view);
}

KelEmit::Observation workedExample() {
  return {"kel.user.disk.state",
          "Disk %s on %s: %d C, %u errors, %ld blocks, load %f",
          {s("sda"), null(), i(-5), u(3000000000), l(1099511627776), d(0.75)},
          1767225600000001};
}

TEST(ObservationRecordDocument, libraryWritesTheWorkedExample) {
  Bytes batch;
  ASSERT_EQ(KelEmit::appendRecord(workedExample(), batch), 0);
  EXPECT_EQ(batch.size(), 300U);
  EXPECT_EQ(std::string(batch.begin(), batch.end()), documentedBytes("observation-record.md"));
}

TEST(ObservationRecordDocument, libraryReadsTheWorkedExample) {
  const std::string bytes = documentedBytes("observation-record.md");
  Kel_RecordView view;
  ASSERT_TRUE(Kel_ViewRecord(bytes.data(), bytes.size(), &view));
  EXPECT_EQ(view.timestamp, 1767225600000001U);
  EXPECT_STREQ(view.id, "kel.user.disk.state");
  EXPECT_STREQ(view.message, "Disk %s on %s: %d C, %u errors, %ld blocks, load %f");
  EXPECT_EQ(view.argumentCount, 6U);
  EXPECT_EQ(view.arguments, bytes.data() + 0x68);
  EXPECT_EQ(view.end, bytes.data() + 300);
  EXPECT_EQ(MsgFmt_LoadArg(view.arguments, 4).value, 1099511627776U);
}

TEST(AppendRecord, aRecordIsAsLongAsItsContentAndFollowsTheOneBefore) {
  Bytes batch;
  ASSERT_EQ(KelEmit::appendRecord({"kel.a", "m", {}, 1}, batch), 0);
  EXPECT_EQ(batch.size(), 32U + 6 + 2);
  ASSERT_EQ(KelEmit::appendRecord({"kel.b", "m", {i(1)}, 1}, batch), 0);
  EXPECT_EQ(batch.size(), 2 * (32U + 6 + 2) + 32);
  EXPECT_TRUE(isSound(Bytes(batch.begin() + 40, batch.end())));
}

TEST(AppendRecord, theTemplateIsTheIdentifierWhereNoneIsGiven) {
  Bytes batch;
  ASSERT_EQ(KelEmit::appendRecord({"kel.a.b", {}, {}, 1}, batch), 0);
  Kel_RecordView view;
  ASSERT_TRUE(Kel_ViewRecord(batch.data(), batch.size(), &view));
  EXPECT_STREQ(view.message, "kel.a.b");
}

TEST(AppendRecord, theTimeIsNowWhereNoneIsGiven) {
  const auto now = [] {
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
  };
  const auto before = now();
  Bytes batch;
  ASSERT_EQ(KelEmit::appendRecord({"kel.a", {}, {}, {}}, batch), 0);
  Kel_RecordView view;
  ASSERT_TRUE(Kel_ViewRecord(batch.data(), batch.size(), &view));
  EXPECT_GE(static_cast<std::int64_t>(view.timestamp), before);
  EXPECT_LE(static_cast<std::int64_t>(view.timestamp), now());
}

TEST(AppendRecord, aNulInAnyTextIsRefusedAndTheBatchIsAsItWas) {
  const std::string nul("a\0b", 3);
  Bytes batch{'x'};
  EXPECT_EQ(KelEmit::appendRecord({nul, "m", {}, 1}, batch), EINVAL);
  EXPECT_EQ(KelEmit::appendRecord({"kel.a", nul, {}, 1}, batch), EINVAL);
  EXPECT_EQ(KelEmit::appendRecord({"kel.a", "m", {i(1), s(nul)}, 1}, batch), EINVAL);
  EXPECT_EQ(batch, Bytes{'x'});
}

TEST(ViewRecord, everyKindOfMalformedRecordIsRefusedAndTheViewLeftAlone) {
  for (const records::Malformed& bad : records::malformed()) {
    Kel_RecordView view;
    view.argumentCount = 4711;
    EXPECT_FALSE(Kel_ViewRecord(bad.bytes.data(), bad.bytes.size(), &view)) << bad.what;
    EXPECT_EQ(view.argumentCount, 4711U) << bad.what;
  }
}

TEST(ViewRecord, anEmptyIdentifierIsARecord) {
  const Bytes bytes = support::rawRecord("", {}, "m");
  Kel_RecordView view;
  ASSERT_TRUE(Kel_ViewRecord(bytes.data(), bytes.size(), &view));
  EXPECT_STREQ(view.id, "");
}

TEST(ViewRecord, itLiesAtAnyAddress) {
  for (std::size_t shift = 0; shift < 8; ++shift) {
    Bytes shifted(shift, 'x');
    const Bytes bytes = records::twoStrings();
    shifted.insert(shifted.end(), bytes.begin(), bytes.end());
    Kel_RecordView view;
    ASSERT_TRUE(Kel_ViewRecord(shifted.data() + shift, bytes.size(), &view)) << shift;
    const char* text = nullptr;
    ASSERT_TRUE(MsgFmt_GetSwizzledString(view.arguments, 1, view.end, &text)) << shift;
    EXPECT_STREQ(text, "cde") << shift;
  }
}

TEST(ViewRecord, entriesMayShareAString) {
  Bytes bytes = records::twoStrings();
  put(bytes, records::kSecondValueAt, std::uint64_t{64});
  EXPECT_TRUE(isSound(bytes));
}

TEST(ViewRecord, everyKnownEntryTypeIsAccepted) {
  for (std::uint32_t type = 0; type <= 5; ++type) {
    Bytes bytes = records::twoStrings();
    put(bytes, records::kTypeAt, type);
    put(bytes, records::kValueAt, ~std::uint64_t{0});
    EXPECT_TRUE(isSound(bytes)) << type;
  }
}

TEST(ViewRecord, wideStringsThatEndInsideAreAccepted) {
  for (const std::uint32_t type : {MSGFMT_ARG_STRING16, MSGFMT_ARG_STRING32}) {
    Bytes bytes = records::twoStrings();
    bytes.insert(bytes.end(), 4, '\0');
    put(bytes, 16, static_cast<std::uint32_t>(bytes.size()));
    put(bytes, records::kSecondTypeAt, type);
    // From the NUL of "cde" on: the characters end at an odd address, and wide NULs need not be aligned.
    put(bytes, records::kSecondValueAt, static_cast<std::uint64_t>(bytes.size() - records::kArrayAt - 5));
    EXPECT_TRUE(isSound(bytes)) << type;
    put(bytes, records::kSecondValueAt, std::uint64_t{0});
    EXPECT_TRUE(isSound(bytes)) << type;
  }
}

TEST(ViewRecord, reservedBytesAreNotLookedAt) {
  Bytes bytes = records::twoStrings();
  put(bytes, 24, ~std::uint64_t{0});
  EXPECT_TRUE(isSound(bytes));
}

}  // namespace
