#include "selftestSequence.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <set>

#include "kel/batch.h"
#include "platform/kel.h"

namespace {

struct Release {
  void operator()(Kel* observation) const { Kel_Free(observation); }
  void operator()(char* text) const { std::free(text); }
};

std::unique_ptr<Kel, Release> observationOf(const kelctl::Batch& batch) {
  auto* const record = static_cast<char*>(std::malloc(batch.size()));
  std::copy(batch.begin(), batch.end(), record);
  std::unique_ptr<Kel, Release> observation(Kel_MakeKel(record, batch.size()));
  if (!observation) std::free(record);
  return observation;
}

std::string idOf(const kelctl::Batch& batch) {
  const auto observation = observationOf(batch);
  const char* id = nullptr;
  if (observation) Kel_GetID(observation.get(), &id);
  return id != nullptr ? id : "";
}

bool isSound(const kelctl::Batch& batch) {
  return platform::checkBatch(batch.data(), batch.size(), platform::Emitter::privileged) ==
         platform::BatchVerdict::sound;
}

TEST(SelftestSequence, The21ObservationsShowTheTextsThatAreExpected) {
  const std::vector<std::pair<std::string, std::string>> expected = {
      {"kel.tests.async.noData", "this is an observation with no data"},
      {"kel.tests.async.withPath", "this is an observation with a complicated /a/fake/path${path} path."},
      {"kel.tests.async.withLog", "this is an ob with an associated Log message."},
      {"kel.tests.async.withWarn", "this is an ob with an associated Warn message."},
      {"kel.tests.async.withIntParams",
       "this is an observation with integer parameters. -559038737, deadbeef, -2401053088876216593"},
      {"kel.tests.async.withUintParams",
       "this is an observation with unsigned integer parameters. 3735928559, deadbeef, 16045690984833335023"},
      {"kel.tests.async.withStringParams", "this is an observation with a string parameter: some string"},
      {"kel.tests.async.withLongStringParam",
       "this is an observation with a string parameter: some looong long long long long long string"},
      {"kel.tests.async.withLongStringParams",
       "this is an observation with a string parameter: some looong long long long long long string and another: "
       "some string"},
      {"kel.tests.corrupt.format.empty", ""},
      {"kel.tests.corrupt.format.doublepercent", "%"},
      {"kel.tests.corrupt.format.s.zeros", ""},
      {"kel.tests.corrupt.format.s.zero3", "000"},
      {"kel.tests.corrupt.format.tag.invalid1", "0${"},
      {"kel.tests.corrupt.format.tag.invalid2", "0${asdf"},
      {"kel.tests.corrupt.format.tag.nestedInval", "0${a0{df}"},
      {"kel.tests.corrupt.format.tag.ugly", "0${009__.asdf}"},
      {"kel.tests.corrupt.format.tag.vugly", "0${009__.asdf=bar=baz=foof}"},
      {"kel.tests.corrupt.format.tag.assign.inval", "0${=invalid}"},
      {"kel.tests.corrupt.format.tag.notreally", "%${ignore}"},
      {"kel.tests.corrupt.format.tag.notreally2", "%${=ignore}"},
  };
  ASSERT_EQ(kelctl::selftestObservations().size(), kelctl::kSelftestObservations);
  for (std::size_t n = 0; n < expected.size(); ++n) {
    kelctl::Batch batch;
    ASSERT_EQ(KelEmit::appendRecord(kelctl::selftestObservations()[n], batch), 0);
    const auto observation = observationOf(batch);
    ASSERT_TRUE(observation) << n;
    EXPECT_EQ(idOf(batch), expected[n].first);
    const std::unique_ptr<char, Release> message(Kel_GetMsg(observation.get()));
    EXPECT_STREQ(message.get(), expected[n].second.c_str());
  }
}

TEST(SelftestSequence, EachMalformedBatchIsMalformedInAWayOfItsOwn) {
  const std::vector<kelctl::Batch> batches = kelctl::malformedBatches();
  EXPECT_EQ(std::set<kelctl::Batch>(batches.begin(), batches.end()).size(), batches.size());
  for (std::size_t n = 0; n < batches.size(); ++n) {
    EXPECT_EQ(platform::checkBatch(batches[n].data(), batches[n].size(), platform::Emitter::privileged),
              platform::BatchVerdict::malformed)
        << n;
  }
  EXPECT_TRUE(batches.back().empty());
}

TEST(SelftestSequence, MarkersEncloseTheObservationsAndTheMalformedBatches) {
  const std::vector<kelctl::Batch> batches = kelctl::selftestBatches();
  const std::size_t malformed = kelctl::malformedBatches().size();
  ASSERT_EQ(batches.size(), 1 + 21 + 1 + malformed + 1 + 1);
  EXPECT_EQ(idOf(batches[0]), "kel.tests.marker.start");
  EXPECT_EQ(idOf(batches[1]), "kel.tests.async.noData");
  EXPECT_EQ(idOf(batches[21]), "kel.tests.corrupt.format.tag.notreally2");
  EXPECT_EQ(idOf(batches[22]), "kel.tests.marker.corruptions.start");
  EXPECT_EQ(idOf(batches[23 + malformed]), "kel.tests.marker.corruptions.end");
  EXPECT_EQ(idOf(batches[24 + malformed]), "kel.tests.marker.end");
  for (std::size_t n = 0; n < batches.size(); ++n) {
    EXPECT_EQ(isSound(batches[n]), n < 23 || n >= 23 + malformed) << n;
  }
}

}  // namespace
