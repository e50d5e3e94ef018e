// What is written, and what is refused.
#include <cerrno>
#include <chrono>

#include "fixture.h"
#include "platform/kel.h"
#include "platform/kelemit.h"

namespace {

using Ids = std::vector<std::string>;

constexpr std::uint64_t kStampUs = 1'767'225'600'123'456;

/// The raw record with this time stamp.
Batch record(const KelEmit::Observation& observation) {
  Batch batch;
  EXPECT_EQ(KelEmit::appendRecord(observation, batch), 0);
  return batch;
}

/// Record bytes of an observation that has nothing but its identifier and one string.
constexpr std::size_t kOverheadBytes = 32 + 2 * sizeof "kel.user.a" + 32 + 1;

class ObservationsTest : public KelUserTest {
 protected:
  static kel_user_observation plain(const char* id) { return {id, nullptr, nullptr, 0, &kStampUs}; }
  [[nodiscard]] int emitBatch(const std::vector<kel_user_observation>& observations) const {
    return kel_user_emit_batch(connected_.handle.get(), observations.data(), observations.size(), -1);
  }
  [[nodiscard]] int emitText(std::size_t bytes) const {
    const std::string text(bytes, 'x');
    const kel_user_arg arg = kel_user_string(text.c_str());
    return kel_user_emit(connected_.handle.get(), "kel.user.a", nullptr, &arg, 1);
  }
  [[nodiscard]] const Connection& connection() const { return connected_.connection; }

  Listener listener_{socketPath()};
  Connected connected_ = connect(listener_);
};

TEST_F(ObservationsTest, EveryTypeIsWritten) {
  const kel_user_arg args[] = {kel_user_string("a b"), kel_user_string(nullptr),     kel_user_string(""),
                               kel_user_int32(-1),     kel_user_uint32(0xffffffffU), kel_user_int64(-9),
                               kel_user_uint64(16),    kel_user_double(0.5)};
  ASSERT_EQ(emitBatch({{"kel.user.typed", "%s", args, std::size(args), &kStampUs}}), 0);
  EXPECT_EQ(connection().next(), record({"kel.user.typed",
                                         "%s",
                                         {std::string("a b"), KelEmit::NullText{}, std::string(), std::int32_t{-1},
                                          std::uint32_t{0xffffffff}, std::int64_t{-9}, std::uint64_t{16}, 0.5},
                                         kStampUs}));
}

TEST_F(ObservationsTest, TheTemplateIsTheIdentifierWhereThereIsNone) {
  ASSERT_EQ(emitBatch({plain("kel.user.plain")}), 0);
  EXPECT_EQ(connection().next(), record({"kel.user.plain", "kel.user.plain", {}, kStampUs}));
}

TEST_F(ObservationsTest, OneWithoutATimeIsStampedNow) {
  const auto now = [] { return std::chrono::system_clock::now().time_since_epoch() / std::chrono::microseconds(1); };
  const auto before = now();
  ASSERT_EQ(emit(connected_.handle, "kel.user.now"), 0);
  const Batch batch = connection().next();
  Kel_RecordView view;
  ASSERT_TRUE(Kel_ViewRecord(batch.data(), batch.size(), &view));
  EXPECT_GE(view.timestamp, static_cast<std::uint64_t>(before));
  EXPECT_LE(view.timestamp, static_cast<std::uint64_t>(now()));
}

TEST_F(ObservationsTest, ABatchKeepsItsOrderAndIsOneMessage) {
  ASSERT_EQ(emitBatch({plain("kel.user.a"), plain("kel.user.b"), plain("kel.user.c")}), 0);
  EXPECT_EQ(connection().nextIds(), (Ids{"kel.user.a", "kel.user.b", "kel.user.c"}));
  EXPECT_EQ(counts(connected_.handle).sent, 1U + 3U);
}

TEST_F(ObservationsTest, ABatchIsShorterThan131072Bytes) {
  EXPECT_EQ(emitText(131072 - kOverheadBytes), EMSGSIZE);
  ASSERT_EQ(emitText(131071 - kOverheadBytes), 0);
  EXPECT_EQ(connection().next().size(), 131071U);
  const kel_user_arg arg = kel_user_string("");
  const kel_user_observation one{"kel.user.a", nullptr, &arg, 1, nullptr};
  EXPECT_EQ(emitBatch(std::vector(131072 / kOverheadBytes + 1, one)), EMSGSIZE);
  EXPECT_EQ(emitBatch(std::vector(131072 / kOverheadBytes, one)), 0);
}

TEST_F(ObservationsTest, WhateverIsTooLongIsRefused) {
  const std::string endless(10'000'000, 'x');
  EXPECT_EQ(emitBatch({plain(endless.c_str())}), EMSGSIZE);
  EXPECT_EQ(emitBatch({{"kel.user.a", endless.c_str(), nullptr, 0, nullptr}}), EMSGSIZE);
  const std::vector<kel_user_arg> many(5000, kel_user_int32(1));
  EXPECT_EQ(emitBatch({{"kel.user.a", nullptr, many.data(), many.size(), nullptr}}), EMSGSIZE);
  EXPECT_EQ(emitBatch({{"kel.user.a", nullptr, many.data(), SIZE_MAX, nullptr}}), EMSGSIZE);
}

TEST_F(ObservationsTest, WhatMakesNoSenseIsRefusedAndNothingOfItsBatchIsSent) {
  const kel_user_arg unknown{99, {}};
  const kel_user_arg untyped{0, {}};
  for (const kel_user_observation& bad :
       {plain(nullptr), plain(""), kel_user_observation{"kel.user.a", nullptr, nullptr, 1, nullptr},
        kel_user_observation{"kel.user.a", nullptr, &unknown, 1, nullptr},
        kel_user_observation{"kel.user.a", nullptr, &untyped, 1, nullptr}}) {
    EXPECT_EQ(emitBatch({plain("kel.user.good"), bad}), EINVAL);
  }
  EXPECT_EQ(emitBatch({}), EINVAL);
  const kel_user_observation good = plain("kel.user.good");
  EXPECT_EQ(kel_user_emit_batch(nullptr, &good, 1, -1), EINVAL);
  EXPECT_EQ(kel_user_emit_batch(connected_.handle.get(), nullptr, 1, -1), EINVAL);
  EXPECT_EQ(kel_user_emit(nullptr, "kel.user.a", nullptr, nullptr, 0), EINVAL);
  EXPECT_EQ(counts(connected_.handle).sent, 1U);
  EXPECT_EQ(counts(connected_.handle).dropped, 0U) << "what is refused is the caller's mistake";
  EXPECT_EQ(emit(connected_.handle, "kel.user.next"), 0);
  EXPECT_EQ(connection().nextIds(), Ids{"kel.user.next"});
}

TEST_F(ObservationsTest, AHandleIsNotMadeOfNonsense) {
  kel_user* handle = nullptr;
  EXPECT_EQ(kel_user_open(-1, &handle), EINVAL);
  EXPECT_EQ(handle, nullptr);
  EXPECT_EQ(kel_user_open(0, nullptr), EINVAL);
  kel_user_counters counters{};
  EXPECT_EQ(kel_user_counts(nullptr, &counters), EINVAL);
  EXPECT_EQ(kel_user_counts(connected_.handle.get(), nullptr), EINVAL);
  kel_user_close(nullptr);
}

}  // namespace
