#include "kel/batch.h"

#include <gtest/gtest.h>

#include "records.h"

namespace {

using platform::BatchVerdict;
using platform::Emitter;
using records::Bytes;

BatchVerdict verdict(const Bytes& batch, Emitter emitter = Emitter::privileged) {
  return platform::checkBatch(batch.data(), batch.size(), emitter);
}

Bytes recordOf(const std::string& id) {
  return support::rawRecord(id);
}

TEST(Batch, oneRecordOrManyAreSound) {
  EXPECT_EQ(verdict(records::twoStrings()), BatchVerdict::sound);
  EXPECT_EQ(verdict(records::batchOf({recordOf("kel.a"), records::twoStrings(), recordOf("k")})), BatchVerdict::sound);
}

TEST(Batch, anEmptyOneIsMalformed) {
  EXPECT_EQ(verdict({}), BatchVerdict::malformed);
}

TEST(Batch, everyKindOfMalformedRecordSpoilsIt) {
  for (const records::Malformed& bad : records::malformed()) {
    EXPECT_EQ(verdict(bad.bytes), BatchVerdict::malformed) << bad.what;
    EXPECT_EQ(verdict(records::batchOf({records::twoStrings(), bad.bytes})), BatchVerdict::malformed) << bad.what;
  }
}

TEST(Batch, aRecordWithoutIdentifierSpoilsIt) {
  EXPECT_EQ(verdict(recordOf("")), BatchVerdict::malformed);
  EXPECT_EQ(verdict(records::batchOf({recordOf("kel.a"), support::rawRecord("", {}, "m")})), BatchVerdict::malformed);
}

TEST(Batch, bytesLeftOverAtItsEndSpoilIt) {
  for (const std::size_t extra : {1U, 31U, 32U, 40U}) {
    EXPECT_EQ(verdict(records::batchOf({recordOf("kel.a"), Bytes(extra, '\0')})), BatchVerdict::malformed) << extra;
  }
}

TEST(Batch, anUnprivilegedSenderEmitsUserAndExternalObservationsOnly) {
  for (const char* id : {"kel.user.a", "kel.user.", "kel.external.b.c"}) {
    EXPECT_EQ(verdict(recordOf(id), Emitter::unprivileged), BatchVerdict::sound) << id;
  }
  for (const char* id : {"kel.user", "kel.userx.a", "kel.external", "kel.externals.a", "kel.net.qnic.linkstate.down",
                         "xkel.user.a", "KEL.user.a"}) {
    EXPECT_EQ(verdict(recordOf(id), Emitter::unprivileged), BatchVerdict::forbidden) << id;
    EXPECT_EQ(verdict(recordOf(id), Emitter::privileged), BatchVerdict::sound) << id;
  }
}

TEST(Batch, oneForbiddenRecordSpoilsIt) {
  const Bytes batch = records::batchOf({recordOf("kel.user.a"), recordOf("kel.net.a"), recordOf("kel.user.b")});
  EXPECT_EQ(verdict(batch, Emitter::unprivileged), BatchVerdict::forbidden);
}

}  // namespace
