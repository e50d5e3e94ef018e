#include "selftestSequence.h"

#include <cstring>
#include <string>

#include "failure.h"
#include "host/files.h"
#include "kel/record.h"
#include "platform/msgfmt.h"

namespace kelctl {

namespace {

using KelEmit::Observation;
using platform::RecordHeader;

constexpr const char* kCorruptId = "kel.tests.corrupt.record";

Batch batchOf(const Observation& observation) {
  Batch batch;
  if (const int status = KelEmit::appendRecord(observation, batch); status != 0) {
    throw Failure("cannot make the record of " + observation.id + ": " + platform::errnoText(status));
  }
  return batch;
}

Batch marker(const std::string& id) {
  return batchOf({id, {}, {}, {}});
}

/// A sound record with one string argument, to be damaged.
Batch soundRecord() {
  return batchOf({kCorruptId, "sound but for %s", {std::string("one fault")}, {}});
}

template <typename Damage>
Batch withHeader(Damage damage) {
  Batch batch = soundRecord();
  RecordHeader header = platform::loadRecordHeader(batch.data());
  damage(header);
  std::memcpy(batch.data(), &header, sizeof header);
  return batch;
}

template <typename Damage>
Batch withArgument(Damage damage) {
  Batch batch = soundRecord();
  char* const place = batch.data() + platform::loadRecordHeader(batch.data()).argumentOffset;
  MsgFmt_Arg argument;
  std::memcpy(&argument, place, sizeof argument);
  damage(argument);
  std::memcpy(place, &argument, sizeof argument);
  return batch;
}

Batch withoutAnyNul() {
  Batch batch = soundRecord();
  std::memset(batch.data() + platform::kRecordHeaderBytes, 'x', batch.size() - platform::kRecordHeaderBytes);
  return batch;
}

Batch withRemainder() {
  Batch batch = soundRecord();
  batch.insert(batch.end(), 10, '\0');
  return batch;
}

Batch soundBeforeCutOff() {
  Batch batch = soundRecord();
  const Batch second = soundRecord();
  batch.insert(batch.end(), second.begin(), second.end() - 1);
  return batch;
}

}  // namespace

const std::vector<Observation>& selftestObservations() {
  static const std::string kLong = "some looong long long long long long string";
  constexpr std::int32_t kInt = -559038737;  // the bits 0xdeadbeef
  constexpr std::uint32_t kUint = 0xdeadbeef;
  constexpr std::int64_t kLongInt = -2401053088876216593;  // the bits 0xdeadbeefdeadbeef
  constexpr std::uint64_t kLongUint = 0xdeadbeefdeadbeef;
  constexpr std::int32_t kZero = 0;
  const auto text = [](const std::string& value) { return KelEmit::Argument(value); };
  static const std::vector<Observation> kObservations = {
      {"kel.tests.async.noData", "this is an observation with no data", {}, {}},
      {"kel.tests.async.withPath",
       "this is an observation with a complicated %s${path} path.",
       {text("/a/fake/path")},
       {}},
      {"kel.tests.async.withLog", "this is an ob with an associated Log message.", {}, {}},
      {"kel.tests.async.withWarn", "this is an ob with an associated Warn message.", {}, {}},
      {"kel.tests.async.withIntParams",
       "this is an observation with integer parameters. %d, %x, %ld",
       {kInt, kInt, kLongInt},
       {}},
      {"kel.tests.async.withUintParams",
       "this is an observation with unsigned integer parameters. %u, %x, %lu",
       {kUint, kUint, kLongUint},
       {}},
      {"kel.tests.async.withStringParams",
       "this is an observation with a string parameter: %s",
       {text("some string")},
       {}},
      {"kel.tests.async.withLongStringParam", "this is an observation with a string parameter: %s", {text(kLong)}, {}},
      {"kel.tests.async.withLongStringParams",
       "this is an observation with a string parameter: %s and another: %s",
       {text(kLong), text("some string")},
       {}},
      {"kel.tests.corrupt.format.empty", "", {}, {}},
      {"kel.tests.corrupt.format.doublepercent", "%%", {}, {}},
      {"kel.tests.corrupt.format.s.zeros", "%s", {text("")}, {}},
      {"kel.tests.corrupt.format.s.zero3", "%s", {text("000")}, {}},
      {"kel.tests.corrupt.format.tag.invalid1", "%d${", {kZero}, {}},
      {"kel.tests.corrupt.format.tag.invalid2", "%d${asdf", {kZero}, {}},
      {"kel.tests.corrupt.format.tag.nestedInval", "%d${a%d{df}", {kZero, kZero}, {}},
      {"kel.tests.corrupt.format.tag.ugly", "%d${009__.asdf}", {kZero}, {}},
      {"kel.tests.corrupt.format.tag.vugly", "%d${009__.asdf=bar=baz=foof}", {kZero}, {}},
      {"kel.tests.corrupt.format.tag.assign.inval", "%d${=invalid}", {kZero}, {}},
      {"kel.tests.corrupt.format.tag.notreally", "%%${ignore}", {}, {}},
      {"kel.tests.corrupt.format.tag.notreally2", "%%${=ignore}", {}, {}},
  };
  return kObservations;
}

std::vector<Batch> malformedBatches() {
  constexpr std::uint32_t kFarAway = 0x7fffffff;
  constexpr std::uint32_t kNoSuchType = 99;
  return {
      withHeader([](RecordHeader& header) { header.length = 0; }),
      withHeader([](RecordHeader& header) { header.length = platform::kRecordHeaderBytes - 1; }),
      withHeader([](RecordHeader& header) { ++header.length; }),
      withHeader([](RecordHeader& header) { header.length = kFarAway; }),
      withHeader([](RecordHeader& header) { header.messageOffset = header.length; }),
      withHeader([](RecordHeader& header) { header.argumentOffset = header.length + 1; }),
      withHeader([](RecordHeader& header) { header.argumentCount = kFarAway; }),
      withArgument([](MsgFmt_Arg& argument) { argument.type = kNoSuchType; }),
      withArgument([](MsgFmt_Arg& argument) { argument.value = kFarAway; }),
      withoutAnyNul(),
      marker(""),
      withRemainder(),
      soundBeforeCutOff(),
      Batch(platform::kRecordHeaderBytes / 2, '\xff'),
      Batch(),
  };
}

std::vector<Batch> selftestBatches() {
  std::vector<Batch> batches{marker("kel.tests.marker.start")};
  for (const Observation& observation : selftestObservations()) batches.push_back(batchOf(observation));
  batches.push_back(marker("kel.tests.marker.corruptions.start"));
  for (Batch& malformed : malformedBatches()) batches.push_back(std::move(malformed));
  batches.push_back(marker("kel.tests.marker.corruptions.end"));
  batches.push_back(marker("kel.tests.marker.end"));
  return batches;
}

}  // namespace kelctl
