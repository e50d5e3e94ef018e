// Observations sent as any host service sends them: through libkel-user.
#pragma once

#include <chrono>
#include <memory>
#include <span>
#include <vector>

#include "kel-user.h"
#include "platform/kelemit.h"

namespace kelctl {

/// One client of the user-level context. Belongs to one thread.
class EmitToUser {
 public:
  /// No call takes longer than `limit`. Throws Failure where memory is exhausted.
  explicit EmitToUser(std::chrono::milliseconds limit);

  /// Sends `observations` as one batch. Returns 0 or the errno value of kel_user_emit_batch().
  int send(std::span<const KelEmit::Observation> observations);

 private:
  struct Close {
    void operator()(kel_user* handle) const { kel_user_close(handle); }
  };

  std::unique_ptr<kel_user, Close> handle_;
  // Of the batch that is sent; they keep their memory from one to the next.
  std::vector<kel_user_arg> arguments_;
  std::vector<kel_user_observation> given_;
};

}  // namespace kelctl
