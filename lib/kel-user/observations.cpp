#include "observations.h"

#include <cerrno>
#include <cstring>
#include <optional>
#include <string_view>

#include "kel/batch.h"
#include "kel/record.h"
#include "platform/kelemit.h"
#include "platform/msgfmt.h"

namespace kelUser {

namespace {

static_assert(KEL_USER_BATCH_LIMIT_BYTES == platform::kBatchLimitBytes);

std::optional<KelEmit::Argument> toArgument(const kel_user_arg& arg) {
  switch (arg.type) {
    case KEL_USER_STRING:
      if (arg.value.string == nullptr) return KelEmit::NullText{};
      return arg.value.string;
    case KEL_USER_INT32:
      return arg.value.int32;
    case KEL_USER_UINT32:
      return arg.value.uint32;
    case KEL_USER_INT64:
      return arg.value.int64;
    case KEL_USER_UINT64:
      return arg.value.uint64;
    case KEL_USER_DOUBLE:
      return arg.value.real;
    default:
      return std::nullopt;
  }
}

/// What is left of a batch.
class Room {
 public:
  explicit Room(std::size_t taken)
      : left_(taken < platform::kBatchLimitBytes ? platform::kBatchLimitBytes - taken : 0) {}

  /// False where `text` and its terminator do not fit, however long it is.
  bool take(const char* text) {
    const std::size_t length = ::strnlen(text, left_);
    left_ -= length;
    return take(1);
  }
  bool take(std::size_t bytes) {
    const bool fits = bytes < left_;
    left_ = fits ? left_ - bytes : 0;
    return fits;
  }

 private:
  std::size_t left_;
};

/// Returns 0, EINVAL or EMSGSIZE.
int check(const kel_user_observation& observation, Room room) {
  if (observation.id == nullptr || *observation.id == '\0') return EINVAL;
  if (observation.args == nullptr && observation.arg_count != 0) return EINVAL;
  const char* const message = observation.message != nullptr ? observation.message : observation.id;
  if (observation.arg_count > platform::kBatchLimitBytes / sizeof(MsgFmt_Arg)) return EMSGSIZE;
  if (!room.take(platform::kRecordHeaderBytes) || !room.take(observation.id) || !room.take(message) ||
      !room.take(observation.arg_count * sizeof(MsgFmt_Arg))) {
    return EMSGSIZE;
  }
  for (const kel_user_arg& arg : std::span(observation.args, observation.arg_count)) {
    if (arg.type < KEL_USER_STRING || arg.type > KEL_USER_DOUBLE) return EINVAL;
    const bool isText = arg.type == KEL_USER_STRING && arg.value.string != nullptr;
    if (isText && !room.take(arg.value.string)) return EMSGSIZE;
  }
  return 0;
}

KelEmit::Observation toObservation(const kel_user_observation& given) {
  KelEmit::Observation observation;
  observation.id = given.id;
  if (given.message != nullptr) observation.message = given.message;
  observation.arguments.reserve(given.arg_count);
  for (const kel_user_arg& arg : std::span(given.args, given.arg_count)) {
    if (auto argument = toArgument(arg)) observation.arguments.push_back(*std::move(argument));
  }
  if (given.time_us != nullptr) observation.timestamp = *given.time_us;
  return observation;
}

}  // namespace

int writeBatch(std::span<const kel_user_observation> observations, std::vector<char>* batch) {
  for (const kel_user_observation& observation : observations) {
    if (const int status = check(observation, Room(batch->size())); status != 0) return status;
    if (const int status = KelEmit::appendRecord(toObservation(observation), *batch); status != 0) return status;
  }
  return observations.empty() ? EINVAL : 0;
}

}  // namespace kelUser
