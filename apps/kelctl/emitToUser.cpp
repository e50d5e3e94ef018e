#include "emitToUser.h"

#include "failure.h"
#include "host/files.h"

namespace kelctl {

namespace {

struct ToArgument {
  kel_user_arg operator()(const std::string& text) const { return kel_user_string(text.c_str()); }
  kel_user_arg operator()(KelEmit::NullText /*none*/) const { return kel_user_string(nullptr); }
  kel_user_arg operator()(std::int32_t value) const { return kel_user_int32(value); }
  kel_user_arg operator()(std::uint32_t value) const { return kel_user_uint32(value); }
  kel_user_arg operator()(std::int64_t value) const { return kel_user_int64(value); }
  kel_user_arg operator()(std::uint64_t value) const { return kel_user_uint64(value); }
  kel_user_arg operator()(double value) const { return kel_user_double(value); }
};

}  // namespace

EmitToUser::EmitToUser(std::chrono::milliseconds limit) {
  kel_user* made = nullptr;
  if (const int status = kel_user_open(static_cast<int>(limit.count()), &made); status != 0) {
    throw Failure("cannot prepare to send: " + platform::errnoText(status));
  }
  handle_.reset(made);
}

int EmitToUser::send(std::span<const KelEmit::Observation> observations) {
  std::size_t count = 0;
  for (const KelEmit::Observation& observation : observations) count += observation.arguments.size();
  arguments_.clear();
  arguments_.reserve(count);  // what points into it stays valid
  given_.clear();
  for (const KelEmit::Observation& observation : observations) {
    const kel_user_arg* const first = arguments_.data() + arguments_.size();
    for (const KelEmit::Argument& argument : observation.arguments) {
      arguments_.push_back(std::visit(ToArgument{}, argument));
    }
    given_.push_back({observation.id.c_str(), observation.message ? observation.message->c_str() : nullptr, first,
                      observation.arguments.size(), observation.timestamp ? &*observation.timestamp : nullptr});
  }
  constexpr int kHandlesLimit = -1;
  return kel_user_emit_batch(handle_.get(), given_.data(), given_.size(), kHandlesLimit);
}

}  // namespace kelctl
