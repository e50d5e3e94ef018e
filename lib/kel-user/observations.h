// Observations as a C program gives them, checked and written as a batch of raw records.
#pragma once

#include <cstddef>
#include <span>
#include <vector>

#include "kel-user.h"

namespace kelUser {

/// Writes `observations` to `batch`. Returns 0, EINVAL or EMSGSIZE as kel_user_emit_batch() does; what is
/// too long is not written out first. Any thread.
int writeBatch(std::span<const kel_user_observation> observations, std::vector<char>* batch);

}  // namespace kelUser
