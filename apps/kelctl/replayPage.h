// The page of a replay: a time line of what a host saw and what the daemon made of it.
#pragma once

#include <functional>
#include <string_view>

#include "json.h"

namespace kelctl {

/// The story as one self-contained page: HTML in UTF-8 that loads nothing, whatever the story's texts are.
/// Hands it to `write` in pieces, a step of the story each.
void writeReplayPage(const Json& story, const std::function<void(std::string_view)>& write);

}  // namespace kelctl
