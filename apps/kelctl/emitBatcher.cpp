#include "emitBatcher.h"

#include <fmt/format.h>

#include "failure.h"
#include "host/files.h"
#include "kel/record.h"

namespace kelctl {

namespace {

/// A lower bound of a record's length, so that what is far too long is not built first.
std::size_t contentBytes(const KelEmit::Observation& observation) {
  std::size_t bytes =
      observation.id.size() + (observation.message ? observation.message->size() : observation.id.size());
  for (const KelEmit::Argument& argument : observation.arguments) {
    if (const auto* text = std::get_if<std::string>(&argument)) bytes += text->size();
  }
  return bytes;
}

}  // namespace

std::optional<WordsError> EmitBatcher::check(const KelEmit::Observation& observation) {
  std::vector<char> record;
  const std::size_t content = contentBytes(observation);
  if (content < kBatchLimitBytes) {
    if (const int status = KelEmit::appendRecord(observation, record); status != 0) {
      return WordsError{"no record can be made of it: " + platform::errnoText(status)};
    }
  }
  const std::size_t length = std::max(content, record.size());
  if (length < kBatchLimitBytes) return std::nullopt;
  return WordsError{
      fmt::format("the observation is too long: {} bytes, a record has at most {}", length, kBatchLimitBytes - 1)};
}

void EmitBatcher::add(const KelEmit::Observation& observation, const EmitTarget& target, std::uint64_t perBatch) {
  record_.clear();
  if (const int status = KelEmit::appendRecord(observation, record_); status != 0) {
    throw Failure("no record can be made of " + observation.id + ": " + platform::errnoText(status));
  }
  if (target != target_ || batch_.size() + record_.size() >= kBatchLimitBytes) flush();
  target_ = target;
  batch_.insert(batch_.end(), record_.begin(), record_.end());
  if (target.user) {
    observations_.push_back(observation);
    // The time of gathering, as in the record.
    if (!observation.timestamp) observations_.back().timestamp = platform::loadRecordHeader(record_.data()).timestamp;
  }
  if (++records_ >= perBatch) flush();
}

void EmitBatcher::flush() {
  if (!observations_.empty()) {
    sendToUser_(observations_);
  } else if (records_ != 0) {
    send_(target_, batch_);
  }
  observations_.clear();
  batch_.clear();
  records_ = 0;
}

}  // namespace kelctl
